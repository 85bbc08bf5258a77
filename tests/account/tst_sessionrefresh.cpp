// SessionStore::refresh against the local note service, with the session item in a
// real GNOME Keyring.
#include "AccountTestSupport.h"

#include "account/Keychain.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/LogCapture.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QTest>

using namespace AccountTest;

class TestSessionRefresh : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void withoutASessionNothingIsSent();
    void renewsTheSessionAfterTheLoad();
    void notFoundUnlinks_data();
    void notFoundUnlinks();
    void otherFailuresKeepTheSession_data();
    void otherFailuresKeepTheSession();
    void unlinkingDuringARefreshStaysUnlinked_data();
    void unlinkingDuringARefreshStaysUnlinked();

private:
    // A session the service knows, saved in the secret store as a previous run left it.
    StoredSession storeServiceSession(bool anonymous);
    [[nodiscard]] SelvaroAPI api() { return SelvaroAPI(&m_network, m_dev.baseUrl()); }

    DevService m_dev;
    QNetworkAccessManager m_network;
};

void TestSessionRefresh::initTestCase()
{
    QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice");
}

void TestSessionRefresh::init()
{
    m_dev.reset();
    QCoro::waitFor(Keychain::remove(QStringLiteral("session")));
}

StoredSession TestSessionRefresh::storeServiceSession(bool anonymous)
{
    const QJsonObject made = m_dev.createSession(anonymous);
    const auto payload = SessionPayload::fromJson(made);
    if (!payload)
        return {};
    const StoredSession session = StoredSession::from(*payload);
    if (QCoro::waitFor(Keychain::write(QStringLiteral("session"), session.toJson())))
        return {};
    return session;
}

void TestSessionRefresh::withoutASessionNothingIsSent()
{
    LogCapture log;
    SessionStore store;
    QCoro::waitFor(store.refresh(api()));
    QVERIFY(store.isLoaded());
    QCOMPARE(store.session(), std::nullopt);
    QCOMPARE(m_dev.requests(), QJsonArray());
    QCOMPARE(log.lines(QStringLiteral("session")), QStringList());
}

void TestSessionRefresh::renewsTheSessionAfterTheLoad()
{
    const StoredSession old = storeServiceSession(true);
    QVERIFY(!old.id.isEmpty());
    LogCapture log;
    SessionStore store;
    // Called before the item has been read: refresh waits for the load itself.
    QVERIFY(!store.isLoaded());
    QCoro::waitFor(store.refresh(api()));

    const QJsonArray requests = m_dev.requests();
    QCOMPARE(requests.size(), 1);
    const QJsonObject request = requests.first().toObject();
    QCOMPARE(request.value(QStringLiteral("path")).toString(), QStringLiteral("/sessions/%1/refresh").arg(old.id));
    QCOMPARE(request.value(QStringLiteral("headers")).toObject().value(QStringLiteral("authorization")).toString(),
             DevService::redacted(old.token.toUtf8()));

    QVERIFY(store.isLinked());
    const StoredSession renewed = *store.session();
    QCOMPARE(renewed.id, old.id);
    QVERIFY(renewed.token != old.token);
    QCOMPARE(secretToolLookup(), renewed.toJson());
    QCOMPARE(log.lines(QStringLiteral("session")), QStringList{QStringLiteral("session refreshed, anonymous=true")});
}

void TestSessionRefresh::notFoundUnlinks_data()
{
    QTest::addColumn<QJsonObject>("fault"); // empty: the service really forgot the session
    QTest::addColumn<QString>("code");
    QTest::newRow("session deleted on the service") << QJsonObject() << "session_not_found";
    QTest::newRow("404 with an HTML body")
        << QJsonObject{{QStringLiteral("status"), 404}, {QStringLiteral("body"), QStringLiteral("<h1>gone</h1>")},
                       {QStringLiteral("contentType"), QStringLiteral("text/html")}}
        << "http_404";
    QTest::newRow("404 with any code")
        << QJsonObject{{QStringLiteral("status"), 404}, {QStringLiteral("body"), QStringLiteral(R"({"error":"whatever"})")}}
        << "whatever";
}

