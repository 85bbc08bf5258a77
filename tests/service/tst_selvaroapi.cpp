// The client against the local note service: the wire contract, the header rules,
// the status mapping (with the service's fault injection) and the upload.

#include "Await.h"

#include "service/SelvaroAPI.h"
#include "support/DevService.h"
#include "support/LogCapture.h"

#include "BuildInfo.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QTemporaryDir>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest/QTest>

using namespace std::chrono_literals;

namespace {

DeviceInfo device()
{
    return DeviceInfo::current(QStringLiteral("5B0E1C2D-3A4F-4B6C-8D9E-0F1A2B3C4D5E"));
}

QString fileOf(const QTemporaryDir &dir, const QByteArray &content)
{
    const QString path = dir.filePath(QStringLiteral("recording.m4a"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("cannot write the test file");
    return path;
}

QJsonObject headersOf(const QJsonValue &request)
{
    return request.toObject().value(QLatin1String("headers")).toObject();
}

} // namespace

class TestSelvaroApi : public QObject
{
    Q_OBJECT

    QNetworkAccessManager m_network;
    DevService m_service;

    SelvaroAPI client(std::chrono::milliseconds timeout = SelvaroAPI::defaultTimeout)
    {
        return SelvaroAPI(&m_network, m_service.baseUrl(), timeout);
    }

    void fault(const QString &path, QJsonObject fields)
    {
        fields.insert(QStringLiteral("path"), path);
        m_service.addFault(fields);
    }

    QJsonObject lastRequest()
    {
        const QJsonArray requests = m_service.requests();
        return requests.isEmpty() ? QJsonObject() : requests.last().toObject();
    }

private slots:
    void initTestCase()
    {
        if (!m_service.available())
            QSKIP("no local note service (run under scripts/fixtures/with-devservice)");
    }

    void init() { m_service.reset(); }

    void pairingFromStartToRedeem()
    {
        const auto start = await(client().startPairing(device()));
        QVERIFY(start.value);
        QVERIFY(!start.value->deviceCode.isEmpty());
        QVERIFY(start.value->expiresIn > 0);
        QVERIFY(start.value->interval > 0);

        // The service received the device description as sent.
        const QJsonArray pairings = m_service.pairings();
        QCOMPARE(pairings.size(), 1);
        QCOMPARE(pairings.first().toObject().value(QLatin1String("device")).toObject(), device().toJson());

        const auto pending = await(client().redeemPairing(start.value->deviceCode));
        QVERIFY(pending.value);
        QVERIFY(!pending.value->has_value());

        int status = 0;
        m_service.confirm(start.value->userCode, true, &status);
        QCOMPARE(status, 200);
        const auto redeemed = await(client().redeemPairing(start.value->deviceCode));
        QVERIFY(redeemed.value && redeemed.value->has_value());
        QVERIFY(!(*redeemed.value)->token.isEmpty());
        QCOMPARE((*redeemed.value)->isAnonymous, true);

        const auto again = await(client().redeemPairing(start.value->deviceCode));
        QVERIFY(again.apiError);
        QCOMPARE(again.apiError->code(), QStringLiteral("code_already_used"));
    }

    void redeemTurnsOnlyPendingIntoNothing_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("code");
        QTest::addColumn<bool>("nothing");
        QTest::newRow("pending, 400") << 400 << QStringLiteral("authorization_pending") << true;
        QTest::newRow("pending, any status") << 428 << QStringLiteral("authorization_pending") << true;
        QTest::newRow("slow_down") << 400 << QStringLiteral("slow_down") << false;
        QTest::newRow("pending with a suffix") << 400 << QStringLiteral("authorization_pending_x") << false;
        QTest::newRow("expired") << 410 << QStringLiteral("code_expired") << false;
    }

    void redeemTurnsOnlyPendingIntoNothing()
    {
        QFETCH(int, status);
        QFETCH(QString, code);
        QFETCH(bool, nothing);
        fault(QStringLiteral("/pair/token"),
              {{QStringLiteral("status"), status},
               {QStringLiteral("body"), QString::fromUtf8(QJsonDocument(QJsonObject{{QStringLiteral("error"), code}}).toJson())}});
        const auto outcome = await(client().redeemPairing(QStringLiteral("whatever")));
        if (nothing) {
            QVERIFY(outcome.value);
            QVERIFY(!outcome.value->has_value());
        } else {
            QVERIFY(outcome.apiError);
            QCOMPARE(*outcome.apiError, ApiError::http(status, code));
        }
    }

    void headerRules()
    {
        const QByteArray userAgent = QByteArray("selvaro-recorder/") + BuildInfo::shortVersion;

        QVERIFY(await(client().startPairing(device())).value);
        const QJsonObject withoutToken = headersOf(lastRequest());
        QCOMPARE(withoutToken.value(QLatin1String("content-type")).toString(), QStringLiteral("application/json"));
        QCOMPARE(withoutToken.value(QLatin1String("user-agent")).toString().toUtf8(), userAgent);
        QVERIFY2(!withoutToken.contains(QLatin1String("authorization")), "no token, no Authorization header at all");

        const QJsonObject session = m_service.createSession(false);
        const QString token = session.value(QLatin1String("token")).toString();
        QVERIFY(await(client().uploadTarget(token)).value);
        const QJsonObject get = lastRequest();
        QCOMPARE(get.value(QLatin1String("method")).toString(), QStringLiteral("GET"));
        QCOMPARE(get.value(QLatin1String("path")).toString(), QStringLiteral("/upload-recording-url"));
        QCOMPARE(get.value(QLatin1String("bodySize")).toInt(), 0);
        // Sent even on a GET without a body.
        QCOMPARE(headersOf(get).value(QLatin1String("content-type")).toString(), QStringLiteral("application/json"));
        QCOMPARE(headersOf(get).value(QLatin1String("authorization")).toString(), DevService::redacted(token.toUtf8()));
    }

    void refreshUsesTheIdVerbatim()
    {
        const QJsonObject session = m_service.createSession(true);
        const QString id = session.value(QLatin1String("id")).toString();
        const QString token = session.value(QLatin1String("token")).toString();

        const auto refreshed = await(client().refreshSession(id, token, device()));
        QVERIFY(refreshed.value);
        QCOMPARE(refreshed.value->id, id);
        QVERIFY(refreshed.value->token != token);
        QCOMPARE(lastRequest().value(QLatin1String("path")).toString(), QStringLiteral("/sessions/") + id + QStringLiteral("/refresh"));

        const auto slashed = await(client().refreshSession(QStringLiteral("a/b"), token, device()));
        QVERIFY(slashed.apiError);
        QCOMPARE(slashed.apiError->status(), 404);
        QCOMPARE(lastRequest().value(QLatin1String("path")).toString(), QStringLiteral("/sessions/a/b/refresh"));

        const QString otherToken = m_service.createSession(true).value(QLatin1String("token")).toString();
        const auto foreign = await(client().refreshSession(id, otherToken, device()));
        QVERIFY(foreign.apiError);
        QCOMPARE(foreign.apiError->status(), 401);
    }

    void statusAndCodeMapping_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("body");
        QTest::addColumn<QString>("contentType");
        QTest::addColumn<QString>("code"); // empty: badResponse expected
        QTest::addColumn<QString>("logLine");
        const QString json = QStringLiteral("application/json");
        const QString undecodable = QStringLiteral("POST /pair: undecodable body");
        QTest::newRow("404 html") << 404 << QStringLiteral("<html><body>Not here</body></html>") << QStringLiteral("text/html") << QStringLiteral("http_404") << QStringLiteral("POST /pair -> 404 http_404");
        QTest::newRow("500 with code") << 500 << QStringLiteral("{\"error\":\"db_down\"}") << json << QStringLiteral("db_down") << QStringLiteral("POST /pair -> 500 db_down");
        QTest::newRow("502 code not a string") << 502 << QStringLiteral("{\"error\":5}") << json << QStringLiteral("http_502") << QStringLiteral("POST /pair -> 502 http_502");
        QTest::newRow("503 empty") << 503 << QString() << json << QStringLiteral("http_503") << QStringLiteral("POST /pair -> 503 http_503");
        QTest::newRow("200 empty") << 200 << QString() << json << QString() << undecodable;
        QTest::newRow("200 html") << 200 << QStringLiteral("<html></html>") << QStringLiteral("text/html") << QString() << undecodable;
        QTest::newRow("200 array") << 200 << QStringLiteral("[]") << json << QString() << undecodable;
        QTest::newRow("200 member missing") << 200 << QStringLiteral("{\"deviceCode\":\"d\",\"userCode\":\"u\",\"expiresIn\":60}") << json << QString() << undecodable;
        QTest::newRow("200 member mistyped") << 200 << QStringLiteral("{\"deviceCode\":\"d\",\"userCode\":\"u\",\"expiresIn\":\"60\",\"interval\":5}") << json << QString() << undecodable;
        QTest::newRow("201 truncated json") << 201 << QStringLiteral("{\"deviceCode\":\"d\",") << json << QString() << undecodable;
    }

