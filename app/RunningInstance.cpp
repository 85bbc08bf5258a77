#include "app/RunningInstance.h"

#include "app/ApplicationInterface.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QEventLoop>
#include <QProcess>
#include <QTimer>

#include <cstdio>

namespace {

// A fresh instance reads the secret store before it answers an action: give it as
// long as the window waits before it says the keyring is silent, and more.
constexpr int actionTimeoutMs = 30000;
constexpr int startTimeoutMs = 15000;

QDBusMessage call(const QString &member)
{
    return QDBusMessage::createMethodCall(QLatin1String(ApplicationInterface::serviceName),
        QLatin1String(ApplicationInterface::objectPath), QLatin1String(ApplicationInterface::interfaceName),
        member);
}

// What the desktop passes along so that the window may take the focus.
QVariantMap platformData()
{
    QVariantMap data;
    for (const char *name : { "XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID" }) {
        if (qEnvironmentVariableIsSet(name))
            data.insert(QString::fromLatin1(name).toLower().replace(u'_', u'-'), qEnvironmentVariable(name));
    }
    return data;
}

bool isRunning(QDBusConnection &bus)
{
    return bus.interface()->isServiceRegistered(QLatin1String(ApplicationInterface::serviceName));
}

bool start(QDBusConnection &bus)
{
    const QString name = QLatin1String(ApplicationInterface::serviceName);
    if (bus.interface()->startService(name).isValid())
        return true;
    QDBusServiceWatcher watcher(name, bus, QDBusServiceWatcher::WatchForRegistration);
    QEventLoop loop;
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceRegistered, &loop, &QEventLoop::quit);
    QTimer::singleShot(startTimeoutMs, &loop, &QEventLoop::quit);
    // The instance outlives this command: it logs to the journal, not to our terminal.
    QProcess instance;
    instance.setProgram(QCoreApplication::applicationFilePath());
    instance.setStandardOutputFile(QProcess::nullDevice());
    instance.setStandardErrorFile(QProcess::nullDevice());
    if (!instance.startDetached())
        return false;
    if (!isRunning(bus))
        loop.exec();
    return isRunning(bus);
}

void say(const QString &sentence)
{
    std::fprintf(stderr, "%s\n", sentence.toLocal8Bit().constData());
}

} // namespace

bool RunningInstance::activate()
{
    QDBusMessage activate = call(QStringLiteral("Activate"));
    activate << platformData();
    return QDBusConnection::sessionBus().call(activate).type() == QDBusMessage::ReplyMessage;
}

std::optional<int> RunningInstance::take(const QString &action)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return std::nullopt;
    if (!isRunning(bus) && !start(bus)) {
        say(QCoreApplication::translate("RunningInstance", "Selvaro Recorder could not be started."));
        return 1;
    }
    QDBusMessage activateAction = call(QStringLiteral("ActivateAction"));
    activateAction << action << QVariant::fromValue(QVariantList()) << platformData();
    const QDBusMessage reply = bus.call(activateAction, QDBus::Block, actionTimeoutMs);
    if (reply.type() == QDBusMessage::ReplyMessage)
        return 0;
    say(reply.errorName() == QLatin1String(ApplicationInterface::notTakenError)
            ? reply.errorMessage()
            : QCoreApplication::translate("RunningInstance", "Selvaro Recorder did not answer."));
    return 1;
}
