#include "recording/AutoPause.h"

#include "common/Clock.h"
#include "recording/CallWatch.h"
#include "recording/Notifier.h"
#include "recording/RecorderFlow.h"

AutoPause::AutoPause(
    RecorderFlow &flow, Notifier &notifier, CallWatch &calls, std::shared_ptr<Clock> clock, QObject *parent)
    : QObject(parent)
    , m_flow(flow)
    , m_notifier(notifier)
    , m_clock(clock)
    , m_checks(std::move(clock))
{
    connect(&m_flow, &RecorderFlow::stateChanged, this, &AutoPause::followState);
    LevelWatch &levels = m_flow.levels();
    connect(&levels, &LevelWatch::systemLevelChanged, this, &AutoPause::heard);
    connect(&levels, &LevelWatch::microphoneLevelChanged, this, &AutoPause::heard);
    connect(&calls, &CallWatch::callEnded, this, [this](const QString &program) {
        if (program == m_call && m_flow.state().is(RecorderState::Kind::recording))
            pauseBecause(tr("The call ended, so the recording is paused."));
    });
    connect(&m_notifier, &Notifier::actionInvoked, this, [this](const QString &key) {
        // A notice may be clicked long after: only a pause still standing is acted on.
        if (!m_flow.state().is(RecorderState::Kind::paused))
            return;
        if (key == QLatin1String("save"))
            m_flow.save();
        else if (key == QLatin1String("resume"))
            m_flow.resume();
    });
    followState();
}

void AutoPause::followCall(const QString &program)
{
    m_call = program;
}

void AutoPause::followState()
{
    const RecorderState &state = m_flow.state();
    if (!state.is(RecorderState::Kind::recording)) {
        m_checks.stop();
        // A call followed is followed until its recording is done with.
        if (!state.is(RecorderState::Kind::paused))
            m_call.clear();
        return;
    }
    if (m_checks.isRunning())
        return;
    // Paused time is not silence: the count starts again with each segment.
    m_lastHeard = m_clock->monotonicNow();
    m_checks.start(checkInterval, [this] {
        check();
        return true;
    });
}

void AutoPause::heard()
{
    const LevelWatch &levels = m_flow.levels();
    if (levels.systemLevel() > heardLevel || levels.microphoneLevel() > heardLevel)
        m_lastHeard = m_clock->monotonicNow();
}

void AutoPause::check()
{
    heard();
    if (m_clock->monotonicNow() - m_lastHeard >= silenceAfter)
        pauseBecause(tr("Nothing was heard for 5 minutes, so the recording is paused."));
}

void AutoPause::pauseBecause(const QString &sentence)
{
    m_flow.pause();
    m_notifier.notify(
        sentence, { { QStringLiteral("save"), tr("Save") }, { QStringLiteral("resume"), tr("Resume") } });
}
