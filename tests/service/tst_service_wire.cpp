// The client's side of the wire against a raw loopback server that answers what the
// note service never would: every status mapping, headers, hostile error codes,
// dripped bodies, silence, redirects and upload targets.
#include "Await.h"
#include "RawHttpServer.h"

#include "service/SelvaroAPI.h"
#include "support/LogCapture.h"

#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QTcpSocket>
#include <QTemporaryFile>
#include <QtTest/QTest>

using namespace std::chrono_literals;

namespace {
// JSON written with single quotes, which keeps the tables readable.
QByteArray json(const char *text)
{
    return QByteArray(text).replace('\'', '"');
}
const QByteArray targetJson = json("{'url':'https://x/y','key':'k'}");
// The log line of the call in these tables.
QString line(const char *rest)
{
    return QStringLiteral("GET /upload-recording-url?ext=m4a") + QString::fromUtf8(rest);
}

QByteArray headerOf(const QByteArray &request, const QByteArray &name)
{
    for (const QByteArray &line : request.left(request.indexOf("\r\n\r\n")).split('\n')) {
        if (line.toLower().startsWith(name.toLower() + ':'))
            return line.mid(name.size() + 1).trimmed();
    }
    return "(none)";
}
} // namespace

Q_DECLARE_METATYPE(RawHttpServer::Responder)

class TestServiceWire : public QObject
{
    Q_OBJECT

    QNetworkAccessManager m_network;

