// A secret store that never answers, through the real window offscreen: a private
// session bus on which this process owns the Secret Service's name and keeps every
// call it receives without replying.
#include "account/PairingFlow.h"
#include "app/AppModel.h"
#include "app/ContentView.h"
#include "ui/PairingView.h"

#include <QAbstractButton>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QLabel>
#include <QProcess>
#include <QTest>
#include <QThread>

#include <utility>

namespace {

// Holds every call until told to answer; then refuses each, as a locked keyring would.
class SilentSecretService : public QDBusVirtualObject
{
public:
    int received = 0;
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &call, const QDBusConnection &bus) override
    {
        ++received;
        if (m_answering)
            bus.send(call.createErrorReply(QDBusError::AccessDenied, QStringLiteral("locked")));
        else
            m_held.append(call);
        return true;
    }
    void answer()
    {
        m_answering = true;
        for (const QDBusMessage &call : std::exchange(m_held, {}))
            QDBusConnection(QStringLiteral("keyring"))
                .send(call.createErrorReply(QDBusError::AccessDenied, QStringLiteral("locked")));
    }

private:
    bool m_answering = false;
    QList<QDBusMessage> m_held;
};

} // namespace

class SilentKeyringTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_bus.start(QStringLiteral("dbus-daemon"),
            { QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1") });
        QVERIFY(m_bus.waitForReadyRead(5000));
        const QByteArray address = m_bus.readLine().trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        QDBusConnection bus
            = QDBusConnection::connectToBus(QString::fromUtf8(address), QStringLiteral("keyring"));
        QVERIFY(bus.registerVirtualObject(QStringLiteral("/"), &m_service, QDBusConnection::SubPath));
        QVERIFY(bus.registerService(QStringLiteral("org.freedesktop.secrets")));
    }
    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus(QStringLiteral("keyring"));
        m_bus.kill();
        m_bus.waitForFinished();
    }

    void saysSoAndReadsAgain()
    {
        AppModel model(QUrl(QStringLiteral("http://127.0.0.1:9")), std::chrono::milliseconds(300));
        ContentView content(model);
        content.resize(380, 430);
        content.show();
        QVERIFY(QTest::qWaitForWindowExposed(&content));
        QCOMPARE(content.currentScreen(), nullptr);
        QTRY_COMPARE(content.currentScreen(), content.storeSilentView());
        const QLabel *message = content.storeSilentView()->findChild<QLabel *>();
        QCOMPARE(message->text(),
            QStringLiteral("The keyring did not answer. It may be locked: unlock it, then try again."));
        // No pairing starts before the store has said whether this computer is linked.
        QCOMPARE(model.pairing().state().kind(), PairingState::Kind::idle);

        auto *tryAgain = content.storeSilentView()->findChild<QAbstractButton *>();
        QCOMPARE(tryAgain->text(), QStringLiteral("Try again"));
        QTest::mouseClick(tryAgain, Qt::LeftButton);
        // The store answers the first read at last. QtKeychain runs one job at a time,
        // so the second read reaches the store only now: every call from here on is its.
        int receivedWhenAnswered = -1;
        connect(&model.store(), &SessionStore::loadedChanged, this,
            [&] { receivedWhenAnswered = m_service.received; });
        m_service.answer();
        QTRY_COMPARE(content.currentScreen(), static_cast<QWidget *>(content.pairingView()));
        QVERIFY(receivedWhenAnswered > 0);
        QTRY_VERIFY(m_service.received > receivedWhenAnswered);
    }

private:
    QProcess m_bus;
    SilentSecretService m_service;
};

QTEST_MAIN(SilentKeyringTest)
#include "tst_app_silent_keyring.moc"
