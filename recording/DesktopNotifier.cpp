#include "recording/DesktopNotifier.h"

#include "common/Logging.h"

#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {
const QString service = QStringLiteral("org.freedesktop.Notifications");
const QString path = QStringLiteral("/org/freedesktop/Notifications");
} // namespace

DesktopNotifier::DesktopNotifier(QObject *parent)
    : Notifier(parent)
{
    QDBusConnection::sessionBus().connect(
        service, path, service, QStringLiteral("ActionInvoked"), this, SLOT(takeAction(uint, QString)));
}

void DesktopNotifier::notify(const QString &sentence, const QList<Action> &actions)
{
    QStringList pairs;
    for (const Action &action : actions)
        pairs << action.key << action.label;
    QDBusMessage call = QDBusMessage::createMethodCall(service, path, service, QStringLiteral("Notify"));
    const QVariantMap hints { { QStringLiteral("desktop-entry"), QStringLiteral("app.selvaro.recorder") } };
    call << QStringLiteral("Selvaro Recorder") << m_last << QStringLiteral("app.selvaro.recorder") << sentence
         << QString() << pairs << hints << -1;
    auto *watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *answer) {
        answer->deleteLater();
        const QDBusPendingReply<uint> reply = *answer;
        if (reply.isValid()) {
            m_last = reply.value();
        } else if (!std::exchange(m_warned, true)) {
            qCWarning(lcApp, "no desktop notifications: %s", qUtf8Printable(reply.error().message()));
        }
    });
}

void DesktopNotifier::takeAction(uint id, const QString &key)
{
    // The server tells every client of every notice; ours is the last one shown.
    if (id == m_last && id != 0)
        Q_EMIT actionInvoked(key);
}
