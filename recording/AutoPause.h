#pragma once

#include "common/Repeater.h"

#include <QObject>
#include <QString>

#include <chrono>
#include <memory>

class CallWatch;
class Clock;
class Notifier;
class RecorderFlow;

// Pauses a recording that nobody attends, so that nobody ends up with a five-hour
// file: when the call it was started for has ended (CallWatch::callEnded of the
// program given to followCall), or when neither source has been heard for
// `silenceAfter` of recording. It only pauses, exactly as the Pause button does:
// nothing is stopped, saved or sent by itself. A notice says why, with "Save" and
// "Resume".
//
// "Heard" is a level above `heardLevel` in any read of the flow's LevelWatch: the
// noise of a quiet room and the hiss of an idle line stay below it, speech does not;
// so a call with long pauses is never paused, a room left empty is.
//
// Thread contract: main thread only; the silence is measured on the clock (a 1 s
// check while recording), so tests move it by hand. `flow`, `notifier` and `calls`
// must outlive this object.
class AutoPause : public QObject
{
    Q_OBJECT

public:
    // Longer than any pause in a conversation or a presentation, short enough to
    // spare hours of silence.
    static constexpr std::chrono::minutes silenceAfter { 5 };
    // -40 dBFS.
    static constexpr double heardLevel = 0.01;
    static constexpr std::chrono::milliseconds checkInterval { 1000 };

    AutoPause(RecorderFlow &flow, Notifier &notifier, CallWatch &calls, std::shared_ptr<Clock> clock,
        QObject *parent = nullptr);

    // The recording just started is for `program`'s call: it pauses when that ends.
    void followCall(const QString &program);

private:
    void followState();
    void check();
    void heard();
    void pauseBecause(const QString &sentence);

    RecorderFlow &m_flow;
    Notifier &m_notifier;
    std::shared_ptr<Clock> m_clock;
    Repeater m_checks;
    QString m_call;
    std::chrono::steady_clock::time_point m_lastHeard {};
};
