#pragma once

#include "recording/SleepInhibitor.h"

#include <memory>

class LogindSleepDelay;

// Inhibits sleep and idle through the desktop: the freedesktop portal's Inhibit on the
// session bus (what the desktop lists to the user, and what works from a sandbox),
// else logind's Inhibit on the system bus (a session without a portal). Where neither
// answers, one warning says so and nothing else happens.
//
// Nothing waits: hold() sends its request and returns, and the answer is taken on the
// main thread's event loop. An answer that comes after a release() (or after the
// inhibitor is gone) is given back at once, so a quick pause never leaves the
// computer inhibited. The buses are reached on the first hold(): building one
// touches nothing.
class DesktopSleepInhibitor final : public SleepInhibitor
{
public:
    DesktopSleepInhibitor();
    ~DesktopSleepInhibitor() override;

    void hold(const QString &reason) override;
    void release() override;
    // Through logind's delay inhibitor (LogindSleepDelay).
    void watchSleep(SleepHandler handler) override;

private:
    struct Hold;

    static void askLogind(const std::shared_ptr<Hold> &hold, quint64 attempt, const QString &reason,
        const QString &portalError);
    static void closePortalRequest(const QString &path);

    // Shared with the answers still on their way.
    std::shared_ptr<Hold> m_hold;
    std::unique_ptr<LogindSleepDelay> m_sleepDelay; // made on the first watch
};
