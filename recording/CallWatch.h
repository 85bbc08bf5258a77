#pragma once

#include "audio/StreamWatch.h"
#include "common/Repeater.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QString>

#include <chrono>
#include <memory>

class Clock;

// Tells calls from the sound server's client streams, never from their audio: a
// program is in a call while it holds the microphone (a capture stream of an input:
// not ours, not of a monitor, not a level meter) and plays at the same time (a
// playback stream of its own that is not paused). A program is known by the name it
// gives itself (else its executable): a browser records and plays from different
// processes.
//
// - callStarted once that has held for `startAfter` without a break: a microphone
//   alone (dictation, a voice recorder), a playback alone (music, a video) or a short
//   hold (a sound check, a notification) is no call.
// - callEnded once the program has held neither stream for `endAfter`: a call that
//   drops a stream for a moment (a device switch, a reconnect) is still the same call,
//   and is not offered again.
//
// Thread contract: main thread only; the times run on the clock, so tests move it by
// hand. Reads snapshots: update() with every new list, or watch() a StreamWatch.
class CallWatch : public QObject
{
    Q_OBJECT

public:
    // Long enough that ringing, a test call or a sound check is over; short enough
    // that the user misses only the greeting.
    static constexpr std::chrono::seconds startAfter { 8 };
    // Long enough for a device switch or a reconnect inside the same call.
    static constexpr std::chrono::seconds endAfter { 10 };

    explicit CallWatch(std::shared_ptr<Clock> clock, QObject *parent = nullptr);
    ~CallWatch() override;

    // Follows `watch` (which must outlive this object, or be owned by it).
    void watch(std::unique_ptr<StreamWatch> watch);
    // The server's streams as they are now.
    void update(const QList<ClientStream> &streams);

    // Whether `program` holds a call now (started and not ended).
    [[nodiscard]] bool inCall(const QString &program) const;

Q_SIGNALS:
    void callStarted(const QString &program);
    void callEnded(const QString &program);

private:
    struct Program
    {
        bool microphone = false;
        bool playing = false;
        bool announced = false; // callStarted sent, callEnded not yet
        std::chrono::steady_clock::time_point since {}; // of the present both, or neither
    };
    // Sends what is due and sleeps until the next deadline.
    void settle();

    std::shared_ptr<Clock> m_clock;
    Repeater m_deadline;
    std::unique_ptr<StreamWatch> m_watch;
    QHash<QString, Program> m_programs;
};
