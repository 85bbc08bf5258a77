// The account link when the secret store cannot keep the session: no Secret Service
// on the bus at all, and a locked collection whose unlock prompt cannot appear.
// Nothing may crash or block; the session is never kept anywhere else.
#include "AccountTestSupport.h"

#include "account/Keychain.h"
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/LogCapture.h"

#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QTest>
#include <QTimer>

using namespace AccountTest;
using Kind = PairingState::Kind;

class TestUnusableSecretStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init() { m_dev.reset(); }

    void operationsReportTheStoresError();
    void storeLoadsNothingAndSaveFails();
    void refreshKeepsTheSessionItCannotSave();
    void pairingKeepsPollingWhenTheWriteFails();

private:
    [[nodiscard]] SelvaroAPI api() { return SelvaroAPI(&m_network, m_dev.baseUrl()); }

    DevService m_dev;
    QNetworkAccessManager m_network;
    bool m_locked = false;
};

void TestUnusableSecretStore::initTestCase()
{
    QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice");
    // With a keyring on the bus, lock it; without one (no bus), it is unusable already.
    if (qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS")) {
        QVERIFY(lockDefaultCollection());
        m_locked = true;
    }
}

void TestUnusableSecretStore::operationsReportTheStoresError()
{
    LogCapture log;
    const std::optional<KeychainError> error = QCoro::waitFor(Keychain::write(QStringLiteral("session"), "{}"));
    QVERIFY(error);
    QCOMPARE(error->code, m_locked ? QKeychain::AccessDenied : QKeychain::OtherError);
    QVERIFY(!error->message.isEmpty());
    QVERIFY(error->description().startsWith(QStringLiteral("keychain error %1: ").arg(static_cast<int>(error->code))));

    QCOMPARE(QCoro::waitFor(Keychain::read(QStringLiteral("session"))), std::nullopt);
    QCoro::waitFor(Keychain::remove(QStringLiteral("session")));
    // Only the read says something: without a bus it cannot tell "no item" from "no store".
    if (!m_locked)
        QCOMPARE(log.lines(QStringLiteral("session")).filter(QStringLiteral("keychain read failed: ")).size(), 1);
}

void TestUnusableSecretStore::storeLoadsNothingAndSaveFails()
{
    SessionStore store;
    QCoro::waitFor(store.waitUntilLoaded());
    QCOMPARE(store.session(), std::nullopt);
    const std::optional<KeychainError> error = QCoro::waitFor(
        store.save(SessionPayload{QStringLiteral("s"), QStringLiteral("p"), QStringLiteral("t"), false}));
    QVERIFY(error);
    QCOMPARE(store.session(), std::nullopt);
}

void TestUnusableSecretStore::refreshKeepsTheSessionItCannotSave()
{
    const auto payload = SessionPayload::fromJson(m_dev.createSession(false));
    QVERIFY(payload);
    SessionStore store;
    QCoro::waitFor(store.waitUntilLoaded());
    const StoredSession old = StoredSession::from(*payload);
    store.setSession(old);

    LogCapture log;
    QCoro::waitFor(store.refresh(api()));
    QCOMPARE(store.session(), std::optional<StoredSession>(old));
    const QStringList lines = log.lines(QStringLiteral("session"));
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith(QStringLiteral("session refresh failed: keychain error ")),
             qPrintable(lines.first()));
}

void TestUnusableSecretStore::pairingKeepsPollingWhenTheWriteFails()
{
    LogCapture log;
    m_dev.setConfig({{QStringLiteral("interval"), 0}});
    SessionStore store;
    QCoro::waitFor(store.waitUntilLoaded());
    auto clock = std::make_shared<FakeClock>();
    PairingFlow flow(api(), &store, clock);

    // The event loop keeps turning throughout.
    int ticks = 0;
    QTimer ticker;
    connect(&ticker, &QTimer::timeout, this, [&] { ++ticks; });
    ticker.start(1);

    flow.start();
    QTRY_COMPARE(flow.state().kind(), Kind::waiting);
    m_dev.confirm(flow.state().userCode(), false);
    // The redeem that returned the session could not keep it; the next one learns the
    // code is spent, which ends the attempt with the code the screen puts into words.
    QTRY_COMPARE(flow.state(), PairingState::failed(QStringLiteral("code_already_used")));
    QCOMPARE(store.session(), std::nullopt);
    const QStringList polls = log.lines(QStringLiteral("pairing")).filter(QStringLiteral("poll: keychain error "));
    QCOMPARE(polls.size(), 1);
    QVERIFY(ticks > 0);
}

QTEST_GUILESS_MAIN(TestUnusableSecretStore)
#include "tst_unusablesecretstore.moc"
