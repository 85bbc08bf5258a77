// The service client: its records and rules, its side of the wire against a raw
// loopback server that answers what the note service never would, and a recording's
// whole way out through the local note service.
#include "Await.h"
#include "RawHttpServer.h"

#include "service/ApiErrorBody.h"
#include "service/SelvaroAPI.h"
#include "service/ServiceText.h"
#include "support/DevService.h"
#include "support/LogCapture.h"

#include "BuildInfo.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QTemporaryDir>
#include <QtTest/QTest>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;

namespace {
// JSON written with single quotes, which keeps the tables readable.
QByteArray json(const char *text)
{
    return QByteArray(text).replace('\'', '"');
}
const QByteArray target = json("{'url':'https://x/y','key':'k'}");

QByteArray headerOf(const QByteArray &request, const QByteArray &name)
{
    const qsizetype at = request.indexOf("\r\n" + name + ": ");
    return at < 0 ? "(none)"_ba
                  : request.mid(at + name.size() + 4, request.indexOf('\r', at + 2) - at - name.size() - 4);
}

using Decoder = std::function<bool(const QJsonObject &)>;
template <typename Record> bool roundTrips(const QJsonObject &json)
{
    const auto record = Record::fromJson(json);
    return record && Record::fromJson(record->toJson()) == record;
}

qint64 peakMemoryKiB()
{
    QFile status(u"/proc/self/status"_s);
    const QByteArray text = status.open(QIODevice::ReadOnly) ? status.readAll() : QByteArray();
    const qsizetype at = text.indexOf("VmHWM:");
    return text.mid(at + 6, text.indexOf(" kB", at) - at - 6).trimmed().toLongLong();
}
} // namespace

Q_DECLARE_METATYPE(RawHttpServer::Responder)
Q_DECLARE_METATYPE(Decoder)

class TestServiceClient : public QObject
{
    Q_OBJECT

    QNetworkAccessManager m_network;
    QTemporaryDir m_dir;

    SelvaroAPI client(const QUrl &base, ServiceDeadlines deadlines = {})
    {
        return SelvaroAPI(&m_network, base, deadlines);
    }
    QString file(qint64 size)
    {
        QFile file(m_dir.filePath(u"r.m4a"_s));
        return file.open(QIODevice::WriteOnly) && file.write("head") == 4 && file.resize(size)
            ? file.fileName()
            : QString();
    }

private slots:
    // Every listed member is required with its JSON type; unknown members are ignored.
    void decoding_data()
    {
        QTest::addColumn<Decoder>("decoder");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("decodes");
        const Decoder start = roundTrips<PairingStart>, session = roundTrips<SessionPayload>;
        QTest::newRow("start") << start
                               << json(
                                      "{'deviceCode':'d','userCode':'u','expiresIn':60,'interval':5.0,'x':1}")
                               << true;
        QTest::newRow("no interval") << start << json("{'deviceCode':'d','userCode':'u','expiresIn':60}")
                                     << false;
        QTest::newRow("'5'") << start
                             << json("{'deviceCode':'d','userCode':'u','expiresIn':60,'interval':'5'}")
                             << false;
        QTest::newRow("5.5") << start
                             << json("{'deviceCode':'d','userCode':'u','expiresIn':60,'interval':5.5}")
                             << false;
        QTest::newRow("1e12") << start
                              << json("{'deviceCode':'d','userCode':'u','expiresIn':60,'interval':1e12}")
                              << false;
        QTest::newRow("session") << session
                                 << json("{'id':'s','profileId':'p','token':'t','isAnonymous':true}") << true;
        QTest::newRow("anonymous 1") << session
                                     << json("{'id':'s','profileId':'p','token':'t','isAnonymous':1}")
                                     << false;
        QTest::newRow("target") << Decoder(roundTrips<UploadTarget>) << target << true;
        QTest::newRow("target, no key")
            << Decoder(roundTrips<UploadTarget>) << json("{'url':'https://x/y'}") << false;
        QTest::newRow("note 5") << Decoder(roundTrips<NoteRecord>) << json("{'id':5}") << false;
        QTest::newRow("error nested")
            << Decoder(roundTrips<ApiErrorBody>) << json("{'error':{'code':'x'}}") << false;
    }
    void decoding()
    {
        QFETCH(Decoder, decoder);
        QFETCH(QByteArray, body);
        QFETCH(bool, decodes);
        QCOMPARE(decoder(QJsonDocument::fromJson(body).object()), decodes);
    }

