// The device-code pairing against the local note service and a real GNOME Keyring,
// with the poll's clock driven by the test.
#include "AccountTestSupport.h"

#include "account/JwtClaims.h"
#include "account/Keychain.h"
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/LogCapture.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QSignalSpy>
#include <QTest>

using namespace AccountTest;
using namespace std::chrono_literals;
using Kind = PairingState::Kind;

class TestPairingFlow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void pairsAndStoresTheSession();
    void pollsNoFasterThanTwoSeconds_data();
    void pollsNoFasterThanTwoSeconds();
    void expiresInZeroStillPollsOnce();
    void theClockEndsTheAttempt();
    void startWhileWaitingCancelsTheOldPolling();
    void stopEndsThePollingAndLeavesTheFlowIdle();
    void transientErrorsKeepPolling_data();
    void transientErrorsKeepPolling();
    void serviceEndsTheAttempt_data();
    void serviceEndsTheAttempt();
    void startRequestFailure_data();
    void startRequestFailure();
    void aLateSuccessIsStillStored();
    void destroyingTheFlowEndsItsAttempt();

private:
    [[nodiscard]] int redeems();
    void startAndWaitForCodes();

    DevService m_dev;
    QNetworkAccessManager m_network;
    std::unique_ptr<SessionStore> m_store;
    std::shared_ptr<FakeClock> m_clock;
    std::unique_ptr<PairingFlow> m_flow;
};

void TestPairingFlow::initTestCase()
{
    QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice");
}

void TestPairingFlow::init()
{
    m_dev.reset();
    QCoro::waitFor(Keychain::remove(QStringLiteral("session")));
    m_store = std::make_unique<SessionStore>();
    QCoro::waitFor(m_store->waitUntilLoaded());
    m_clock = std::make_shared<FakeClock>();
    m_flow = std::make_unique<PairingFlow>(SelvaroAPI(&m_network, m_dev.baseUrl()), m_store.get(), m_clock);
}

void TestPairingFlow::cleanup()
{
    m_flow.reset();
    // Let any attempt still asleep wake up, see that its flow is gone and end.
    m_clock->setHold(false);
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeping(), 0);
    m_store.reset();
}

int TestPairingFlow::redeems()
{
    int count = 0;
    for (const QJsonValue &request : m_dev.requests())
        count += request.toObject().value(QStringLiteral("path")).toString() == QLatin1String("/pair/token");
    return count;
}

void TestPairingFlow::startAndWaitForCodes()
{
    m_flow->start();
    QCOMPARE(m_flow->state(), PairingState::requesting());
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);
}

void TestPairingFlow::pairsAndStoresTheSession()
{
    LogCapture log;
    m_dev.setConfig({{QStringLiteral("interval"), 0}});
    QByteArray itemWhenLinked;
    connect(m_store.get(), &SessionStore::sessionChanged, this, [&] { itemWhenLinked = secretToolLookup(); });

    const QDateTime before = m_clock->now();
    startAndWaitForCodes();
    const PairingState waiting = m_flow->state();
    QVERIFY(!waiting.userCode().isEmpty());
    QVERIFY(waiting.expiresAt() >= before.addSecs(waiting.start().expiresIn));

    const QJsonArray pairings = m_dev.pairings();
    QCOMPARE(pairings.size(), 1);
    const QJsonObject pairing = pairings.first().toObject();
    QCOMPARE(pairing.value(QStringLiteral("userCode")).toString(), waiting.userCode());
    QCOMPARE(pairing.value(QStringLiteral("device")).toObject().value(QStringLiteral("vendorUuid")).toString(),
             SessionStore::vendorUuid());

    // A few polls find it pending, then the phone confirms.
    QTRY_VERIFY(redeems() >= 2);
    QCOMPARE(m_flow->state(), waiting);
    int status = 0;
    const QJsonObject confirmed = m_dev.confirm(waiting.userCode(), false, &status);
    QCOMPARE(status, 200);

    QTRY_COMPARE(m_flow->state(), PairingState::idle());
    QVERIFY(m_store->isLinked());
    const StoredSession session = *m_store->session();
    QCOMPARE(session.id, confirmed.value(QStringLiteral("sessionId")).toString());
    QCOMPARE(session.profileId, confirmed.value(QStringLiteral("profileId")).toString());
    QCOMPARE(session.isAnonymous, false);
    QCOMPARE(JwtClaims::subject(session.token), std::optional<QString>(confirmed.value(QStringLiteral("accountId")).toString()));
    // The item was in the secret store before the store announced the link.
    QCOMPARE(itemWhenLinked, session.toJson());
    QVERIFY2(log.lines(QStringLiteral("pairing")).contains(QStringLiteral("paired, anonymous=false")),
             qPrintable(log.lines().join(QLatin1Char('\n'))));

    // Nothing polls once linked.
    const int done = redeems();
    QTest::qWait(30);
    QCOMPARE(redeems(), done);
}

