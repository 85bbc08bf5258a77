// The device-code pairing against the local note service and a real GNOME Keyring,
// its poll timed by a clock the test moves.
#include "AccountTestSupport.h"

#include "account/JwtClaims.h"
#include "account/Keychain.h"
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

#include <QNetworkAccessManager>
#include <QTest>

using namespace AccountTest;
using namespace std::chrono_literals;

class TestAccountPairing : public QObject
{
    Q_OBJECT

    DevService m_dev;
    QNetworkAccessManager m_network;
    std::unique_ptr<SessionStore> m_store;
    std::shared_ptr<ManualClock> m_clock;
    std::unique_ptr<PairingFlow> m_flow;

    int redeems()
    {
        int count = 0;
        for (const QJsonValue &request : m_dev.requests())
            count += request[QLatin1String("path")] == QLatin1String("/pair/token");
        return count;
    }

    // Starts an attempt and waits for its codes.
    QString start(const QJsonObject &config = {})
    {
        m_dev.setConfig(config);
        m_flow->start();
        [&] { QTRY_COMPARE(m_flow->state().kind(), PairingState::Kind::waiting); }();
        return m_flow->state().userCode();
    }

    // Moves the clock to the next poll and waits for its redeem to be answered.
    void poll(std::chrono::milliseconds delay, int expectedRedeems)
    {
        m_clock->advance(delay - 1ms);
        QCOMPARE(redeems(), expectedRedeems - 1); // not a moment early
        m_clock->advance(1ms);
        QTRY_COMPARE(redeems(), expectedRedeems);
        QTest::qWait(20); // the answer reaches the flow
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice");
        m_dev.reset();
        QCoro::waitFor(Keychain::remove(QStringLiteral("session")));
        m_store = std::make_unique<SessionStore>();
        QCoro::waitFor(m_store->waitUntilLoaded());
        m_clock = std::make_shared<ManualClock>();
        m_flow = std::make_unique<PairingFlow>(SelvaroAPI(&m_network, m_dev.baseUrl()), m_store.get(), m_clock);
    }
    void cleanup() { m_flow.reset(); m_clock->advance(24h); }

    void pairsWithThePhonesConfirmation()
    {
        LogCapture log;
        const QString code = start({{QStringLiteral("interval"), 5}});
        const QJsonObject pairing = m_dev.pairings().first().toObject();
        QCOMPARE(pairing[QLatin1String("device")][QLatin1String("vendorUuid")].toString(), SessionStore::vendorUuid());
        QCOMPARE(m_flow->state().expiresAt(), m_clock->now().addSecs(m_flow->state().start().expiresIn));
        poll(5s, 1); // pending
        QCOMPARE(m_flow->state().kind(), PairingState::Kind::waiting);

        const QJsonObject confirmed = m_dev.confirm(code, false);
        poll(5s, 2);
        QTRY_COMPARE(m_flow->state(), PairingState::idle());
        QCOMPARE(m_store->session()->id, confirmed[QLatin1String("sessionId")].toString());
        QCOMPARE(JwtClaims::subject(m_store->session()->token), confirmed[QLatin1String("accountId")].toString());
        QCOMPARE(sessionItem(), m_store->session()->toJsonText());
        QCOMPARE(log.lines(QStringLiteral("pairing")), QStringList{QStringLiteral("paired, anonymous=false")});
        m_clock->advance(1h); // nothing polls once linked
        QCOMPARE(redeems(), 2);
    }

    // Whatever the interval, the codes' expiry ends the attempt on time.
    void expiryIsHonoured_data()
    {
        QTest::addColumn<int>("interval");
        QTest::addColumn<int>("expiresIn");
        QTest::addColumn<QList<int>>("delays"); // seconds before each redeem
        QTest::newRow("0 polls every 2 s") << 0 << 3 << QList<int>{2, 2};
        QTest::newRow("expiresIn 0 still polls once") << 5 << 0 << QList<int>{2};
        QTest::newRow("2^29 s") << 536870912 << 600 << QList<int>{600};
        QTest::newRow("4294967 s") << 4294967 << 90 << QList<int>{90};
    }
    void expiryIsHonoured()
    {
        QFETCH(int, interval);
        QFETCH(int, expiresIn);
        QFETCH(QList<int>, delays);
        start({{QStringLiteral("interval"), interval}, {QStringLiteral("expiresIn"), expiresIn}});
        for (int i = 0; i < delays.size(); ++i)
            poll(std::chrono::seconds(delays.at(i)), i + 1);
        QTRY_COMPARE(m_flow->state(), PairingState::expired());
    }

    void theServiceEndsTheAttempt_data()
    {
        QTest::addColumn<QString>("body");
        QTest::addColumn<PairingState>("state");
        QTest::addColumn<QString>("logged");
        QTest::newRow("code_expired") << "{\"error\":\"code_expired\"}" << PairingState::expired() << "";
        QTest::newRow("code_not_found") << "{\"error\":\"code_not_found\"}" << PairingState::failed(QStringLiteral("code_not_found")) << "";
        QTest::newRow("slow_down goes on") << "{\"error\":\"slow_down\"}" << PairingState() << "poll: slow_down (400)";
        QTest::newRow("html goes on") << "<html>" << PairingState() << "poll: http_400 (400)";
    }
    void theServiceEndsTheAttempt()
    {
        QFETCH(QString, body);
        QFETCH(PairingState, state);
        QFETCH(QString, logged);
        LogCapture log;
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair/token")}, {QStringLiteral("status"), 400}, {QStringLiteral("body"), body}});
        start({{QStringLiteral("interval"), 2}});
        const PairingState waiting = m_flow->state();
        poll(2s, 1);
        QTRY_COMPARE(m_flow->state(), state == PairingState() ? waiting : state);
        QCOMPARE(log.lines(QStringLiteral("pairing")), logged.isEmpty() ? QStringList() : QStringList{logged});
    }

    void aStartFailureIsShownAndRetried()
    {
        LogCapture log;
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair")}, {QStringLiteral("status"), 500}, {QStringLiteral("body"), QStringLiteral("{\"error\":\"boom\"}")}});
        m_flow->start();
        QTRY_COMPARE(m_flow->state(), PairingState::failed(QStringLiteral("boom (500)")));
        QCOMPARE(log.lines(QStringLiteral("pairing")), QStringList{QStringLiteral("pair failed: boom (500)")});
        start();
    }

    // A newer attempt supersedes the old one; a success already in flight is still kept.
    void aLateSuccessIsStoredAndStopsTheNewerAttempt()
    {
        const QString first = start({{QStringLiteral("interval"), 2}});
        m_dev.confirm(first, true);
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair/token")}, {QStringLiteral("delayMs"), 500}});
        m_clock->advance(2s); // the slow redeem goes out
        const QString second = start();
        QVERIFY(second != first);
        QTRY_VERIFY(m_store->isLinked());
        QVERIFY(m_store->session()->isAnonymous);
        QCOMPARE(m_flow->state(), PairingState::idle());
        m_clock->advance(1h);
        QTest::qWait(50);
        QCOMPARE(redeems(), 1);
    }

    void stopAndDestructionEndTheAttempt()
    {
        start();
        m_flow->stop();
        QCOMPARE(m_flow->state(), PairingState::idle());
        start();
        m_flow.reset();
        m_clock->advance(1h);
        QTest::qWait(50);
        QCOMPARE(redeems(), 0);
    }
};

QTEST_GUILESS_MAIN(TestAccountPairing)
#include "tst_account_pairing.moc"
