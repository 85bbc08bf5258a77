// The client against answers the note service would never give, served by a raw
// loopback server in the test: odd statuses, redirects, oversized and truncated
// bodies, silence, an unsigned certificate.

#include "Await.h"
#include "RawHttpServer.h"

#include "service/SelvaroAPI.h"
#include "support/LogCapture.h"

#include <QNetworkAccessManager>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest/QTest>

using namespace std::chrono_literals;

namespace {

// JSON written with single quotes, which keeps it readable here.
QByteArray json(const char *text)
{
    return QByteArray(text).replace('\'', '"');
}

const QByteArray pairingJson = json("{'deviceCode':'dc','userCode':'R3XD-8N5W','expiresIn':600,'interval':5}");

DeviceInfo device()
{
    return DeviceInfo::current(QStringLiteral("00000000-0000-4000-8000-000000000000"));
}

QByteArray headerOf(const QByteArray &request, const QByteArray &name)
{
    for (const QByteArray &line : request.left(request.indexOf("\r\n\r\n")).split('\n')) {
        const qsizetype colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().toLower() == name.toLower())
            return line.mid(colon + 1).trimmed();
    }
    return {};
}

QByteArray requestLine(const QByteArray &request)
{
    return request.left(request.indexOf("\r\n"));
}

// A file of `size` bytes in `dir`.
QString makeFile(const QTemporaryDir &dir, qint64 size)
{
    const QString path = dir.filePath(QStringLiteral("recording.m4a"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        qFatal("cannot write the test file");
    file.write(QByteArray(size, 'x'));
    return path;
}

} // namespace

class TestSelvaroApiEdges : public QObject
{
    Q_OBJECT

    QNetworkAccessManager m_network;

    SelvaroAPI clientFor(const RawHttpServer &server, std::chrono::milliseconds timeout = SelvaroAPI::defaultTimeout)
    {
        return SelvaroAPI(&m_network, server.url(), timeout);
    }

private slots:
    void status399IsSuccessAnd400IsNot()
    {
        RawHttpServer ok(RawHttpServer::reply(399, pairingJson));
        const auto success = await(clientFor(ok).startPairing(device()));
        QVERIFY(success.value);
        QCOMPARE(success.value->userCode, QStringLiteral("R3XD-8N5W"));

        RawHttpServer bad(RawHttpServer::reply(400, pairingJson));
        const auto failure = await(clientFor(bad).startPairing(device()));
        QVERIFY(failure.apiError);
        QCOMPARE(*failure.apiError, ApiError::http(400, QStringLiteral("http_400")));
    }

    // Qt turns some statuses into its own errors (401 into an authentication
    // failure, 407 into a proxy one); the caller must still see the service's answer.
    void statusesQtInterprets_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("headers");
        QTest::newRow("401 with a challenge") << 401 << QByteArray("WWW-Authenticate: Basic realm=\"x\"\r\n");
        QTest::newRow("401 bare") << 401 << QByteArray();
        QTest::newRow("403") << 403 << QByteArray();
        QTest::newRow("405") << 405 << QByteArray();
        QTest::newRow("409") << 409 << QByteArray();
        QTest::newRow("413") << 413 << QByteArray();
        QTest::newRow("429") << 429 << QByteArray("Retry-After: 1\r\n");
        QTest::newRow("502") << 502 << QByteArray();
        QTest::newRow("503") << 503 << QByteArray();
        QTest::newRow("599") << 599 << QByteArray();
    }

    void statusesQtInterprets()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, headers);
        RawHttpServer server(RawHttpServer::reply(status, json("{'error':'refused_here'}"), headers));
        const auto outcome = await(clientFor(server).uploadTarget(QStringLiteral("tok")));
        QVERIFY(outcome.apiError);
        QCOMPARE(*outcome.apiError, ApiError::http(status, QStringLiteral("refused_here")));
    }

    void sameOriginRedirectIsFollowedWithTheToken()
    {
        RawHttpServer server([](QTcpSocket *socket, const QByteArray &request) {
            if (requestLine(request).startsWith("GET /upload-recording-url")) {
                RawHttpServer::reply(307, {}, "Location: /elsewhere\r\n")(socket, request);
            } else {
                RawHttpServer::reply(200, json("{'url':'http://127.0.0.1:1/u','key':'k'}"))(socket, request);
            }
        });
        const auto outcome = await(clientFor(server).uploadTarget(QStringLiteral("tok")));
        QVERIFY(outcome.value);
        QCOMPARE(server.requests().size(), 2);
        QCOMPARE(requestLine(server.requests().at(1)), QByteArray("GET /elsewhere HTTP/1.1"));
        QCOMPARE(headerOf(server.requests().at(1), "Authorization"), QByteArray("tok"));
    }

    void redirectToAnotherHostIsRefused()
    {
        RawHttpServer other(RawHttpServer::reply(200, json("{'url':'u','key':'k'}")));
        // "localhost" and "127.0.0.1" are different origins, though the same machine.
        const QByteArray elsewhere = "http://localhost:" + QByteArray::number(other.url().port()) + "/steal";
        RawHttpServer server(RawHttpServer::reply(302, {}, "Location: " + elsewhere + "\r\n"));

        const auto outcome = await(clientFor(server).uploadTarget(QStringLiteral("secret-token")));
        QVERIFY(outcome.apiError);
        QCOMPARE(outcome.apiError->kind(), ApiError::Kind::transport);
        QVERIFY(!outcome.apiError->description().isEmpty());
        QCOMPARE(other.requests().size(), 0);
    }

    void oversizedBodiesAreRefused_data()
    {
        QTest::addColumn<bool>("chunked");
        QTest::addColumn<int>("status");
        QTest::newRow("declared length") << false << 200;
        QTest::newRow("chunked") << true << 200;
        QTest::newRow("error status") << false << 500;
    }

    void oversizedBodiesAreRefused()
    {
        QFETCH(bool, chunked);
        QFETCH(int, status);
        // A valid record padded with blanks past the limit: only the size is wrong.
        const QByteArray body = pairingJson + QByteArray(2 * 1024 * 1024, ' ');
        QByteArray head = "HTTP/1.1 " + QByteArray::number(status) + " X\r\nContent-Type: application/json\r\n";
        QByteArray raw;
        if (chunked) {
            raw = head + "Transfer-Encoding: chunked\r\n\r\n";
            for (qsizetype at = 0; at < body.size(); at += 65536) {
                const QByteArray chunk = body.mid(at, 65536);
                raw += QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
            }
            raw += "0\r\n\r\n";
        } else {
            raw = head + "Content-Length: " + QByteArray::number(body.size()) + "\r\n\r\n" + body;
        }
        RawHttpServer server(RawHttpServer::answer(raw));
        const auto outcome = await(clientFor(server).startPairing(device()));
        QVERIFY(outcome.apiError);
        QCOMPARE(*outcome.apiError,
                 status >= 400 ? ApiError::http(status, QStringLiteral("http_500")) : ApiError::badResponse());
    }

    void connectionDroppedHalfWay()
    {
        RawHttpServer server(RawHttpServer::answer("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                                                   "Content-Length: 500\r\n\r\n{\"deviceCode\":"));
        const auto outcome = await(clientFor(server).startPairing(device()));
        QVERIFY(outcome.apiError);
        QCOMPARE(outcome.apiError->kind(), ApiError::Kind::transport);
        QCOMPARE(outcome.apiError->networkError(), QNetworkReply::RemoteHostClosedError);
    }

    void serverThatNeverAnswersTimesOut()
    {
        RawHttpServer server(RawHttpServer::silence());
        QElapsedTimer clock;
        clock.start();
        const auto outcome = await(clientFor(server, 300ms).startPairing(device()));
        QVERIFY(outcome.apiError);
        QCOMPARE(*outcome.apiError, ApiError::transport(TransportError(QNetworkReply::TimeoutError,
                                                                       QStringLiteral("The request timed out."))));
        QVERIFY(clock.elapsed() < 5000);
    }

    void selfSignedCertificateIsRefused()
    {
        RawHttpServer server(RawHttpServer::reply(200, pairingJson), selfSignedServerConfiguration());
        const auto outcome = await(clientFor(server).startPairing(device()));
        QVERIFY(outcome.apiError);
        QCOMPARE(outcome.apiError->kind(), ApiError::Kind::transport);
        QCOMPARE(outcome.apiError->networkError(), QNetworkReply::SslHandshakeFailedError);
        QVERIFY(server.requests().isEmpty());
    }

    void uploadDoesNotFollowRedirects()
    {
        QTemporaryDir dir;
        const QString file = makeFile(dir, 4096);
        RawHttpServer server(RawHttpServer::reply(302, {}, "Location: /other\r\n"));
        const UploadTarget target{server.url().toString() + QStringLiteral("/put/here"), QStringLiteral("k")};
        const auto outcome = await(clientFor(server).upload(file, target));
        QVERIFY(outcome.apiError);
        QCOMPARE(*outcome.apiError, ApiError::http(302, QStringLiteral("upload_failed")));
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(requestLine(server.requests().first()), QByteArray("PUT /put/here HTTP/1.1"));
    }

    void uploadTransportFailuresAreNotWrapped()
    {
        QTemporaryDir dir;
        const QString file = makeFile(dir, 4096);
        RawHttpServer silent(RawHttpServer::silence());
        const UploadTarget target{silent.url().toString() + QStringLiteral("/put"), QStringLiteral("k")};
        const auto timedOut = await(clientFor(silent, 300ms).upload(file, target));
        QVERIFY(timedOut.transportError);
        QCOMPARE(timedOut.transportError->error(), QNetworkReply::TimeoutError);
        QCOMPARE(timedOut.transportError->description(), QStringLiteral("The request timed out."));

        const auto missing = await(clientFor(silent).upload(dir.filePath(QStringLiteral("absent.m4a")), target));
        QVERIFY(missing.transportError);
        QCOMPARE(missing.transportError->error(), QNetworkReply::ContentNotFoundError);
    }

    void uploadRefusesATargetThatIsNoUrl_data()
    {
        QTest::addColumn<QString>("url");
        QTest::newRow("empty") << QString();
        QTest::newRow("no scheme") << QStringLiteral("not a url");
        QTest::newRow("file scheme") << QStringLiteral("file:///etc/passwd");
    }

    void uploadRefusesATargetThatIsNoUrl()
    {
        QFETCH(QString, url);
        QTemporaryDir dir;
        const QString file = makeFile(dir, 10);
        RawHttpServer server(RawHttpServer::reply(200, {}));
        const auto outcome = await(clientFor(server).upload(file, UploadTarget{url, QStringLiteral("k")}));
        QVERIFY(outcome.apiError);
        QCOMPARE(*outcome.apiError, ApiError::badResponse());
    }

    void connectionRefusedKeepsQtsSentence()
    {
        // A port that was free a moment ago and is closed now.
        quint16 port = 0;
        {
            QTcpServer probe;
            QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
            port = probe.serverPort();
        }
        const SelvaroAPI api(&m_network, QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)));
        const auto outcome = await(api.startPairing(device()));
        QVERIFY(outcome.apiError);
        QCOMPARE(outcome.apiError->networkError(), QNetworkReply::ConnectionRefusedError);
        QCOMPARE(outcome.apiError->description(), QStringLiteral("Connection refused"));
    }
};

QTEST_GUILESS_MAIN(TestSelvaroApiEdges)
#include "tst_selvaroapi_edges.moc"