void TestPairingFlow::pollsNoFasterThanTwoSeconds_data()
{
    QTest::addColumn<int>("interval");
    QTest::addColumn<int>("expectedMs");
    QTest::newRow("0 polls every 2 s") << 0 << 2000;
    QTest::newRow("1 polls every 2 s") << 1 << 2000;
    QTest::newRow("2") << 2 << 2000;
    QTest::newRow("5 polls every 5 s") << 5 << 5000;
}

void TestPairingFlow::pollsNoFasterThanTwoSeconds()
{
    QFETCH(int, interval);
    QFETCH(int, expectedMs);
    m_dev.setConfig({{QStringLiteral("interval"), interval}});
    m_clock->setHold(true);

    startAndWaitForCodes();
    QCOMPARE(m_flow->state().start().interval, interval);
    QTRY_COMPARE(m_clock->sleeping(), 1);
    // The first redeem comes one interval after the codes are shown, not at once.
    QCOMPARE(redeems(), 0);
    QCOMPARE(m_clock->sleeps().first(), std::chrono::milliseconds(expectedMs));

    m_clock->release();
    QTRY_COMPARE(m_clock->sleeps().size(), 2);
    QCOMPARE(redeems(), 1);
    QCOMPARE(m_clock->sleeps().last(), std::chrono::milliseconds(expectedMs));
    QCOMPARE(m_flow->state().kind(), Kind::waiting);
}

void TestPairingFlow::expiresInZeroStillPollsOnce()
{
    m_dev.setConfig({{QStringLiteral("expiresIn"), 0}, {QStringLiteral("interval"), 0}});
    m_clock->setHold(true);
    const QDateTime answeredBy = m_clock->now();
    startAndWaitForCodes();
    QCOMPARE(m_flow->state().expiresAt(), answeredBy);
    QTRY_COMPARE(m_clock->sleeping(), 1);
    QCOMPARE(redeems(), 0);

    m_clock->release();
    QTRY_COMPARE(m_flow->state(), PairingState::expired());
    QCOMPARE(redeems(), 1);
    QCOMPARE(m_clock->sleeps().size(), 1);
}

void TestPairingFlow::theClockEndsTheAttempt()
{
    // The service keeps the code for 3 real seconds; the fake clock passes 2 s per poll,
    // so the flow's own clock runs out at the second poll while the code is still pending.
    m_dev.setConfig({{QStringLiteral("expiresIn"), 3}, {QStringLiteral("interval"), 0}});
    startAndWaitForCodes();
    QTRY_COMPARE(m_flow->state(), PairingState::expired());
    QCOMPARE(redeems(), 2);
    QCOMPARE(m_clock->sleeps(), (QList<std::chrono::milliseconds>{2s, 2s}));
    QCOMPARE(m_dev.pairings().first().toObject().value(QStringLiteral("state")).toString(), QStringLiteral("pending"));
    QVERIFY(!m_store->isLinked());
}

void TestPairingFlow::startWhileWaitingCancelsTheOldPolling()
{
    m_clock->setHold(true);
    startAndWaitForCodes();
    const QString first = m_flow->state().userCode();
    QTRY_COMPARE(m_clock->sleeping(), 1);

    m_flow->start();
    QCOMPARE(m_flow->state(), PairingState::requesting());
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);
    QVERIFY(m_flow->state().userCode() != first);
    QTRY_COMPARE(m_clock->sleeping(), 2);

    // Both wake; only the new attempt redeems and sleeps again.
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeps().size(), 3);
    QTRY_COMPARE(m_clock->sleeping(), 1);
    QCOMPARE(redeems(), 1);

    // Confirming the abandoned code links nothing: no one polls for it any more.
    m_dev.confirm(first, true);
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeps().size(), 4);
    QCOMPARE(redeems(), 2);
    QVERIFY(!m_store->isLinked());
    QCOMPARE(m_flow->state().kind(), Kind::waiting);
}

