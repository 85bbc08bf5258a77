#pragma once

#include "recording/Notifier.h"

// Notices through the desktop's notification server (org.freedesktop.Notifications on
// the session bus), each taking the place of the one before (replaces_id) and naming
// the launcher entry, so the desktop shows the application's icon and name. Without a
// server, one warning in the log and nothing else: every notice has its way in the
// window or the tray too.
class DesktopNotifier final : public Notifier
{
    Q_OBJECT

public:
    explicit DesktopNotifier(QObject *parent = nullptr);

    void notify(const QString &sentence, const QList<Action> &actions = {}) override;

private Q_SLOTS:
    void takeAction(uint id, const QString &key);

private:
    uint m_last = 0; // the server's number for our last notice
    bool m_warned = false;
};
