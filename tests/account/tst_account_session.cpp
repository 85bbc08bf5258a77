// The session in a real GNOME Keyring and its refresh against the local note service.
#include "AccountTestSupport.h"

#include "account/Keychain.h"
#include "account/SessionStore.h"
#include "support/DevService.h"
#include "support/LogCapture.h"

#include <QNetworkAccessManager>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryFile>
#include <QTest>

using namespace AccountTest;

class TestAccountSession : public QObject
{
    Q_OBJECT

    DevService m_dev;
    QNetworkAccessManager m_network;

    // A session the service knows, in the secret store.
    SessionPayload storedSession()
    {
        const auto payload = SessionPayload::fromJson(m_dev.createSession(false)).value();
        QCoro::waitFor(Keychain::write(QStringLiteral("session"), payload.toJsonText()));
        return payload;
    }

private Q_SLOTS:
    void init()
    {
        QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice");
        m_dev.reset();
        QCoro::waitFor(Keychain::remove(QStringLiteral("session")));
    }

    // Any Secret Service client finds the item, under QtKeychain's attribute names, holding
    // exactly the four members as compact JSON; the store announces it only once it is there.
    void theItemAsOtherClientsSeeIt()
    {
        SessionStore store;
        QCoro::waitFor(store.waitUntilLoaded());
        QByteArray itemWhenNotified;
        connect(&store, &SessionStore::sessionChanged, this, [&] { itemWhenNotified = sessionItem(); });
        const SessionPayload session{QStringLiteral("s1"), QStringLiteral("p1"), QStringLiteral("a.b.c"), true};
        QCOMPARE(QCoro::waitFor(store.save(session)), std::nullopt);
        QCOMPARE(itemWhenNotified, QByteArray("{\"id\":\"s1\",\"isAnonymous\":true,\"profileId\":\"p1\",\"token\":\"a.b.c\"}"));
        const QByteArray attributes = secretTool({QStringLiteral("search"), QStringLiteral("--all"), QStringLiteral("server"),
                                                  QStringLiteral("app.selvaro.recorder")});
        QVERIFY2(attributes.contains("attribute.user = session") && attributes.contains("attribute.type = plaintext"), attributes.constData());

        SessionStore next; // a later launch
        QVERIFY(!next.isLoaded());
        QCoro::waitFor(next.waitUntilLoaded());
        QCOMPARE(next.session(), std::optional(session));
        QCoro::waitFor(next.forget());
        QCOMPARE(sessionItem(), QByteArray());
    }

    void garbageIsNotLinkedAndStaysInPlace()
    {
        storeSessionItem("{\"id\": \"half");
        SessionStore store;
        QCoro::waitFor(store.waitUntilLoaded());
        QVERIFY(!store.isLinked());
        QCOMPARE(sessionItem(), QByteArray("{\"id\": \"half"));
    }

    // 404 unlinks whatever its body; nothing else does: a network problem never unlinks.
    void refresh_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<bool>("linked");
        QTest::addColumn<QString>("logged"); // %1: the session's id
        QTest::newRow("renewed") << QJsonObject() << true << "session refreshed, anonymous=false";
        QTest::newRow("404 html") << QJsonObject{{QStringLiteral("status"), 404}, {QStringLiteral("body"), QStringLiteral("<html>")}}
                                  << false << "session refresh: http_404, pairing again";
        QTest::newRow("500") << QJsonObject{{QStringLiteral("status"), 500}} << true << "session refresh failed: http_500 (500)";
        QTest::newRow("401") << QJsonObject{{QStringLiteral("status"), 401}, {QStringLiteral("body"), QStringLiteral("{\"error\":\"bad\"}")}}
                             << true << "session refresh failed: bad (401)";
        QTest::newRow("no session in the answer") << QJsonObject{{QStringLiteral("status"), 200}, {QStringLiteral("body"), QStringLiteral("{}")}}
                                                  << true << "session refresh failed: unexpected response";
    }
    void refresh()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(bool, linked);
        QFETCH(QString, logged);
        const SessionPayload old = storedSession();
        if (!fault.isEmpty()) {
            fault.insert(QStringLiteral("path"), QStringLiteral("/sessions/*"));
            m_dev.addFault(fault);
        }
        LogCapture log;
        SessionStore store; // refresh waits for the load itself
        QCoro::waitFor(store.refresh(SelvaroAPI(&m_network, m_dev.baseUrl())));
        QCOMPARE(log.lines(QStringLiteral("session")), QStringList{logged});
        QCOMPARE(store.isLinked(), linked);
        QCOMPARE(SessionPayload::fromJsonText(sessionItem()), store.session());
        if (linked && fault.isEmpty())
            QVERIFY(store.session()->token != old.token);
        else if (linked)
            QCOMPARE(store.session(), std::optional(old));
    }

    void refreshWithoutASessionSendsNothing()
    {
        SessionStore store;
        QCoro::waitFor(store.refresh(SelvaroAPI(&m_network, m_dev.baseUrl())));
        QCOMPARE(m_dev.requests(), QJsonArray());
    }

    // A late answer must neither relink an unlinked computer nor delete a newer session.
    void unlinkingDuringARefreshStaysUnlinked()
    {
        storedSession();
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/sessions/*")}, {QStringLiteral("delayMs"), 300}, {QStringLiteral("status"), 404}});
        SessionStore store;
        QCoro::waitFor(store.waitUntilLoaded());
        QCoro::Task<> refresh = store.refresh(SelvaroAPI(&m_network, m_dev.baseUrl()));
        QCoro::waitFor(store.forget());
        const SessionPayload paired{QStringLiteral("s-new"), QStringLiteral("p"), QStringLiteral("t"), false};
        QCOMPARE(QCoro::waitFor(store.save(paired)), std::nullopt);
        QCoro::waitFor(refresh);
        QCOMPARE(store.session(), std::optional(paired));
        QCOMPARE(sessionItem(), paired.toJsonText());
    }

    // Made once, kept across calls; when the settings cannot be written, kept in memory.
    void vendorUuid()
    {
        const QString first = SessionStore::vendorUuid();
        QVERIFY(QRegularExpression(QStringLiteral("^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$")).match(first).hasMatch());
        QCOMPARE(SessionStore::vendorUuid(), first);

        QTemporaryFile notADirectory;
        QVERIFY(notADirectory.open());
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, notADirectory.fileName());
        LogCapture log;
        const QString unsaved = SessionStore::vendorUuid();
        QCOMPARE(SessionStore::vendorUuid(), unsaved);
        QVERIFY(unsaved != first);
        QCOMPARE(log.lines(QStringLiteral("session")).size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestAccountSession)
#include "tst_account_session.moc"
