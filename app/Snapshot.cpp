#include "app/Snapshot.h"

#include "account/PairingFlow.h"
#include "app/ScreenFrame.h"
#include "recording/RecorderFlow.h"
#include "ui/PairingView.h"
#include "ui/Palette.h"
#include "ui/RecorderView.h"
#include "ui/Rendering.h"

#include <QDateTime>
#include <QDir>
#include <QImage>

#include <functional>
#include <memory>
#include <vector>

namespace {

using State = RecorderFlow::State;

constexpr qreal scale = 2.0;

// One snapshot: its file name and a function that renders it. Models live only
// as long as their render.
struct Entry
{
    QString name;
    std::function<QImage()> render;
};

QImage renderFramed(QWidget *screen)
{
    ScreenFrame frame(screen);
    return Rendering::toImage(frame, scale, Palette::selvaroBackground());
}

QImage pairing(const PairingFlow::State &state, bool showsCode, const QDateTime &now)
{
    const std::unique_ptr<PairingFlow> flow = PairingFlow::preview(state);
    auto *view = new PairingView(flow.get());
    // The countdown reads the instant the state was made at, so it shows exactly
    // the seconds it was given, however long rendering takes.
    view->setClock([now] { return now; });
    view->setAnimated(false);
    view->setShowsCode(showsCode);
    return renderFramed(view);
}

QImage recorder(const State &state, double elapsed, Permission microphone, Permission systemAudio)
{
    const std::unique_ptr<RecorderFlow> flow = RecorderFlow::preview(state, elapsed, microphone, systemAudio);
    auto *view = new RecorderView(flow.get());
    view->setAnimated(false);
    return renderFramed(view);
}

std::vector<Entry> entries()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const PairingFlow::State waiting = PairingFlow::State::waiting(
        PairingStart { QStringLiteral("snapshot"), QStringLiteral("R3XD-8N5W"), 600, 5 }, now.addSecs(581));
    const auto granted = Permission::granted;
    const auto unknown = Permission::unknown;
    return {
        { QStringLiteral("pairing"), [=] { return pairing(waiting, false, now); } },
        { QStringLiteral("pairing-code"), [=] { return pairing(waiting, true, now); } },
        { QStringLiteral("pairing-expired"),
            [=] { return pairing(PairingFlow::State::expired(), false, now); } },
        { QStringLiteral("pairing-failed"),
            [=] {
                return pairing(PairingFlow::State::failed(
                                   QStringLiteral("The Internet connection appears to be offline.")),
                    false, now);
            } },
        { QStringLiteral("recorder-idle"), [=] { return recorder(State::idle(), 0, granted, granted); } },
        { QStringLiteral("permissions-1"), [=] { return recorder(State::idle(), 0, unknown, unknown); } },
        { QStringLiteral("permissions-2"), [=] { return recorder(State::idle(), 0, granted, unknown); } },
        { QStringLiteral("recorder-recording"),
            [=] { return recorder(State::recording(), 83, granted, granted); } },
        { QStringLiteral("recorder-paused"),
            [=] { return recorder(State::paused(), 83, granted, granted); } },
        { QStringLiteral("recorder-saving"),
            [=] {
                return recorder(State::saving(QStringLiteral("Uploading… 42 %"), 42), 83, granted, granted);
            } },
        { QStringLiteral("recorder-sent"), [=] { return recorder(State::sent(), 83, granted, granted); } },
        { QStringLiteral("recorder-failed"),
            [=] {
                return recorder(
                    State::failed(QStringLiteral("The recording could not start. Check the microphone and "
                                                 "system audio permissions.")),
                    0, granted, granted);
            } },
    };
}

} // namespace

std::optional<QString> Snapshot::requestedDirectory(const QStringList &arguments)
{
    const qsizetype at = arguments.indexOf(QLatin1String("--snapshot"));
    if (at < 0 || at + 1 >= arguments.size())
        return std::nullopt;
    return arguments.at(at + 1);
}

QStringList Snapshot::names()
{
    QStringList result;
    for (const Entry &entry : entries())
        result.append(entry.name);
    return result;
}

bool Snapshot::runIfAsked(const QStringList &arguments)
{
    const std::optional<QString> directory = requestedDirectory(arguments);
    if (!directory)
        return false;
    const QDir output(*directory);
    // A directory that cannot be made shows up as writes that fail, each skipped.
    QDir().mkpath(output.absolutePath());
    for (const Entry &entry : entries()) {
        const QImage image = entry.render();
        if (image.isNull())
            continue;
        image.save(output.filePath(entry.name + QLatin1String(".png")), "PNG");
    }
    return true;
}
