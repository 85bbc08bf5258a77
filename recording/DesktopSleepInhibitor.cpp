#include "recording/DesktopSleepInhibitor.h"

#include "common/Logging.h"
#include "recording/LogindSleepDelay.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>

#include <functional>

// The current hold and what it holds: the portal's request object or logind's
// descriptor (closing it gives the inhibitor back).
struct DesktopSleepInhibitor::Hold
{
    bool wanted = false;
    quint64 attempt = 0; // answers to an older attempt are given back
    QString portalRequest;
    QDBusUnixFileDescriptor logindInhibitor;
};

namespace {

// Long enough for a portal that is started on demand; the call never blocks meanwhile.
constexpr int answerTimeoutMs = 10000;
constexpr uint inhibitSuspend = 4;
constexpr uint inhibitIdle = 8;

void onAnswer(QDBusPendingCall call, std::function<void(const QDBusPendingCall &)> done)
{
    auto *watcher = new QDBusPendingCallWatcher(call);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
        [done = std::move(done)](QDBusPendingCallWatcher *finished) {
            done(*finished);
            finished->deleteLater();
        });
}

} // namespace

void DesktopSleepInhibitor::closePortalRequest(const QString &path)
{
    QDBusConnection::sessionBus().call(
        QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.portal.Desktop"), path,
            QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Close")),
        QDBus::NoBlock);
}

void DesktopSleepInhibitor::askLogind(
    const std::shared_ptr<Hold> &hold, quint64 attempt, const QString &reason, const QString &portalError)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    const auto giveUp = [portalError](const QString &logindError) {
        qCWarning(lcRecorder).noquote()
            << "Sleep is not inhibited while recording: portal:" << portalError << "/ logind:" << logindError;
    };
    if (!bus.isConnected())
        return giveUp(bus.lastError().message());
    QDBusMessage inhibit = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.login1"),
        QStringLiteral("/org/freedesktop/login1"), QStringLiteral("org.freedesktop.login1.Manager"),
        QStringLiteral("Inhibit"));
    inhibit << QStringLiteral("sleep:idle") << QCoreApplication::applicationName() << reason
            << QStringLiteral("block");
    onAnswer(bus.asyncCall(inhibit, answerTimeoutMs), [hold, attempt, giveUp](const QDBusPendingCall &call) {
        const QDBusPendingReply<QDBusUnixFileDescriptor> reply = call;
        if (reply.isError())
            return giveUp(reply.error().message());
        // An unwanted descriptor closes as the reply goes.
        if (hold->wanted && hold->attempt == attempt)
            hold->logindInhibitor = reply.value();
    });
}

DesktopSleepInhibitor::DesktopSleepInhibitor()
    : m_hold(std::make_shared<Hold>())
{ }

DesktopSleepInhibitor::~DesktopSleepInhibitor()
{
    release();
}

void DesktopSleepInhibitor::hold(const QString &reason)
{
    if (m_hold->wanted)
        return;
    m_hold->wanted = true;
    const quint64 attempt = ++m_hold->attempt;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return askLogind(m_hold, attempt, reason, bus.lastError().message());
    QDBusMessage inhibit = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.portal.Desktop"),
        QStringLiteral("/org/freedesktop/portal/desktop"), QStringLiteral("org.freedesktop.portal.Inhibit"),
        QStringLiteral("Inhibit"));
    inhibit << QString() << (inhibitSuspend | inhibitIdle)
            << QVariantMap { { QStringLiteral("reason"), reason } };
    onAnswer(bus.asyncCall(inhibit, answerTimeoutMs),
        [hold = m_hold, attempt, reason](const QDBusPendingCall &call) {
            const QDBusPendingReply<QDBusObjectPath> reply = call;
            if (reply.isError()) {
                if (hold->wanted && hold->attempt == attempt)
                    askLogind(hold, attempt, reason, reply.error().message());
                return;
            }
            if (hold->wanted && hold->attempt == attempt)
                hold->portalRequest = reply.value().path();
            else
                closePortalRequest(reply.value().path());
        });
}

void DesktopSleepInhibitor::release()
{
    m_hold->wanted = false;
    if (const QString request = std::exchange(m_hold->portalRequest, {}); !request.isEmpty())
        closePortalRequest(request);
    m_hold->logindInhibitor = QDBusUnixFileDescriptor();
}

void DesktopSleepInhibitor::watchSleep(SleepHandler handler)
{
    if (!m_sleepDelay && !handler)
        return;
    if (!m_sleepDelay)
        m_sleepDelay = std::make_unique<LogindSleepDelay>();
    m_sleepDelay->watch(std::move(handler));
}