void TestPairingFlow::stopEndsThePollingAndLeavesTheFlowIdle()
{
    m_clock->setHold(true);
    startAndWaitForCodes();
    QTRY_COMPARE(m_clock->sleeping(), 1);

    m_flow->stop();
    QCOMPARE(m_flow->state(), PairingState::idle());

    // The sleeping attempt wakes, sees it was abandoned and neither redeems nor sleeps again.
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeping(), 0);
    QTest::qWait(50);
    QCOMPARE(m_clock->sleeps().size(), 1);
    QCOMPARE(redeems(), 0);
    QCOMPARE(m_flow->state(), PairingState::idle());

    // A new start after a stop is a fresh attempt.
    m_clock->setHold(false);
    startAndWaitForCodes();
    QTRY_VERIFY(redeems() >= 1);
}

void TestPairingFlow::transientErrorsKeepPolling_data()
{
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<QString>("logged");
    const QString path = QStringLiteral("/pair/token");
    // Qt resends a request once when the connection closes before any answer, so a
    // dropped connection takes two drops.
    QTest::newRow("dropped connection")
        << QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("drop"), true}, {QStringLiteral("count"), 4}}
        << QString();
    QTest::newRow("500 with HTML")
        << QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("status"), 500},
                       {QStringLiteral("body"), QStringLiteral("<html>oops</html>")},
                       {QStringLiteral("contentType"), QStringLiteral("text/html")}, {QStringLiteral("count"), 2}}
        << QStringLiteral("poll: http_500 (500)");
    QTest::newRow("400 slow_down")
        << QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("status"), 400},
                       {QStringLiteral("body"), QStringLiteral(R"({"error":"slow_down"})")}, {QStringLiteral("count"), 2}}
        << QStringLiteral("poll: slow_down (400)");
    QTest::newRow("200 that is no session")
        << QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("status"), 200},
                       {QStringLiteral("body"), QStringLiteral(R"({"id":1})")}, {QStringLiteral("count"), 2}}
        << QStringLiteral("poll: unexpected response");
}

void TestPairingFlow::transientErrorsKeepPolling()
{
    QFETCH(QJsonObject, fault);
    QFETCH(QString, logged);
    LogCapture log;
    m_dev.setConfig({{QStringLiteral("interval"), 0}});
    m_dev.addFault(fault);
    m_clock->setHold(true);

    startAndWaitForCodes();
    const PairingState waiting = m_flow->state();
    const auto polls = [&] { return log.lines(QStringLiteral("pairing")).filter(QStringLiteral("poll: ")); };
    for (int wake = 0; wake < 10 && polls().size() < 2; ++wake) {
        QTRY_COMPARE(m_clock->sleeping(), 1);
        const auto slept = m_clock->sleeps().size();
        m_clock->release();
        QTRY_COMPARE(m_clock->sleeps().size(), slept + 1);
    }
    QCOMPARE(polls().size(), 2);
    QCOMPARE(m_flow->state(), waiting);
    if (!logged.isEmpty())
        QCOMPARE(polls().first(), logged);

    // The attempt is still alive: a confirmation now links.
    m_dev.confirm(waiting.userCode(), true);
    m_clock->setHold(false);
    m_clock->release();
    QTRY_COMPARE(m_flow->state(), PairingState::idle());
    QVERIFY(m_store->isLinked());
    QVERIFY(m_store->session()->isAnonymous);
}

void TestPairingFlow::serviceEndsTheAttempt_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("code");
    QTest::addColumn<PairingState>("expected");
    QTest::newRow("410 code_expired before the clock") << 410 << "code_expired" << PairingState::expired();
    QTest::newRow("404 code_not_found") << 404 << "code_not_found"
                                        << PairingState::failed(QStringLiteral("code_not_found"));
    QTest::newRow("409 code_already_used") << 409 << "code_already_used"
                                           << PairingState::failed(QStringLiteral("code_already_used"));
}