    void rules()
    {
        QCOMPARE(ApiError::http(410, u"code_expired"_s).description(), u"code_expired (410)"_s);
        QCOMPARE(ApiError::badResponse().description(), u"unexpected response"_s);
        QCOMPARE(ServiceDeadlines().upload(1024 * 1024), 120s); // the floor
        QCOMPARE(ServiceDeadlines().upload(600 * 32 * 1024), 600s); // 32 KiB/s
        QCOMPARE(SelvaroAPI::userAgent(), "selvaro-recorder/"_ba + BuildInfo::shortVersion);
        const QJsonObject device = DeviceInfo::current(u"V"_s).toJson();
        QCOMPARE(device.keys(),
            QStringList({ u"appVersion"_s, u"brand"_s, u"locale"_s, u"model"_s, u"osVersion"_s, u"type"_s,
                u"vendorUuid"_s }));
        QCOMPARE(device[u"type"_s], u"linux"_s);
    }

    // The texts as they come: what goes in, what comes out.
    void texts_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("in");
        QTest::addColumn<QString>("out");
        QTest::newRow("build 42") << "build"
                                  << "+42"
                                  << "42";
        QTest::newRow("build 42a") << "build"
                                   << "42a"
                                   << "0";
        QTest::newRow("build 1.2") << "build"
                                   << "1.2"
                                   << "0";
        QTest::newRow("build arabic") << "build" << u"\u0664\u0662"_s << "0";
        QTest::newRow("build overflow") << "build"
                                        << "99999999999999999999"
                                        << "0";
        QTest::newRow("os 12") << "os"
                               << "12"
                               << "12.0.0";
        QTest::newRow("os 24.04") << "os"
                                  << "24.04"
                                  << "24.4.0";
        QTest::newRow("os 1.2.3.4") << "os"
                                    << "1.2.3.4"
                                    << "1.2.3";
        QTest::newRow("os unknown") << "os"
                                    << "unknown"
                                    << "0.0.0";
        QTest::newRow("line break") << "service"
                                    << "a\r\nb" << u"a\uFFFD\uFFFDb"_s;
        QTest::newRow("bidi override") << "service" << u"a\u202Eb"_s << u"a\uFFFDb"_s;
        QTest::newRow("100") << "service" << QString(100, u'x') << QString(100, u'x');
        QTest::newRow("101") << "service" << QString(101, u'x') << QString(99, u'x') + u'\u2026';
        QTest::newRow("no half emoji") << "service" << QString(98, u'x') + u"\U0001F600\U0001F600\U0001F600"_s
                                       << QString(98, u'x') + u"\U0001F600\u2026"_s;
    }
    void texts()
    {
        QFETCH(QString, kind);
        QFETCH(QString, in);
        QFETCH(QString, out);
        QCOMPARE(kind == u"build"_s ? QString::number(SelvaroAPI::parseBuildNumber(in))
                : kind == u"os"_s   ? DeviceInfo::threePartVersion(in)
                                    : ServiceText::bounded(in),
            out);
    }

    void noteBody()
    {
        // 11:11:12.345 in UTC+1 is 10:11:12.345Z.
        const QDateTime startedAt(QDate(2025, 3, 4), QTime(11, 11, 12, 345), Qt::OffsetFromUTC, 3600);
        const QJsonObject expected { { u"startedAt"_s, u"2025-03-04T10:11:12.345Z"_s }, { u"duration"_s, 59 },
            { u"recordingKey"_s, u"k"_s }, { u"source"_s, u"recorder"_s }, { u"sourceUrl"_s, u""_s },
            { u"buildNumber"_s, QString::fromUtf8(BuildInfo::buildNumber).toLongLong() },
            { u"deviceLocale"_s, QLocale().name() }, { u"anonUser"_s, u"a1"_s } };
        QCOMPARE(SelvaroAPI::noteBody(u"a1"_s, true, startedAt, 59, u"k"_s), expected);
        QCOMPARE(SelvaroAPI::noteBody(u"a1"_s, false, startedAt, 59, u"k"_s).value(u"user"_s), u"a1"_s);
    }

    void statusMapping_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("outcome"); // the error's description, or "ok"
        QTest::addColumn<QString>("logged"); // after "GET /upload-recording-url?ext=m4a"
        QTest::newRow("399 is success") << 399 << target << "ok"
                                        << "";
        QTest::newRow("200 empty") << 200 << QByteArray() << "unexpected response"
                                   << ": undecodable body";
        QTest::newRow("400 no code") << 400 << target << "http_400 (400)"
                                     << " -> 400 http_400";
        QTest::newRow("401") << 401 << json("{'error':'bad_token'}") << "bad_token (401)"
                             << " -> 401 bad_token";
        QTest::newRow("404 html") << 404 << "<html>"_ba
                                  << "http_404 (404)"
                                  << " -> 404 http_404";
        QTest::newRow("407") << 407 << json("{'error':'proxy_no'}") << "proxy_no (407)"
                             << " -> 407 proxy_no";
        QTest::newRow("429") << 429 << json("{'error':'slow'}") << "slow (429)"
                             << " -> 429 slow";
        QTest::newRow("line break in code")
            << 404 << json("{'error':'x\\nGET / -> 200 ok'}") << u"x\uFFFDGET / -> 200 ok (404)"_s
            << u" -> 404 x\uFFFDGET / -> 200 ok"_s;
        QTest::newRow("long code") << 409 << "{\"error\":\"" + QByteArray(5000, 'c') + "\"}"
                                   << QString(99, u'c') + u"\u2026 (409)"_s
                                   << u" -> 409 "_s + QString(99, u'c') + u'\u2026';
        QTest::newRow("over 1 MiB") << 200 << QByteArray(SelvaroAPI::maxJsonBodyBytes + 1, ' ')
                                    << "unexpected response"
                                    << ": body over 1048576 bytes refused";
    }
    void statusMapping()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, outcome);
        QFETCH(QString, logged);
        LogCapture log;
        // Qt reads statuses as its own errors (401: authentication, 407: proxy); they are answers all the
        // same.
        RawHttpServer server(
            RawHttpServer::reply(status, body, "WWW-Authenticate: Basic\r\nProxy-Authenticate: Basic\r\n"));
        QCOMPARE(await(client(server.url()).uploadTarget(u"tok"_s)).text(), outcome);
        QCOMPARE(log.lines(u"api"_s),
            logged.isEmpty() ? QStringList()
                             : QStringList { u"GET /upload-recording-url?ext=m4a"_s + logged });
    }

    void headers()
    {
        RawHttpServer server(RawHttpServer::reply(200, target));
        await(client(server.url()).uploadTarget(u"tok.en"_s));
        await(client(server.url()).refreshSession(u"a/b"_s, u"t"_s, DeviceInfo::current(u"V"_s)));
        const QByteArray get = server.requests().at(0), post = server.requests().at(1);
        QCOMPARE(headerOf(get, "Authorization"), "tok.en"_ba); // bare, no scheme word
        QCOMPARE(headerOf(get, "Content-Type"), "application/json"_ba); // also without a body
        QCOMPARE(headerOf(get, "User-Agent"), SelvaroAPI::userAgent());
        QVERIFY(post.startsWith("POST /sessions/a/b/refresh HTTP/1.1\r\n")); // the id verbatim
        QVERIFY(post.contains("\r\n\r\n{\"device\":{"));
        await(client(server.url()).redeemPairing(u"dc"_s));
        QCOMPARE(headerOf(server.requests().at(2), "Authorization"), "(none)"_ba);
    }

    // Below HTTP the JSON calls wrap Qt's error, the upload throws it bare; whatever the
    // server does, a call ends by its deadline with the time-out sentence.
    void transportFailures_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<RawHttpServer::Responder>("responder"); // none: nothing listens
        QTest::addColumn<QString>("outcome");
        const QString timedOut = u"The request timed out."_s;
        QTest::newRow("json, silent") << false << RawHttpServer::Responder([](QTcpSocket *) {}) << timedOut;
        QTest::newRow("json, a byte every 200 ms") << false << RawHttpServer::drip(target, 200ms) << timedOut;
        QTest::newRow("upload, silent") << true << RawHttpServer::Responder([](QTcpSocket *) {}) << timedOut;
        QTest::newRow("upload, a byte every 200 ms")
            << true << RawHttpServer::drip(target, 200ms) << timedOut;
        QTest::newRow("json, refused") << false << RawHttpServer::Responder() << "Connection refused";
        QTest::newRow("upload, refused") << true << RawHttpServer::Responder() << "Connection refused";
    }
    void transportFailures()
    {
        QFETCH(bool, upload);
        QFETCH(RawHttpServer::Responder, responder);
        QFETCH(QString, outcome);
        RawHttpServer server(responder);
        const QUrl url = responder ? server.url() : QUrl(u"http://127.0.0.1:1"_s);
        const SelvaroAPI api = client(url, { 60s, 500ms, 500ms, 1024 });
        QElapsedTimer elapsed;
        elapsed.start();
        if (upload) {
            const auto put = await(api.upload(file(5), { url.toString() + u"/u"_s, {} }));
            QCOMPARE(put.transportError.value().description(), outcome);
        } else {
            QCOMPARE(
                await(api.uploadTarget(u"t"_s)).apiError.value().transportError()->description(), outcome);
        }
        QVERIFY2(elapsed.elapsed() < 2000, qPrintable(QString::number(elapsed.elapsed())));
    }

    // https only, except while the client talks to a loopback http service; the storage's
    // answer counts only when it is exactly 200, redirects not followed.
    void upload_data()
    {
        QTest::addColumn<QString>("base"); // empty: the raw server itself
        QTest::addColumn<QString>("url"); // %1: the raw server's origin
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("http to a loopback service") << ""
                                                    << "%1/u" << 200 << "ok";
        QTest::newRow("204") << ""
                             << "%1/u" << 204 << "upload_failed (204)";
        QTest::newRow("302 not followed") << ""
                                          << "%1/u" << 302 << "upload_failed (302)";
        QTest::newRow("http from an https service") << "https://127.0.0.1:1"
                                                    << "%1/u" << 200 << "unexpected response";
        QTest::newRow("http from a remote service") << "http://example.com"
                                                    << "%1/u" << 200 << "unexpected response";
        QTest::newRow("no host") << ""
                                 << "https:///u" << 200 << "unexpected response";
        QTest::newRow("ftp") << ""
                             << "ftp://127.0.0.1/u" << 200 << "unexpected response";
    }
    void upload()
    {
        QFETCH(QString, base);
        QFETCH(QString, url);
        QFETCH(int, status);
        QFETCH(QString, outcome);
        RawHttpServer server(RawHttpServer::reply(status, {}, "Location: /elsewhere\r\n"));
        const SelvaroAPI api = client(base.isEmpty() ? server.url() : QUrl(base));
        const auto put
            = await(api.upload(file(5), { url.replace(u"%1"_s, server.url().toString()), u"k"_s }));
        QCOMPARE(put.text(), outcome);
        QCOMPARE(server.requests().size(), outcome == u"unexpected response"_s ? 0 : 1);
    }

    void redirectElsewhereIsRefusedAndTheTokenStaysHome()
    {
        RawHttpServer other(RawHttpServer::reply(200, target));
        // "localhost" and "127.0.0.1" are different origins, though the same machine.
        const QByteArray elsewhere
            = "Location: http://localhost:" + QByteArray::number(other.url().port()) + "/x\r\n";
        RawHttpServer server(RawHttpServer::reply(302, {}, elsewhere));
        QCOMPARE(await(client(server.url()).uploadTarget(u"secret"_s)).apiError->kind(),
            ApiError::Kind::transport);
        QVERIFY(other.requests().isEmpty());
    }

    // The local note service: upload target, a streamed upload, the note.
    void aRecordingGoesOut()
    {
        DevService service;
        QVERIFY2(service.available(), "run under scripts/fixtures/with-devservice");
        const SelvaroAPI api = client(service.baseUrl());
        const QJsonObject session = service.createSession(true);
        const QString token = session[u"token"_s].toString(), accountId = session[u"accountId"_s].toString();
        const auto target = await(api.uploadTarget(token)).value.value();

        const qint64 size = 64 * 1024 * 1024;
        const QString path = file(size);
        QFile clearPeak(u"/proc/self/clear_refs"_s);
        QVERIFY(clearPeak.open(QIODevice::WriteOnly) && clearPeak.write("5") == 1 && clearPeak.flush());
        const qint64 before = peakMemoryKiB();
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(1);
        QCOMPARE(await(api.upload(path, target), 60000).text(), u"ok"_s);
        // Streamed: the file is never held in memory, and the event loop keeps turning.
        QVERIFY2(
            peakMemoryKiB() - before < size / 4096, qPrintable(QString::number(peakMemoryKiB() - before)));
        QVERIFY(ticks > 10);
        const QJsonObject headers = service.requests().last()[u"headers"_s].toObject();
        QCOMPARE(headers[u"content-type"_s], u"audio/m4a"_s);
        QCOMPARE(headers[u"content-length"_s], QString::number(size));
        QVERIFY(!headers.contains(u"authorization"_s));
        QVERIFY(service.download(target.key).startsWith("head"));

        const QDateTime startedAt = QDateTime::fromMSecsSinceEpoch(1741083072345, Qt::UTC);
        const auto note
            = await(api.createNote(token, accountId, true, startedAt, 59, target.key)).value.value();
        const QJsonObject stored = service.notes().first().toObject();
        QCOMPARE(stored[u"id"_s], note.id);
        QCOMPARE(stored[u"body"_s], SelvaroAPI::noteBody(accountId, true, startedAt, 59, target.key));
    }
};

QTEST_GUILESS_MAIN(TestServiceClient)
#include "tst_service_client.moc"