    void statusAndCodeMapping()
    {
        QFETCH(int, status);
        QFETCH(QString, body);
        QFETCH(QString, contentType);
        QFETCH(QString, code);
        QFETCH(QString, logLine);
        fault(QStringLiteral("/pair"), {{QStringLiteral("status"), status}, {QStringLiteral("body"), body},
                                         {QStringLiteral("contentType"), contentType}});
        LogCapture log;
        const auto outcome = await(client().startPairing(device()));
        QVERIFY(outcome.apiError);
        QCOMPARE(*outcome.apiError, code.isEmpty() ? ApiError::badResponse() : ApiError::http(status, code));
        QCOMPARE(log.lines(QStringLiteral("api")), QStringList{logLine});
    }

    void logLinesNeverCarryTheTokenOrTheBody()
    {
        const QString token = m_service.createSession(false).value(QLatin1String("token")).toString();
        fault(QStringLiteral("/upload-recording-url"), {{QStringLiteral("status"), 200}, {QStringLiteral("body"), QStringLiteral("{\"url\":\"SECRET-BODY\"}")}});
        fault(QStringLiteral("/api/collections/notes/records"), {{QStringLiteral("status"), 400}, {QStringLiteral("body"), QStringLiteral("{\"error\":\"bad\",\"x\":\"SECRET-BODY\"}")}});
        LogCapture log;
        QVERIFY(await(client().uploadTarget(token)).apiError);
        QVERIFY(await(client().createNote(token, QStringLiteral("acc"), false, QDateTime::currentDateTimeUtc(), 3, QStringLiteral("k"))).apiError);
        QCOMPARE(log.lines(QStringLiteral("api")).size(), 2);
        QVERIFY(!log.contains(token));
        QVERIFY(!log.contains(QStringLiteral("SECRET-BODY")));
    }

