// The account link: its pure rules; the session in a real GNOME Keyring and its refresh
// against the local note service; the device-code pairing, its poll timed by a clock
// the test moves.
#include "account/JwtClaims.h"
#include "account/Keychain.h"
#include "account/PairingFlow.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"

#include <QNetworkAccessManager>
#include <QProcess>
#include <QSettings>
#include <QTemporaryFile>
#include <QTest>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

namespace {
// The item as any Secret Service client finds it, under QtKeychain's attribute names.
QByteArray storedItem()
{
    QProcess process;
    process.start(
        u"secret-tool"_s, { u"lookup"_s, u"server"_s, u"app.selvaro.recorder"_s, u"user"_s, u"session"_s });
    process.waitForFinished(10000);
    return process.readAll();
}
} // namespace

class TestAccountLink : public QObject
{
    Q_OBJECT

    DevService m_dev;
    QNetworkAccessManager m_network;
    std::unique_ptr<SessionStore> m_store;
    std::shared_ptr<ManualClock> m_clock;
    std::unique_ptr<PairingFlow> m_flow;

    SelvaroAPI api() { return SelvaroAPI(&m_network, m_dev.baseUrl()); }
    int redeems()
    {
        int count = 0;
        for (const QJsonValue &request : m_dev.requests())
            count += request[u"path"_s] == u"/pair/token"_s;
        return count;
    }
    // Starts an attempt with the service configured so, and waits for its codes.
    QString start(const QJsonObject &config = {})
    {
        m_dev.setConfig(config);
        m_flow->start();
        [&] { QTRY_COMPARE(m_flow->state().kind(), PairingState::Kind::waiting); }();
        return m_flow->state().userCode();
    }
    // Moves the clock to the next poll, not a moment early, and lets the answer arrive.
    void poll(std::chrono::milliseconds delay, int redeemed)
    {
        m_clock->advance(delay - 1ms);
        QCOMPARE(redeems(), redeemed - 1);
        m_clock->advance(1ms);
        QTRY_COMPARE(redeems(), redeemed);
        QTest::qWait(20);
    }

private Q_SLOTS:
    void subject_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("subject"); // null: no subject
        // Payloads are written out as base64url so the test does not share the encoder.
        QTest::newRow("4n+2 gets ==") << u"hdr.eyJpZCI6ImFjYzEifQ.sig"_s << u"acc1"_s;
        QTest::newRow("4n+3 gets =") << u"hdr.eyJpZCI6ImFjYzEyIn0.sig"_s << u"acc12"_s;
        QTest::newRow("url alphabet") << u"hdr.eyJpZCI6ImFjYz4-Pj8ifQ.sig"_s << u"acc>>>?"_s;
        QTest::newRow("a..b.c reads b") << u"hdr..eyJpZCI6ImFjYzEifQ.sig"_s << u"acc1"_s;
        QTest::newRow("two pieces") << u"hdr.eyJpZCI6ImFjYzEifQ"_s << QString();
        QTest::newRow("4n+1 cannot decode") << u"hdr.eyJpZCI6ImFjYzEyMyJ9A.sig"_s << QString();
        QTest::newRow("JSON array") << u"hdr.WyJpZCJd.sig"_s << QString();
        QTest::newRow("numeric id") << u"hdr.eyJpZCI6NDJ9.sig"_s << QString();
        QTest::newRow("sub is not read") << u"hdr.eyJzdWIiOiJhY2MxIn0.sig"_s << QString();
    }
    void subject()
    {
        QFETCH(QString, token);
        QFETCH(QString, subject);
        QCOMPARE(JwtClaims::subject(token), subject.isNull() ? std::nullopt : std::optional(subject));
    }

    // Within [2 s, 1 h] and within the code's remaining lifetime, but never below 2 s.
    void pollDelay_data()
    {
        QTest::addColumn<int>("interval");
        QTest::addColumn<int>("secondsLeft");
        QTest::addColumn<int>("delay");
        QTest::newRow("0") << 0 << 600 << 2;
        QTest::newRow("5") << 5 << 600 << 5;
        QTest::newRow("2^29 s, a day left") << 536870912 << 86400 << 3600;
        QTest::newRow("4294967 s, 10 min left") << 4294967 << 600 << 600;
        QTest::newRow("5, 3 s left") << 5 << 3 << 3;
        QTest::newRow("5, expired") << 5 << -10 << 2;
    }
    void pollDelay()
    {
        QFETCH(int, interval);
        QFETCH(int, secondsLeft);
        QFETCH(int, delay);
        QCOMPARE(
            PairingFlow::pollDelay(interval, std::chrono::seconds(secondsLeft)), std::chrono::seconds(delay));
    }

    void init()
    {
        QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice");
        m_dev.reset();
        QCoro::waitFor(Keychain::remove(u"session"_s));
        m_store = std::make_unique<SessionStore>();
        QCoro::waitFor(m_store->waitUntilLoaded());
        m_clock = std::make_shared<ManualClock>();
        m_flow = std::make_unique<PairingFlow>(api(), m_store.get(), m_clock);
    }
    void cleanup()
    {
        m_flow.reset(); // a sleeping attempt wakes, finds its flow gone and ends
        m_clock->advance(24h);
    }

    // Exactly the four members as compact JSON, on the item before the store announces it.
    void theItemAsOtherClientsSeeIt()
    {
        QByteArray itemWhenNotified;
        connect(m_store.get(), &SessionStore::sessionChanged, this, [&] { itemWhenNotified = storedItem(); });
        const SessionPayload session { u"s1"_s, u"p1"_s, u"a.b.c"_s, true };
        QCOMPARE(QCoro::waitFor(m_store->save(session)), std::nullopt);
        QCOMPARE(itemWhenNotified,
            "{\"id\":\"s1\",\"isAnonymous\":true,\"profileId\":\"p1\",\"token\":\"a.b.c\"}"_ba);

        SessionStore next; // a later launch
        QVERIFY(!next.isLoaded());
        QCoro::waitFor(next.waitUntilLoaded());
        QCOMPARE(next.session(), std::optional(session));
        QCoro::waitFor(next.forget());
        QCOMPARE(storedItem(), QByteArray());
    }

    // 404 unlinks whatever its body; nothing else does: a network problem never unlinks.
    void refresh_data()
    {
        QTest::addColumn<int>("status"); // 0: the service's own answer
        QTest::addColumn<QString>("body");
        QTest::addColumn<QString>("logged");
        QTest::newRow("renewed") << 0 << QString() << u"session refreshed, anonymous=false"_s;
        QTest::newRow("404 html") << 404 << u"<html>"_s << u"session refresh: http_404, pairing again"_s;
        QTest::newRow("500") << 500 << QString() << u"session refresh failed: http_500 (500)"_s;
        QTest::newRow("401") << 401 << u"{\"error\":\"no\"}"_s << u"session refresh failed: no (401)"_s;
        QTest::newRow("no session") << 200 << u"{}"_s << u"session refresh failed: unexpected response"_s;
    }
    void refresh()
    {
        QFETCH(int, status);
        QFETCH(QString, body);
        QFETCH(QString, logged);
        QCoro::waitFor(m_store->refresh(api())); // without a session nothing is sent
        QCOMPARE(m_dev.requests(), QJsonArray());
        const SessionPayload old = SessionPayload::fromJson(m_dev.createSession(false)).value();
        QCOMPARE(QCoro::waitFor(Keychain::write(u"session"_s, old.toJsonText())), std::nullopt);
        if (status)
            m_dev.addFault({ { u"path"_s, u"/sessions/*"_s }, { u"status"_s, status }, { u"body"_s, body } });
        LogCapture log;
        SessionStore store; // refresh waits for the load itself
        QCoro::waitFor(store.refresh(api()));
        QCOMPARE(log.lines(u"session"_s), QStringList { logged });
        QCOMPARE(store.isLinked(), status != 404);
        QCOMPARE(SessionPayload::fromJsonText(storedItem()), store.session());
        QCOMPARE(store.session() == old, status && status != 404);
        QCOMPARE(m_dev.requests().size(), 1); // one refresh, whatever its answer
    }

    // A late answer must neither relink an unlinked computer nor delete a newer session.
    void unlinkingDuringARefreshStaysUnlinked()
    {
        const SessionPayload old = SessionPayload::fromJson(m_dev.createSession(false)).value();
        QCOMPARE(QCoro::waitFor(m_store->save(old)), std::nullopt);
        m_dev.addFault({ { u"path"_s, u"/sessions/*"_s }, { u"delayMs"_s, 300 }, { u"status"_s, 404 } });
        QCoro::Task<> refresh = m_store->refresh(api());
        QCoro::waitFor(m_store->forget());
        const SessionPayload paired { u"s-new"_s, u"p"_s, u"t"_s, false };
        QCOMPARE(QCoro::waitFor(m_store->save(paired)), std::nullopt);
        QCoro::waitFor(refresh);
        QCOMPARE(m_store->session(), std::optional(paired));
        QCOMPARE(storedItem(), paired.toJsonText());
    }

    // Made once and kept; when the settings cannot be written, kept in memory for the run.
    void vendorUuid()
    {
        const QString first = SessionStore::vendorUuid();
        QVERIFY(QRegularExpression(u"^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"_s).match(first).hasMatch());
        QCOMPARE(SessionStore::vendorUuid(), first);
        QTemporaryFile notADirectory;
        QVERIFY(notADirectory.open());
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, notADirectory.fileName());
        LogCapture log;
        const QString unsaved = SessionStore::vendorUuid();
        QCOMPARE(SessionStore::vendorUuid(), unsaved);
        QVERIFY(unsaved != first);
        QCOMPARE(log.lines(u"session"_s).size(), 1);
    }

    // A failed start is shown and can be retried; the retry pairs once the phone confirms.
    void pairsWithThePhonesConfirmation()
    {
        LogCapture log;
        m_dev.addFault(
            { { u"path"_s, u"/pair"_s }, { u"status"_s, 500 }, { u"body"_s, u"{\"error\":\"boom\"}"_s } });
        m_flow->start();
        QTRY_COMPARE(m_flow->state(), PairingState::failed(u"boom (500)"_s));
        const QString code = start({ { u"interval"_s, 5 } });
        QCOMPARE(m_dev.pairings().last()[u"device"_s][u"vendorUuid"_s], SessionStore::vendorUuid());
        QCOMPARE(m_flow->state().expiresAt(), m_clock->now().addSecs(m_flow->state().start().expiresIn));
        poll(5s, 1); // pending
        QCOMPARE(m_flow->state().kind(), PairingState::Kind::waiting);

        const QJsonObject confirmed = m_dev.confirm(code, false);
        poll(5s, 2);
        QTRY_COMPARE(m_flow->state(), PairingState::idle());
        QCOMPARE(m_store->session()->id, confirmed[u"sessionId"_s].toString());
        QCOMPARE(JwtClaims::subject(m_store->session()->token), confirmed[u"accountId"_s].toString());
        QCOMPARE(storedItem(), m_store->session()->toJsonText());
        QCOMPARE(log.lines(u"pairing"_s),
            QStringList({ u"pair failed: boom (500)"_s, u"paired, anonymous=false"_s }));
        m_clock->advance(1h); // nothing polls once linked
        QCOMPARE(redeems(), 2);
    }

    // Whatever the interval, the codes' expiry ends the attempt on time.
    void expiryIsHonoured_data()
    {
        QTest::addColumn<int>("interval");
        QTest::addColumn<int>("expiresIn");
        QTest::addColumn<QList<int>>("delays"); // seconds before each redeem
        QTest::newRow("0 polls every 2 s") << 0 << 3 << QList<int> { 2, 2 };
        QTest::newRow("expiresIn 0 still polls once") << 5 << 0 << QList<int> { 2 };
    }
    void expiryIsHonoured()
    {
        QFETCH(int, interval);
        QFETCH(int, expiresIn);
        QFETCH(QList<int>, delays);
        start({ { u"interval"_s, interval }, { u"expiresIn"_s, expiresIn } });
        for (int i = 0; i < delays.size(); ++i)
            poll(std::chrono::seconds(delays.at(i)), i + 1);
        QTRY_COMPARE(m_flow->state(), PairingState::expired());
    }

    void theServiceEndsTheAttemptOrNot_data()
    {
        QTest::addColumn<QString>("body");
        QTest::addColumn<PairingState>("state"); // idle: still waiting
        QTest::addColumn<QString>("logged");
        const PairingState waiting;
        QTest::newRow("code_expired")
            << u"{\"error\":\"code_expired\"}"_s << PairingState::expired() << QString();
        QTest::newRow("code_not_found")
            << u"{\"error\":\"code_not_found\"}"_s << PairingState::failed(u"code_not_found"_s) << QString();
        QTest::newRow("slow_down") << u"{\"error\":\"slow_down\"}"_s << waiting << u"poll: slow_down (400)"_s;
    }
    void theServiceEndsTheAttemptOrNot()
    {
        QFETCH(QString, body);
        QFETCH(PairingState, state);
        QFETCH(QString, logged);
        LogCapture log;
        m_dev.addFault({ { u"path"_s, u"/pair/token"_s }, { u"status"_s, 400 }, { u"body"_s, body } });
        start({ { u"interval"_s, 2 } });
        const PairingState waiting = m_flow->state();
        poll(2s, 1);
        QTRY_COMPARE(m_flow->state(), state == PairingState() ? waiting : state);
        QCOMPARE(log.lines(u"pairing"_s), logged.isNull() ? QStringList() : QStringList { logged });
    }

    // A newer attempt supersedes the old one; a success already in flight is still kept,
    // and nothing polls afterwards.
    void aLateSuccessIsStoredAndStopsTheNewerAttempt()
    {
        const QString first = start({ { u"interval"_s, 2 } });
        m_dev.confirm(first, true);
        m_dev.addFault({ { u"path"_s, u"/pair/token"_s }, { u"delayMs"_s, 500 } });
        m_clock->advance(2s); // the slow redeem goes out
        QVERIFY(start() != first);
        QTRY_VERIFY(m_store->isLinked());
        QCOMPARE(m_flow->state(), PairingState::idle());
        m_clock->advance(1h);
        QTest::qWait(50);
        QCOMPARE(redeems(), 1);
    }
};

QTEST_GUILESS_MAIN(TestAccountLink)
#include "tst_account_link.moc"