void TestSessionRefresh::notFoundUnlinks()
{
    QFETCH(QJsonObject, fault);
    QFETCH(QString, code);
    const StoredSession old = storeServiceSession(false);
    QVERIFY(!old.id.isEmpty());
    if (fault.isEmpty()) {
        QCOMPARE(m_dev.deleteSession(old.id), 200);
    } else {
        fault.insert(QStringLiteral("path"), QStringLiteral("/sessions/*"));
        m_dev.addFault(fault);
    }

    LogCapture log;
    SessionStore store;
    QCoro::waitFor(store.waitUntilLoaded());
    QVERIFY(store.isLinked());
    QCoro::waitFor(store.refresh(api()));

    QCOMPARE(store.session(), std::nullopt);
    QCOMPARE(secretToolLookup(), QByteArray());
    const QStringList lines = log.lines(QStringLiteral("session"));
    QCOMPARE(lines.size(), 1);
    if (fault.isEmpty())
        QVERIFY2(lines.first().endsWith(QStringLiteral(", pairing again")), qPrintable(lines.first()));
    else
        QCOMPARE(lines.first(), QStringLiteral("session refresh: %1, pairing again").arg(code));
}

void TestSessionRefresh::otherFailuresKeepTheSession_data()
{
    QTest::addColumn<QJsonObject>("fault"); // empty: a token the service refuses (401)
    QTest::addColumn<QString>("logged");    // empty: only the prefix is known
    QTest::newRow("401") << QJsonObject() << QString();
    QTest::newRow("500") << QJsonObject{{QStringLiteral("status"), 500},
                                        {QStringLiteral("body"), QStringLiteral(R"({"error":"internal"})")}}
                         << "session refresh failed: internal (500)";
    // Qt resends once after a dropped connection.
    QTest::newRow("dropped connection") << QJsonObject{{QStringLiteral("drop"), true}, {QStringLiteral("count"), 2}}
                                        << QString();
    QTest::newRow("200 that is no session")
        << QJsonObject{{QStringLiteral("status"), 200}, {QStringLiteral("body"), QStringLiteral("[]")}}
        << "session refresh failed: unexpected response";
}

void TestSessionRefresh::otherFailuresKeepTheSession()
{
    QFETCH(QJsonObject, fault);
    QFETCH(QString, logged);
    StoredSession old = storeServiceSession(false);
    QVERIFY(!old.id.isEmpty());
    if (fault.isEmpty()) {
        old.token = QStringLiteral("not.this.token");
        QCOMPARE(QCoro::waitFor(Keychain::write(QStringLiteral("session"), old.toJson())), std::nullopt);
    } else {
        fault.insert(QStringLiteral("path"), QStringLiteral("/sessions/*"));
        m_dev.addFault(fault);
    }

    LogCapture log;
    SessionStore store;
    QCoro::waitFor(store.refresh(api()));

    QCOMPARE(store.session(), std::optional<StoredSession>(old));
    QCOMPARE(secretToolLookup(), old.toJson());
    const QStringList lines = log.lines(QStringLiteral("session"));
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith(QStringLiteral("session refresh failed: ")), qPrintable(lines.first()));
    if (!logged.isEmpty())
        QCOMPARE(lines.first(), logged);
}

void TestSessionRefresh::unlinkingDuringARefreshStaysUnlinked_data()
{
    QTest::addColumn<int>("status");
    QTest::newRow("renewed meanwhile") << 0;
    QTest::newRow("404 meanwhile") << 404;
}

void TestSessionRefresh::unlinkingDuringARefreshStaysUnlinked()
{
    QFETCH(int, status);
    const StoredSession old = storeServiceSession(false);
    QVERIFY(!old.id.isEmpty());
    QJsonObject slow{{QStringLiteral("path"), QStringLiteral("/sessions/*")}, {QStringLiteral("delayMs"), 300}};
    if (status)
        slow.insert(QStringLiteral("status"), status);
    m_dev.addFault(slow);

    SessionStore store;
    QCoro::waitFor(store.waitUntilLoaded());
    QCoro::Task<> refresh = store.refresh(api());
    QTest::qWait(50);
    QCoro::waitFor(store.forget());
    // The user pairs again before the old refresh answers.
    const StoredSession paired{QStringLiteral("s-new"), QStringLiteral("p-new"), QStringLiteral("t-new"), false};
    QCOMPARE(QCoro::waitFor(Keychain::write(QStringLiteral("session"), paired.toJson())), std::nullopt);
    store.setSession(paired);

    QCoro::waitFor(refresh);
    QCOMPARE(store.session(), std::optional<StoredSession>(paired));
    QCOMPARE(secretToolLookup(), paired.toJson());
}

QTEST_GUILESS_MAIN(TestSessionRefresh)
#include "tst_sessionrefresh.moc"