    void notesCarryTheAccountUnderTheRightKey_data()
    {
        QTest::addColumn<bool>("anonymous");
        QTest::newRow("anonymous") << true;
        QTest::newRow("signed in") << false;
    }

    void notesCarryTheAccountUnderTheRightKey()
    {
        QFETCH(bool, anonymous);
        const QJsonObject session = m_service.createSession(anonymous);
        const QString token = session.value(QLatin1String("token")).toString();
        const QString accountId = session.value(QLatin1String("accountId")).toString();
        const auto target = await(client().uploadTarget(token));
        QVERIFY(target.value);
        QTemporaryDir dir;
        QVERIFY(await(client().upload(fileOf(dir, "m4a bytes"), *target.value)).value);

        const QDateTime startedAt = QDateTime::fromMSecsSinceEpoch(1741083072345, Qt::UTC);
        const auto note = await(client().createNote(token, accountId, anonymous, startedAt, 59, target.value->key));
        QVERIFY2(note.value, note.apiError ? qPrintable(note.apiError->description()) : "no answer");

        const QJsonArray notes = m_service.notes();
        QCOMPARE(notes.size(), 1);
        const QJsonObject stored = notes.first().toObject();
        QCOMPARE(stored.value(QLatin1String("id")).toString(), note.value->id);
        const QJsonObject body = stored.value(QLatin1String("body")).toObject();
        QCOMPARE(body.size(), 8);
        QCOMPARE(body.value(anonymous ? QLatin1String("anonUser") : QLatin1String("user")).toString(), accountId);
        QVERIFY(!body.contains(anonymous ? QLatin1String("user") : QLatin1String("anonUser")));
        QCOMPARE(body.value(QLatin1String("startedAt")).toString(), QStringLiteral("2025-03-04T10:11:12.345Z"));
        QCOMPARE(body.value(QLatin1String("recordingKey")).toString(), target.value->key);
        QCOMPARE(body.value(QLatin1String("duration")).toInt(), 59);
    }

