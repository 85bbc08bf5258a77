#include "app/PortalShortcut.h"

#include "common/Logging.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>

namespace {

const QString portal = QStringLiteral("org.freedesktop.portal.Desktop");
const QString desktop = QStringLiteral("/org/freedesktop/portal/desktop");
const QString shortcuts = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");

// One entry of BindShortcuts' a(sa{sv}).
struct Shortcut
{
    QString id;
    QVariantMap properties;
};

QDBusArgument &operator<<(QDBusArgument &out, const Shortcut &shortcut)
{
    out.beginStructure();
    out << shortcut.id << shortcut.properties;
    out.endStructure();
    return out;
}

const QDBusArgument &operator>>(const QDBusArgument &in, Shortcut &shortcut)
{
    in.beginStructure();
    in >> shortcut.id >> shortcut.properties;
    in.endStructure();
    return in;
}

QDBusMessage call(const QString &interface, const QString &member)
{
    return QDBusMessage::createMethodCall(portal, desktop, interface, member);
}

} // namespace

Q_DECLARE_METATYPE(Shortcut)

PortalShortcut::PortalShortcut(QObject *parent)
    : QObject(parent)
{
    qDBusRegisterMetaType<Shortcut>();
    qDBusRegisterMetaType<QList<Shortcut>>();
}

void PortalShortcut::registerWithPortal()
{
    QDBusMessage version = call(QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    version << shortcuts << QStringLiteral("version");
    auto *answer = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(version), this);
    connect(answer, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *watcher) {
        watcher->deleteLater();
        if (watcher->isError()) {
            qCDebug(
                lcApp, "no global shortcuts at the portal: %s", qUtf8Printable(watcher->error().message()));
            return;
        }
        QDBusConnection::sessionBus().connect(
            portal, desktop, shortcuts, QStringLiteral("Activated"), this, SLOT(activated(QDBusMessage)));
        const QString token = QStringLiteral("selvaro_session");
        listenForAnswer(token, SLOT(sessionCreated(uint, QVariantMap)));
        QDBusMessage create = call(shortcuts, QStringLiteral("CreateSession"));
        create << QVariantMap { { QStringLiteral("handle_token"), token },
            { QStringLiteral("session_handle_token"), QStringLiteral("selvaro") } };
        QDBusConnection::sessionBus().asyncCall(create);
    });
}

void PortalShortcut::listenForAnswer(const QString &token, const char *slot)
{
    // The portal names the request after our unique name and the token we chose.
    QString sender = QDBusConnection::sessionBus().baseService().mid(1);
    const QString path = desktop + QStringLiteral("/request/") + sender.replace(u'.', u'_') + u'/' + token;
    QDBusConnection::sessionBus().connect(portal, path, QStringLiteral("org.freedesktop.portal.Request"),
        QStringLiteral("Response"), this, slot);
}

void PortalShortcut::sessionCreated(uint response, const QVariantMap &results)
{
    if (response != 0 || !m_session.isEmpty())
        return;
    m_session = results.value(QStringLiteral("session_handle")).toString();
    const QList<Shortcut> toggle { { QLatin1String(shortcutId),
        { { QStringLiteral("description"), tr("Start or pause recording") } } } };
    QDBusMessage bind = call(shortcuts, QStringLiteral("BindShortcuts"));
    bind << QVariant::fromValue(QDBusObjectPath(m_session)) << QVariant::fromValue(toggle) << QString()
         << QVariantMap { { QStringLiteral("handle_token"), QStringLiteral("selvaro_bind") } };
    QDBusConnection::sessionBus().asyncCall(bind);
}

void PortalShortcut::activated(const QDBusMessage &signal)
{
    const QVariantList arguments = signal.arguments();
    if (arguments.size() >= 2 && arguments.at(0).value<QDBusObjectPath>().path() == m_session
        && arguments.at(1).toString() == QLatin1String(shortcutId))
        Q_EMIT pressed();
}
