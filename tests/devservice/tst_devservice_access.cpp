// Who may talk to the service: plain HTTP with foreign Host and Origin headers and
// without the admin token; the phone page's sign-in and links; a request log
// without secrets.

#include "ServiceSteps.h"

#include <QJsonArray>
#include <QTest>

using namespace ServiceSteps;

class TestAccess : public QObject
{
    Q_OBJECT

    DevService m_dev;

private slots:
    void initTestCase() { QVERIFY2(!m_dev.adminToken().isEmpty(), "run under with-devservice"); }
    void init() { m_dev.reset(); }

    void refusals_data()
    {
        // Method and path, then "Name: value" lines; @token is the admin token, @port ours.
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("error");
        const auto row = [](const char *name, const char *request, int status, const char *error) {
            QTest::newRow(name) << QByteArray(request) << status << QString::fromLatin1(error);
        };
        // clang-format off
        row("rebound name", "GET /upload-recording-url\nHost: attacker.example:@port", 421, "wrong_host");
        row("other port", "GET /admin/config\nHost: 127.0.0.1:1\nX-Admin-Token: @token", 421, "wrong_host");
        row("localhost", "GET /nowhere\nHost: localhost:@port", 404, "not_found");
        row("foreign origin", "POST /pair\nOrigin: http://attacker.example", 403, "foreign_origin");
        row("origin of another port", "POST /admin/reset\nOrigin: http://127.0.0.1:1\nX-Admin-Token: @token", 403, "foreign_origin");
        row("opaque origin", "DELETE /admin/sessions/x\nOrigin: null\nX-Admin-Token: @token", 403, "foreign_origin");
        row("own origin", "POST /pair/token\nOrigin: http://localhost:@port", 400, "missing_deviceCode");
        row("foreign origin, reading", "GET /nowhere\nOrigin: http://attacker.example", 404, "not_found");
        row("admin, no token", "GET /admin/requests", 401, "missing_admin_token");
        row("admin, wrong token", "POST /admin/sessions\nX-Admin-Token: x@token", 403, "invalid_admin_token");
        row("admin, token", "GET /admin/config\nX-Admin-Token: @token", 200, "");
        row("files, no token", "GET /files/a.m4a", 401, "missing_admin_token");
        row("page, no token", "GET /", 401, "missing_admin_token");
        row("page, wrong token", "GET /?token=nope", 403, "invalid_admin_token");
        row("page, token in a cookie of another port", "GET /\nCookie: selvaro_admin_1=@token", 401, "missing_admin_token");
        // clang-format on
    }
    void refusals()
    {
        QFETCH(QByteArray, request);
        QFETCH(int, status);
        QFETCH(QString, error);
        request.replace("@token", m_dev.adminToken())
            .replace("@port", QByteArray::number(m_dev.baseUrl().port()));
        QList<QByteArray> lines = request.split('\n');
        httplib::Request sent;
        sent.method = lines[0].left(lines[0].indexOf(' ')).toStdString();
        sent.path = lines.takeFirst().mid(sent.method.size() + 1).toStdString();
        for (const QByteArray &line : lines)
            sent.headers.emplace(line.left(line.indexOf(':')).toStdString(),
                line.mid(line.indexOf(':') + 1).trimmed().toStdString());
        const auto result = rawClient(m_dev)->send(sent);
        QVERIFY(result);
        QCOMPARE(result->status, status);
        QCOMPARE(errorOf(QByteArray::fromStdString(result->body)), error);
    }

    void thePhonePageSignsInAndLinks()
    {
        auto browser = rawClient(m_dev);
        const auto signIn = browser->Get("/?token=" + m_dev.adminToken().toStdString());
        QVERIFY(signIn);
        QCOMPARE(signIn->status, 303);
        QCOMPARE(signIn->get_header_value("Location"), std::string("/"));
        const std::string cookie = signIn->get_header_value("Set-Cookie");
        QVERIFY2(cookie.ends_with("; Path=/; HttpOnly; SameSite=Strict"), cookie.c_str());
        const httplib::Headers signedIn { { "Cookie", cookie.substr(0, cookie.find(';')) },
            { "Origin", m_dev.baseUrl().toString().toStdString() } };

        const QString userCode = startPairing(m_dev)[QLatin1String("userCode")].toString();
        const Account account = newAccount(m_dev, false);
        const QString key = upload(m_dev, account, "audio");
        const QByteArray note
            = "{" + noteMembers(key) + ",\"user\":\"" + account.accountId.toLatin1() + "\"}";
        m_dev.send("POST", QStringLiteral("/api/collections/notes/records"), note,
            { { "Authorization", account.token } });
        const auto page = browser->Get("/", signedIn);
        QVERIFY(page);
        const QString html = QString::fromStdString(page->body);
        QCOMPARE(html.count(QStringLiteral("<form method=\"post\" action=\"/admin/pairings/confirm\">")), 2);
        QVERIFY(html.contains(QStringLiteral("name=\"userCode\" value=\"%1\"").arg(userCode)));
        QVERIFY(html.contains(
            QStringLiteral("<audio controls preload=\"metadata\" src=\"/files/%1\">").arg(key)));
        QCOMPARE(browser->Get("/files/" + key.toStdString(), signedIn)->body, std::string("audio"));

        const std::string form = "userCode=" + userCode.toStdString() + "&anonymous=1";
        const auto confirm
            = browser->Post("/admin/pairings/confirm", signedIn, form, "application/x-www-form-urlencoded");
        QVERIFY(confirm);
        QCOMPARE(confirm->get_header_value("Location"), std::string("/?result=linked"));
        QCOMPARE(m_dev.pairings().first()[QLatin1String("state")].toString(), QStringLiteral("confirmed"));
    }

    void theRequestLogKeepsNoSecrets()
    {
        const Account account = newAccount(m_dev, false);
        const QString key = upload(m_dev, account, "audio");
        QCOMPARE(m_dev.download(key), QByteArray("audio"));
        const QJsonArray requests = m_dev.requests();
        QCOMPARE(
            requests.size(), 3); // the target, the PUT and the file (with the admin token); no admin call
        const QJsonObject target = requests.first().toObject();
        QCOMPARE(target[QLatin1String("path")].toString(), QStringLiteral("/upload-recording-url"));
        QCOMPARE(target[QLatin1String("query")].toString(), QStringLiteral("ext=m4a"));
        QCOMPARE(target[QLatin1String("headers")][QLatin1String("authorization")].toString(),
            DevService::redacted(account.token));
        QCOMPARE(requests.at(1)[QLatin1String("bodySize")].toInteger(), 5);
        const QByteArray log = m_dev.send("GET", QStringLiteral("/admin/requests")).body;
        QVERIFY(!log.contains(account.token));
        QVERIFY(!log.contains(m_dev.adminToken()));
    }
};

QTEST_GUILESS_MAIN(TestAccess)
#include "tst_devservice_access.moc"
