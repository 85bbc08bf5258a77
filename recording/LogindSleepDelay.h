#pragma once

#include "recording/SleepInhibitor.h"

#include <QDBusUnixFileDescriptor>
#include <QObject>

// logind's "delay" inhibitor for sleep and its PrepareForSleep signal: while watched,
// a suspend (the lid closed, the menu, idle) waits until the handler has run. Unlike
// a "block", logind honours a delay for the lid switch too, and the desktop's own lid
// handling goes through logind's suspend.
//
// PrepareForSleep(true): the handler runs, then the delay is given back and the
// computer sleeps (logind waits at most its InhibitDelayMaxSec, 5 s by default).
// PrepareForSleep(false), after waking: the handler runs and the delay is taken anew.
// Without a system bus or logind, one warning and nothing else.
//
// Thread contract: main thread; the answers and the signal arrive on its event loop.
class LogindSleepDelay final : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    // Starts watching, or changes the handler while watching; an empty handler stops.
    void watch(SleepInhibitor::SleepHandler handler);

private Q_SLOTS:
    void prepareForSleep(bool sleeping);

private:
    void take();

    SleepInhibitor::SleepHandler m_handler;
    QDBusUnixFileDescriptor m_delay;
    quint64 m_attempt = 0; // an answer to an older attempt is given back
    bool m_listening = false;
    bool m_warned = false;
};
