// What the service keeps and shows: the uploaded bytes, served back with ranges,
// and its files private; the phone page's sign-in, links and form; a request log
// without secrets.

#include "support/DevService.h"
#include "support/FileMode.h"

#include <QJsonArray>
#include <QRandomGenerator>
#include <QTest>

#include <httplib.h>

class TestAccess : public QObject
{
    Q_OBJECT

    DevService m_dev;

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init() { m_dev.reset(); }

    // Larger than the writer's buffer, so the streamed path runs end to end.
    void storedPrivatelyServedBackAndLoggedWithoutSecrets()
    {
        QByteArray bytes(9 * 1024 * 1024 + 17, Qt::Uninitialized);
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
        const DevService::Account account = m_dev.newAccount(false);
        const QString key = m_dev.upload(account, bytes);
        QVERIFY(m_dev.download(key) == bytes);
        // A browser's <audio> element seeks with Range requests.
        const auto range
            = m_dev.send("GET", QStringLiteral("/files/") + key, {}, { { "Range", "bytes=1000-1999" } });
        QCOMPARE(range.status, 206);
        QVERIFY(range.body == bytes.mid(1000, 1000));
        const QString data = qEnvironmentVariable("SELVARO_TEST_SERVICE_DATA") + QLatin1Char('/');
        for (const QString &file : { QStringLiteral("uploads/") + key, QStringLiteral("state.json") })
            QVERIFY2(modeOf(data + file) == 0600, qPrintable(file));
        const QJsonArray requests = m_dev.requests();
        // The target, the PUT and the file twice (with the admin token); no admin call.
        QCOMPARE(requests.size(), 4);
        const QJsonObject target = requests.first().toObject();
        QCOMPARE(target[QLatin1String("headers")][QLatin1String("authorization")].toString(),
            DevService::redacted(account.token));
        QCOMPARE(requests.at(1)[QLatin1String("bodySize")].toInteger(), bytes.size());
        const QByteArray log = m_dev.send("GET", QStringLiteral("/admin/requests")).body;
        QVERIFY(!log.contains(account.token));
        QVERIFY(!log.contains(m_dev.adminToken()));
    }

    void thePhonePageSignsInAndLinks()
    {
        // Plain HTTP, which follows no redirect and keeps no cookie by itself, as the page's first hop needs.
        httplib::Client browser(m_dev.baseUrl().host().toStdString(), m_dev.baseUrl().port());
        const auto signIn = browser.Get("/?token=" + m_dev.adminToken().toStdString());
        QCOMPARE(signIn ? signIn->status : 0, 303);
        QCOMPARE(signIn->get_header_value("Location"), std::string("/"));
        const std::string cookie = signIn->get_header_value("Set-Cookie");
        QVERIFY2(cookie.ends_with("; Path=/; HttpOnly; SameSite=Strict"), cookie.c_str());
        const httplib::Headers signedIn { { "Cookie", cookie.substr(0, cookie.find(';')) },
            { "Origin", m_dev.baseUrl().toString().toStdString() } };

        const QString userCode = m_dev.startPairing()[QLatin1String("userCode")].toString();
        const DevService::Account account = m_dev.newAccount(false);
        const QString key = m_dev.upload(account, "audio");
        const QByteArray note
            = "{" + DevService::noteMembers(key) + ",\"user\":\"" + account.accountId.toLatin1() + "\"}";
        m_dev.send("POST", QStringLiteral("/api/collections/notes/records"), note,
            { { "Authorization", account.token } });
        const auto page = browser.Get("/", signedIn);
        const QString html = QString::fromStdString(page ? page->body : std::string());
        QCOMPARE(html.count(QStringLiteral("<form method=\"post\" action=\"/admin/pairings/confirm\">")), 2);
        QVERIFY(html.contains(QStringLiteral("name=\"userCode\" value=\"%1\"").arg(userCode)));
        QVERIFY(html.contains(
            QStringLiteral("<audio controls preload=\"metadata\" src=\"/files/%1\">").arg(key)));
        QCOMPARE(browser.Get("/files/" + key.toStdString(), signedIn)->body, std::string("audio"));

        const std::string form = "userCode=" + userCode.toStdString() + "&anonymous=1";
        const auto confirm
            = browser.Post("/admin/pairings/confirm", signedIn, form, "application/x-www-form-urlencoded");
        QCOMPARE(confirm ? confirm->get_header_value("Location") : std::string(), "/?result=linked");
        QCOMPARE(m_dev.pairings().first()[QLatin1String("state")].toString(), QStringLiteral("confirmed"));
    }
};

QTEST_GUILESS_MAIN(TestAccess)
#include "tst_devservice_access.moc"
