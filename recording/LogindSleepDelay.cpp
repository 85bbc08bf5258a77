#include "recording/LogindSleepDelay.h"

#include "common/Logging.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace {

const QString login1 = QStringLiteral("org.freedesktop.login1");
const QString login1Path = QStringLiteral("/org/freedesktop/login1");
const QString login1Manager = QStringLiteral("org.freedesktop.login1.Manager");

} // namespace

void LogindSleepDelay::watch(SleepInhibitor::SleepHandler handler)
{
    const bool starting = handler && !m_handler;
    m_handler = std::move(handler);
    if (!m_handler) {
        ++m_attempt;
        m_delay = QDBusUnixFileDescriptor();
        return;
    }
    if (!starting)
        return;
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!m_listening && bus.isConnected())
        m_listening = bus.connect(login1, login1Path, login1Manager, QStringLiteral("PrepareForSleep"), this,
            SLOT(prepareForSleep(bool)));
    take();
}

void LogindSleepDelay::take()
{
    const quint64 attempt = ++m_attempt;
    QDBusConnection bus = QDBusConnection::systemBus();
    const auto warn = [this](const QString &error) {
        if (!std::exchange(m_warned, true))
            qCWarning(lcRecorder).noquote()
                << "A recording will not pause before the computer sleeps:" << error;
    };
    if (!bus.isConnected())
        return warn(bus.lastError().message());
    QDBusMessage inhibit
        = QDBusMessage::createMethodCall(login1, login1Path, login1Manager, QStringLiteral("Inhibit"));
    inhibit << QStringLiteral("sleep") << QCoreApplication::applicationName()
            << tr("Pausing the recording before sleep") << QStringLiteral("delay");
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(inhibit), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
        [this, attempt, warn](QDBusPendingCallWatcher *call) {
            call->deleteLater();
            const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *call;
            if (reply.isError())
                return warn(reply.error().message());
            // An unwanted descriptor closes as the reply goes.
            if (attempt == m_attempt && m_handler)
                m_delay = reply.value();
        });
}

void LogindSleepDelay::prepareForSleep(bool sleeping)
{
    if (!m_handler)
        return;
    qCInfo(lcRecorder) << (sleeping ? "The computer is about to sleep" : "The computer woke up");
    // The handler may stop the watch (a state change); keep our own copy for the call.
    const SleepInhibitor::SleepHandler handler = m_handler;
    handler(sleeping);
    if (sleeping) {
        ++m_attempt;
        m_delay = QDBusUnixFileDescriptor(); // the computer may sleep now
    } else if (m_handler) {
        take();
    }
}
