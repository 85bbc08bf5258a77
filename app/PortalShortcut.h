#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QString>
#include <QVariantMap>

// The one global shortcut, "Start or pause recording", registered through the desktop
// portal's GlobalShortcuts where the portal offers it (KDE Plasma does; GNOME 43 does
// not): a session, then the shortcut bound in it, whose key the desktop lets the user
// choose. Where the portal lacks the interface nothing is said: the bound command
// ("selvaro-recorder --toggle", docs/app.md) does the same from any desktop.
//
// Nothing blocks: each step is sent and its answer (the portal's Request::Response)
// taken on the event loop. Main thread only.
class PortalShortcut : public QObject
{
    Q_OBJECT

public:
    // The shortcut's id at the portal.
    static constexpr const char *shortcutId = "toggle";

    explicit PortalShortcut(QObject *parent = nullptr);
    // Asks the portal; `pressed` follows once the shortcut is bound.
    void registerWithPortal();

Q_SIGNALS:
    void pressed();

private Q_SLOTS:
    void sessionCreated(uint response, const QVariantMap &results);
    // Activated(o session, s id, t timestamp, a{sv} options).
    void activated(const QDBusMessage &signal);

private:
    // The Request object a call with `token` answers on, listened to before the call.
    void listenForAnswer(const QString &token, const char *slot);

    QString m_session;
};