    void uploadStreamsTheFileWithOnlyItsContentType()
    {
        const QString token = m_service.createSession(false).value(QLatin1String("token")).toString();
        const auto target = await(client().uploadTarget(token));
        QVERIFY(target.value);

        QTemporaryDir dir;
        QByteArray content(8 * 1024 * 1024, '\0');
        for (qsizetype i = 0; i < content.size(); ++i)
            content[i] = static_cast<char>((i * 7919) >> 5);
        const QString file = fileOf(dir, content);

        // The event loop keeps turning while the file goes out.
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(1);
        const auto uploaded = await(client().upload(file, *target.value));
        ticker.stop();
        QVERIFY2(uploaded.value, uploaded.apiError ? qPrintable(uploaded.apiError->description()) : "no answer");
        QVERIFY(ticks > 0);

        const QJsonObject put = lastRequest();
        QCOMPARE(put.value(QLatin1String("method")).toString(), QStringLiteral("PUT"));
        const QJsonObject headers = headersOf(put);
        QCOMPARE(headers.value(QLatin1String("content-type")).toString(), QStringLiteral("audio/m4a"));
        QCOMPARE(headers.value(QLatin1String("content-length")).toString(), QString::number(content.size()));
        QVERIFY(!headers.contains(QLatin1String("authorization")));
        QVERIFY(!headers.value(QLatin1String("user-agent")).toString().startsWith(QLatin1String("selvaro-recorder")));
        QCOMPARE(m_service.download(target.value->key), content);
    }

    void uploadSucceedsOnlyOn200_data()
    {
        QTest::addColumn<int>("status");
        QTest::newRow("201") << 201;
        QTest::newRow("204") << 204;
        QTest::newRow("403") << 403;
        QTest::newRow("500") << 500;
    }

    void uploadSucceedsOnlyOn200()
    {
        QFETCH(int, status);
        const QString token = m_service.createSession(false).value(QLatin1String("token")).toString();
        const auto target = await(client().uploadTarget(token));
        QVERIFY(target.value);
        fault(QStringLiteral("/uploads/*"), {{QStringLiteral("method"), QStringLiteral("PUT")}, {QStringLiteral("status"), status}});
        QTemporaryDir dir;
        const auto uploaded = await(client().upload(fileOf(dir, "abc"), *target.value));
        QVERIFY(uploaded.apiError);
        QCOMPARE(*uploaded.apiError, ApiError::http(status, QStringLiteral("upload_failed")));
    }

    void droppedConnectionKeepsQtsSentence()
    {
        fault(QStringLiteral("/pair"), {{QStringLiteral("drop"), true}, {QStringLiteral("count"), 20}});
        const auto outcome = await(client().startPairing(device()));
        QVERIFY(outcome.apiError);
        QCOMPARE(outcome.apiError->kind(), ApiError::Kind::transport);

        // What Qt itself says about the same failure, word for word.
        QNetworkRequest request(m_service.baseUrl().resolved(QUrl(QStringLiteral("/pair"))));
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
        const QByteArray body = QJsonDocument(QJsonObject{{QStringLiteral("device"), device().toJson()}}).toJson();
        std::unique_ptr<QNetworkReply> reply(m_network.post(request, body));
        QSignalSpy finished(reply.get(), &QNetworkReply::finished);
        QVERIFY(finished.wait(10000));
        QCOMPARE(outcome.apiError->networkError(), reply->error());
        QCOMPARE(outcome.apiError->description(), reply->errorString());
    }

    void slowServiceTimesOut()
    {
        fault(QStringLiteral("/pair"), {{QStringLiteral("delayMs"), 3000}});
        QElapsedTimer clock;
        clock.start();
        const auto outcome = await(client(300ms).startPairing(device()));
        QVERIFY(outcome.apiError);
        QCOMPARE(outcome.apiError->networkError(), QNetworkReply::TimeoutError);
        QCOMPARE(outcome.apiError->description(), QStringLiteral("The request timed out."));
        QVERIFY(clock.elapsed() < 2500);
    }
};

QTEST_GUILESS_MAIN(TestSelvaroApi)
#include "tst_selvaroapi.moc"
