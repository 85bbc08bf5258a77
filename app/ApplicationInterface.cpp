#include "app/ApplicationInterface.h"

#include "common/Logging.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>

ApplicationInterface::ApplicationInterface(std::function<void(const QString &token)> activate, Action action)
    : m_activate(std::move(activate))
    , m_action(std::move(action))
{ }

ApplicationInterface::~ApplicationInterface()
{
    if (m_registered)
        QDBusConnection::sessionBus().unregisterObject(QLatin1String(objectPath));
}

ApplicationInterface::Claim ApplicationInterface::claim()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return Claim::noBus;
    m_registered = bus.registerVirtualObject(QLatin1String(objectPath), this);
    // Not queued: a second instance must learn at once that it is one.
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply
        = bus.interface()->registerService(QLatin1String(serviceName),
            QDBusConnectionInterface::DontQueueService, QDBusConnectionInterface::DontAllowReplacement);
    if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered)
        return Claim::owned;
    if (!reply.isValid())
        qCWarning(lcApp, "could not own %s: %s", serviceName, qUtf8Printable(reply.error().message()));
    bus.unregisterObject(QLatin1String(objectPath));
    m_registered = false;
    return reply.isValid() ? Claim::elsewhere : Claim::noBus;
}

QString ApplicationInterface::introspect(const QString &) const
{
    return QStringLiteral(R"(<interface name="org.freedesktop.Application">
  <method name="Activate"><arg type="a{sv}" name="platform_data" direction="in"/></method>
  <method name="Open"><arg type="as" name="uris" direction="in"/><arg type="a{sv}" name="platform_data" direction="in"/></method>
  <method name="ActivateAction"><arg type="s" name="action_name" direction="in"/><arg type="av" name="parameter" direction="in"/><arg type="a{sv}" name="platform_data" direction="in"/></method>
</interface>)");
}

bool ApplicationInterface::handleMessage(const QDBusMessage &message, const QDBusConnection &connection)
{
    if (message.interface() != QLatin1String(interfaceName))
        return false;
    const QString member = message.member();
    if (member == QLatin1String("Activate") || member == QLatin1String("Open")) {
        if (member == QLatin1String("Activate")) {
            const QVariantMap data = qdbus_cast<QVariantMap>(message.arguments().value(0));
            m_activate(data.value(QStringLiteral("activation-token"),
                               data.value(QStringLiteral("desktop-startup-id")))
                           .toString());
        }
        connection.send(message.createReply());
        return true;
    }
    if (member != QLatin1String("ActivateAction") || message.arguments().isEmpty())
        return false;
    message.setDelayedReply(true);
    answer(m_action, message.arguments().constFirst().toString(), message);
    return true;
}

// Holds the action's copy, not the object: the reply goes out even if the window
// has gone meanwhile.
QCoro::Task<> ApplicationInterface::answer(Action action, QString name, QDBusMessage call)
{
    QCoro::Task<std::optional<QString>> taking = action(std::move(name));
    const std::optional<QString> refusal = co_await std::move(taking);
    QDBusConnection::sessionBus().send(
        refusal ? call.createErrorReply(QLatin1String(notTakenError), *refusal) : call.createReply());
}