void TestPairingFlow::serviceEndsTheAttempt()
{
    QFETCH(int, status);
    QFETCH(QString, code);
    QFETCH(PairingState, expected);
    m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair/token")},
                    {QStringLiteral("status"), status},
                    {QStringLiteral("body"), QStringLiteral(R"({"error":"%1"})").arg(code)}});
    m_clock->setHold(true);
    startAndWaitForCodes();
    // The codes are good for minutes by the clock; the service's answer ends it anyway.
    QVERIFY(m_flow->state().start().expiresIn > 2);
    QTRY_COMPARE(m_clock->sleeping(), 1);
    m_clock->release();
    QTRY_COMPARE(m_flow->state(), expected);
    QCOMPARE(redeems(), 1);
    QCOMPARE(m_clock->sleeps().size(), 1);
}

void TestPairingFlow::startRequestFailure_data()
{
    QTest::addColumn<QJsonObject>("fault");
    QTest::addColumn<QString>("message"); // empty: the network stack's own sentence
    const QString path = QStringLiteral("/pair");
    QTest::newRow("500 boom") << QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("status"), 500},
                                             {QStringLiteral("body"), QStringLiteral(R"({"error":"boom"})")}}
                              << QStringLiteral("boom (500)");
    // Qt resends once after a dropped connection; the third drop is cleared before the retry.
    QTest::newRow("dropped") << QJsonObject{{QStringLiteral("path"), path}, {QStringLiteral("drop"), true},
                                            {QStringLiteral("count"), 3}}
                             << QString();
}

void TestPairingFlow::startRequestFailure()
{
    QFETCH(QJsonObject, fault);
    QFETCH(QString, message);
    LogCapture log;
    m_dev.addFault(fault);
    m_flow->start();
    QTRY_COMPARE(m_flow->state().kind(), Kind::failed);
    const QString failure = m_flow->state().message();
    QVERIFY(!failure.isEmpty());
    if (!message.isEmpty())
        QCOMPARE(failure, message);
    QCOMPARE(log.lines(QStringLiteral("pairing")), QStringList{QStringLiteral("pair failed: ") + failure});
    QCOMPARE(redeems(), 0);

    // The retry starts over.
    m_dev.reset();
    m_flow->start();
    QTRY_COMPARE(m_flow->state().kind(), Kind::waiting);
}

void TestPairingFlow::aLateSuccessIsStillStored()
{
    m_clock->setHold(true);
    startAndWaitForCodes();
    const QString first = m_flow->state().userCode();
    QTRY_COMPARE(m_clock->sleeping(), 1);
    m_dev.confirm(first, false);

    // The redeem that will find the confirmation is slow; a new attempt starts meanwhile.
    m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair/token")}, {QStringLiteral("delayMs"), 500}});
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeping(), 0);
    QTest::qWait(50);
    m_flow->start();
    QCOMPARE(m_flow->state(), PairingState::requesting());

    QTRY_VERIFY(m_store->isLinked());
    QTRY_COMPARE(m_flow->state(), PairingState::idle());
    QCOMPARE(QCoro::waitFor(Keychain::read(QStringLiteral("session"))), std::optional(m_store->session()->toJson()));

    // The newer attempt stops at its first wake-up instead of polling for a link that exists.
    QTRY_COMPARE(m_clock->sleeping(), 1);
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeping(), 0);
    QTest::qWait(30);
    QCOMPARE(redeems(), 1);
    QCOMPARE(m_flow->state(), PairingState::idle());
}

void TestPairingFlow::destroyingTheFlowEndsItsAttempt()
{
    m_clock->setHold(true);
    startAndWaitForCodes();
    QTRY_COMPARE(m_clock->sleeping(), 1);
    m_flow.reset();
    m_clock->release();
    QTRY_COMPARE(m_clock->sleeping(), 0);
    QTest::qWait(30);
    QCOMPARE(redeems(), 0);
}

QTEST_GUILESS_MAIN(TestPairingFlow)
#include "tst_pairingflow.moc"
