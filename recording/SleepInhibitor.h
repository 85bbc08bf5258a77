#pragma once

#include <QString>

#include <functional>

// Keeps the computer from falling asleep or going idle while a recording runs: a
// suspended computer records nothing, and the files would end where it fell asleep.
// The flow holds it while recording and gives it back on pause, save and discard;
// destroying it gives it back too (the application's exit).
//
// An implementation that cannot inhibit says so in the log and lets the recording go
// on: a recording never fails for want of an inhibitor.
//
// Thread contract: main thread. Neither call waits for the desktop's answer.
class SleepInhibitor
{
public:
    virtual ~SleepInhibitor() = default;
    SleepInhibitor() = default;
    SleepInhibitor(const SleepInhibitor &) = delete;
    SleepInhibitor &operator=(const SleepInhibitor &) = delete;

    // `reason` is what the desktop shows where it lists what keeps the computer
    // awake. A hold while held does nothing.
    virtual void hold(const QString &reason) = 0;
    // Safe when not held.
    virtual void release() = 0;

    // Delays the computer's sleep while watched, independently of hold(): the handler
    // runs with true before the computer sleeps, which waits for it to return, and
    // with false once it woke. An empty handler stops watching. An implementation that
    // cannot delay sleep logs it once and never calls the handler.
    using SleepHandler = std::function<void(bool sleeping)>;
    virtual void watchSleep(SleepHandler handler) = 0;
};
