#include "recording/RecorderCommand.h"

#include "account/SessionStore.h"
#include "recording/RecorderFlow.h"

#include <QCoreApplication>

namespace {

using Kind = RecorderState::Kind;

QString tr(const char *text)
{
    return QCoreApplication::translate("RecorderCommand", text);
}

std::optional<QString> record(RecorderFlow &flow, const SessionStore &store)
{
    if (!store.isLinked())
        return tr("This computer is not linked yet.");
    if (flow.showsPermissions())
        return tr("Allow the microphone and system audio first.");
    flow.record();
    // A start that failed says why in the window too.
    if (!flow.state().is(Kind::recording))
        return flow.state().text();
    return std::nullopt;
}

} // namespace

std::optional<RecorderCommand::Name> RecorderCommand::named(const QString &name)
{
    for (const auto &[text, value] :
        { std::pair { "toggle", Name::toggle }, std::pair { "record", Name::record },
            std::pair { "pause", Name::pause }, std::pair { "save", Name::save } }) {
        if (name == QLatin1String(text))
            return value;
    }
    return std::nullopt;
}

std::optional<QString> RecorderCommand::take(Name name, RecorderFlow &flow, const SessionStore &store)
{
    const Kind kind = flow.state().kind();
    switch (name) {
    case Name::toggle:
        if (kind == Kind::recording)
            return take(Name::pause, flow, store);
        if (kind == Kind::paused) {
            flow.resume();
            return std::nullopt;
        }
        return take(Name::record, flow, store);
    case Name::record:
        if (kind == Kind::recording || kind == Kind::paused)
            return std::nullopt; // already the case
        if (kind == Kind::saving)
            return tr("The last recording is still being sent.");
        return record(flow, store);
    case Name::pause:
        if (kind == Kind::paused)
            return std::nullopt;
        if (kind != Kind::recording)
            return tr("Nothing is being recorded.");
        flow.pause();
        return std::nullopt;
    case Name::save:
        if (kind != Kind::paused)
            return tr("Nothing to save.");
        flow.save();
        return std::nullopt;
    }
    return std::nullopt;
}