    SelvaroAPI client(const QUrl &base, ServiceDeadlines deadlines = {}) { return SelvaroAPI(&m_network, base, deadlines); }

private slots:
    void statusMapping_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("headers");
        QTest::addColumn<QString>("outcome"); // the error's description, or "ok"
        QTest::addColumn<QString>("logged");
        QTest::newRow("399 is success") << 399 << targetJson << QByteArray() << "ok" << "";
        QTest::newRow("200 empty") << 200 << QByteArray() << QByteArray() << "unexpected response" << line(": undecodable body");
        QTest::newRow("400 no error member") << 400 << targetJson << QByteArray() << "http_400 (400)" << line(" -> 400 http_400");
        QTest::newRow("401 challenged") << 401 << json("{'error':'bad_token'}") << QByteArray("WWW-Authenticate: Basic realm=\"x\"\r\n")
                                        << "bad_token (401)" << line(" -> 401 bad_token");
        QTest::newRow("404 html") << 404 << QByteArray("<html>") << QByteArray() << "http_404 (404)" << line(" -> 404 http_404");
        QTest::newRow("407") << 407 << json("{'error':'proxy_no'}") << QByteArray("Proxy-Authenticate: Basic realm=\"x\"\r\n")
                             << "proxy_no (407)" << line(" -> 407 proxy_no");
        QTest::newRow("429") << 429 << json("{'error':'slow'}") << QByteArray("Retry-After: 1\r\n") << "slow (429)" << line(" -> 429 slow");
        QTest::newRow("line break in code") << 404 << json("{'error':'x\\nGET / -> 200 ok'}") << QByteArray()
                                            << QString::fromUtf8("x\uFFFDGET / -> 200 ok (404)") << line(" -> 404 x\uFFFDGET / -> 200 ok");
        QTest::newRow("long code") << 409 << json("{'error':'") + QByteArray(5000, 'c') + json("'}") << QByteArray()
                                   << QString(99, QLatin1Char('c')) + QStringLiteral("\u2026 (409)") << line(" -> 409 ") + QString(99, QLatin1Char('c')) + QChar(0x2026);
        QTest::newRow("over 1 MiB") << 200 << QByteArray(SelvaroAPI::maxJsonBodyBytes + 1, ' ') << QByteArray()
                                    << "unexpected response" << line(": body over 1048576 bytes refused");
    }
    void statusMapping()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, headers);
        QFETCH(QString, outcome);
        QFETCH(QString, logged);
        LogCapture log;
        RawHttpServer server(RawHttpServer::reply(status, body, headers));
        const auto result = await(client(server.url()).uploadTarget(QStringLiteral("tok")));
        QCOMPARE(result.value ? QStringLiteral("ok") : result.apiError->description(), outcome);
        QCOMPARE(log.lines(QStringLiteral("api")), logged.isEmpty() ? QStringList() : QStringList{logged});
    }

    void headers()
    {
        RawHttpServer server(RawHttpServer::reply(200, targetJson));
        await(client(server.url()).uploadTarget(QStringLiteral("tok.en")));
        await(client(server.url()).redeemPairing(QStringLiteral("dc")));
        const QByteArray get = server.requests().at(0), post = server.requests().at(1);
        QCOMPARE(headerOf(get, "Authorization"), QByteArray("tok.en")); // bare, no scheme word
        QCOMPARE(headerOf(get, "Content-Type"), QByteArray("application/json")); // also without a body
        QCOMPARE(headerOf(get, "User-Agent"), SelvaroAPI::userAgent());
        QCOMPARE(headerOf(post, "Authorization"), QByteArray("(none)"));
        QVERIFY(post.endsWith(json("{'deviceCode':'dc'}")));
    }

    // Whatever the server does, a call ends by its deadline with the time-out sentence.
    void deadlines_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<RawHttpServer::Responder>("responder");
        QTest::newRow("json, silent") << false << RawHttpServer::silence();
        QTest::newRow("json, a byte every 200 ms") << false << RawHttpServer::drip(targetJson, 200ms);
        QTest::newRow("upload, silent") << true << RawHttpServer::silence();
        QTest::newRow("upload, a byte every 200 ms") << true << RawHttpServer::drip(targetJson, 200ms);
    }
    void deadlines()
    {
        QFETCH(bool, upload);
        QFETCH(RawHttpServer::Responder, responder);
        RawHttpServer server(responder);
        QTemporaryFile file;
        QVERIFY(file.open() && file.write("audio") == 5 && file.flush());
        const SelvaroAPI api = client(server.url(), {60s, 500ms, 500ms, 1024});
        QElapsedTimer elapsed;
        elapsed.start();
        const auto json = upload ? Outcome<UploadTarget>{} : await(api.uploadTarget(QStringLiteral("t")), 5000);
        const auto put = upload ? await(api.upload(file.fileName(), {server.url().toString() + QStringLiteral("/u"), {}}), 5000) : Outcome<void>{};
        const TransportError error = upload ? put.transportError.value() : *json.apiError->transportError();
        QCOMPARE(error, TransportError(QNetworkReply::TimeoutError, QStringLiteral("The request timed out.")));
        QVERIFY2(elapsed.elapsed() < 2000, qPrintable(QString::number(elapsed.elapsed())));
    }

    // https only, except while the client talks to a loopback http service; the
    // storage's answer counts only when it is exactly 200, redirects not followed.
    void upload_data()
    {
        QTest::addColumn<QString>("base"); // empty: the raw server itself
        QTest::addColumn<QString>("target"); // %1: the raw server's origin
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("http to a loopback service") << "" << "%1/u" << 200 << "ok";
        QTest::newRow("204") << "" << "%1/u" << 204 << "upload_failed (204)";
        QTest::newRow("302 not followed") << "" << "%1/u" << 302 << "upload_failed (302)";
        QTest::newRow("http from an https service") << "https://127.0.0.1:1" << "%1/u" << 200 << "unexpected response";
        QTest::newRow("http from a remote http service") << "http://example.com" << "%1/u" << 200 << "unexpected response";
        QTest::newRow("no host") << "" << "https:///u" << 200 << "unexpected response";
        QTest::newRow("ftp") << "" << "ftp://127.0.0.1/u" << 200 << "unexpected response";
    }
    void upload()
    {
        QFETCH(QString, base);
        QFETCH(QString, target);
        QFETCH(int, status);
        QFETCH(QString, outcome);
        RawHttpServer server(RawHttpServer::reply(status, {}, "Location: /elsewhere\r\n"));
        QTemporaryFile file;
        QVERIFY(file.open() && file.write("audio") == 5 && file.flush());
        const auto result = await(client(base.isEmpty() ? server.url() : QUrl(base))
                                      .upload(file.fileName(), {QString(target).replace(QLatin1String("%1"), server.url().toString()), QStringLiteral("k")}));
        QCOMPARE(result.value ? QStringLiteral("ok") : result.apiError->description(), outcome);
        QCOMPARE(server.requests().size(), outcome == QLatin1String("unexpected response") ? 0 : 1);
    }

    void redirectElsewhereIsRefusedAndTheTokenStaysHome()
    {
        RawHttpServer other(RawHttpServer::reply(200, targetJson));
        // "localhost" and "127.0.0.1" are different origins, though the same machine.
        RawHttpServer server(RawHttpServer::reply(302, {}, "Location: http://localhost:" + QByteArray::number(other.url().port()) + "/x\r\n"));
        const auto result = await(client(server.url()).uploadTarget(QStringLiteral("secret")));
        QCOMPARE(result.apiError->kind(), ApiError::Kind::transport);
        QVERIFY(other.requests().isEmpty());
    }

    // Below HTTP the JSON calls wrap Qt's error and sentence; the upload throws it bare.
    void refusedConnection()
    {
        const QUrl closed(QStringLiteral("http://127.0.0.1:1"));
        const auto json = await(client(closed).uploadTarget(QStringLiteral("t")));
        QCOMPARE(json.apiError->networkError(), QNetworkReply::ConnectionRefusedError);
        QCOMPARE(json.apiError->description(), QStringLiteral("Connection refused"));
        QTemporaryFile file;
        QVERIFY(file.open());
        const auto put = await(client(closed).upload(file.fileName(), {QStringLiteral("http://127.0.0.1:1/u"), {}}));
        QCOMPARE(put.transportError->error(), QNetworkReply::ConnectionRefusedError);
    }
};

QTEST_GUILESS_MAIN(TestServiceWire)
#include "tst_service_wire.moc"
