#include "recording/CallOffer.h"

#include "common/Observable.h"
#include "common/SettingsFile.h"
#include "recording/AutoPause.h"
#include "recording/CallWatch.h"
#include "recording/Notifier.h"
#include "recording/RecorderCommand.h"
#include "recording/RecorderFlow.h"

namespace {

const QString enabledKey = QStringLiteral("offerToRecordCalls");
const QString recordKey = QStringLiteral("record-call");

} // namespace

CallOffer::CallOffer(RecorderFlow &flow, const SessionStore &store, Notifier &notifier, CallWatch &calls,
    AutoPause &autoPause, QObject *parent)
    : QObject(parent)
    , m_flow(flow)
    , m_store(store)
    , m_notifier(notifier)
    , m_calls(calls)
    , m_autoPause(autoPause)
    , m_enabled(settingsFile().value(enabledKey, true).toBool())
{
    connect(&m_calls, &CallWatch::callStarted, this, &CallOffer::offer);
    connect(&m_notifier, &Notifier::actionInvoked, this, &CallOffer::takeAction);
}

void CallOffer::setEnabled(bool enabled)
{
    if (setIfChanged(m_enabled, enabled, this, &CallOffer::enabledChanged))
        settingsFile().setValue(enabledKey, enabled);
}

void CallOffer::offer(const QString &program)
{
    using Kind = RecorderState::Kind;
    const Kind kind = m_flow.state().kind();
    if (!m_enabled || kind == Kind::recording || kind == Kind::paused || kind == Kind::saving)
        return;
    m_offered = program;
    m_notifier.notify(tr("%1 is in a call. Record it?").arg(program),
        { { recordKey, tr("Record") }, { QStringLiteral("not-now"), tr("Not now") } });
}

void CallOffer::takeAction(const QString &key)
{
    const QString program = std::exchange(m_offered, QString());
    // A notice clicked after its call ended offers nothing any more.
    if (key != recordKey || program.isEmpty() || !m_calls.inCall(program))
        return;
    if (const std::optional<QString> refusal
        = RecorderCommand::take(RecorderCommand::Name::record, m_flow, m_store)) {
        m_notifier.notify(*refusal);
        return;
    }
    m_autoPause.followCall(program);
    Q_EMIT recordingCall(program);
}
