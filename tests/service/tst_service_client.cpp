// The service client: its records and rules, its side of the wire against a raw
// loopback server that answers what the note service never would, and a recording's
// whole way out through the local note service.
#include "service/ApiErrorBody.h"
#include "service/RetryAfter.h"
#include "service/SelvaroAPI.h"
#include "service/ServiceText.h"
#include "support/DevService.h"
#include "support/LogCapture.h"

#include "BuildInfo.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest/QTest>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using Responder = std::function<void(QTcpSocket *)>;
using Decoder = std::function<bool(const QByteArray &)>;
Q_DECLARE_METATYPE(Responder)
Q_DECLARE_METATYPE(Decoder)

namespace {
// A loopback HTTP server answering what the note service never would. Each request is
// read whole (head and Content-Length body), recorded, then answered by the responder.
struct RawHttpServer
{
    explicit RawHttpServer(const Responder &respond)
    {
        QObject::connect(&server, &QTcpServer::pendingConnectionAvailable, &server, [this, respond] {
            QTcpSocket *socket = server.nextPendingConnection();
            QObject::connect(
                socket, &QTcpSocket::readyRead, socket, [=, this, buffer = QByteArray()]() mutable {
                    buffer.append(socket->readAll());
                    const qsizetype end = buffer.indexOf("\r\n\r\n"),
                                    at = buffer.indexOf("Content-Length: ") + 16;
                    if (end >= 0
                        && (at < 16
                            || buffer.size() >= end + 4 + buffer.mid(at, 12).split('\r')[0].toInt())) {
                        requests.append(std::exchange(buffer, {}));
                        respond(socket);
                    }
                });
        });
        server.listen(QHostAddress::LocalHost);
    }
    [[nodiscard]] QUrl url() const
    {
        return QUrl(u"http://127.0.0.1:"_s + QString::number(server.serverPort()));
    }

    QTcpServer server;
    QList<QByteArray> requests;
};

// An answer whose body comes at once, or a byte every `drip`.
Responder reply(int status, QByteArray body, QByteArray headers = {}, std::chrono::milliseconds drip = {})
{
    return [=](QTcpSocket *socket) {
        socket->write("HTTP/1.1 " + QByteArray::number(status) + " Whatever\r\n" + headers
            + "Content-Length: " + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n");
        if (drip == 0ms) {
            socket->write(body);
            socket->disconnectFromHost();
            return;
        }
        auto *timer = new QTimer(socket);
        QObject::connect(
            timer, &QTimer::timeout, socket, [=, sent = 0]() mutable { socket->write(body.mid(sent++, 1)); });
        timer->start(drip);
    };
}

// What one awaited call ended in. QCoro::waitFor() alone would not pass the exception on.
template <typename T> struct Outcome
{
    std::optional<std::conditional_t<std::is_void_v<T>, std::monostate, T>> value;
    std::optional<ApiError> apiError;
    // "ok", or the error's description.
    [[nodiscard]] QString text() const { return value ? u"ok"_s : apiError->description(); }
};
template <typename T> Outcome<T> await(QCoro::Task<T> task)
{
    return QCoro::waitFor([](QCoro::Task<T> task) -> QCoro::Task<Outcome<T>> {
        Outcome<T> outcome;
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(task);
                outcome.value.emplace();
            } else {
                outcome.value.emplace(co_await std::move(task));
            }
        } catch (const ApiError &error) {
            outcome.apiError = error;
        }
        co_return outcome;
    }(std::move(task)));
}

// JSON written with single quotes, which keeps the tables readable.
QByteArray json(const char *text)
{
    return QByteArray(text).replace('\'', '"');
}
const QByteArray target = json("{'url':'https://x/y','key':'k'}");

template <typename Record> Decoder decoder()
{
    return [](const QByteArray &text) {
        const auto record = Record::fromJson(QJsonDocument::fromJson(json(text.constData())).object());
        return record && Record::fromJson(record->toJson()) == record;
    };
}

QByteArray headerOf(const QByteArray &request, const QByteArray &name)
{
    const qsizetype at = request.indexOf("\r\n" + name + ": ") + name.size() + 4;
    return at < name.size() + 4 ? "(none)"_ba : request.mid(at, request.indexOf('\r', at) - at);
}

qint64 peakMemoryKiB()
{
    QFile status(u"/proc/self/status"_s);
    const QByteArray text = status.open(QIODevice::ReadOnly) ? status.readAll() : QByteArray();
    const qsizetype at = text.indexOf("VmHWM:") + 6;
    return text.mid(at, text.indexOf(" kB", at) - at).trimmed().toLongLong();
}
} // namespace

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
        const bool made = file.open(QIODevice::WriteOnly) && file.write("head") == 4 && file.resize(size);
        return made ? file.fileName() : QString();
    }

private slots:
    // Every listed member is required with its JSON type; unknown members are ignored.
    void decoding_data()
    {
        QTest::addColumn<Decoder>("decode");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("decodes");
        const Decoder start = decoder<PairingStart>(), session = decoder<SessionPayload>();
        const QByteArray startWith = "{'deviceCode':'d','userCode':'u','expiresIn':6,'interval':";
        const QByteArray sessionWith = "{'id':'s','profileId':'p','token':'t','isAnonymous':";
        QTest::newRow("start") << start << startWith + "5.0}" << true;
        QTest::newRow("'5'") << start << startWith + "'5'}" << false;
        QTest::newRow("5.5") << start << startWith + "5.5}" << false;
        QTest::newRow("1e12") << start << startWith + "1e12}" << false;
        QTest::newRow("session, a member more") << session << sessionWith + "true,'x':1}" << true;
        QTest::newRow("anonymous 1") << session << sessionWith + "1}" << false;
        QTest::newRow("target, no key") << decoder<UploadTarget>() << "{'url':'https://x/y'}"_ba << false;
        QTest::newRow("error nested") << decoder<ApiErrorBody>() << "{'error':{'code':'x'}}"_ba << false;
    }
    void decoding()
    {
        QFETCH(Decoder, decode);
        QFETCH(QByteArray, body);
        QTEST(decode(body), "decodes");
    }

    // The texts as they come: what goes in, what comes out.
    void texts_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("in");
        QTest::addColumn<QString>("out");
        QTest::newRow("build +42") << u"build"_s << u"+42"_s << u"42"_s;
        QTest::newRow("build 42a") << u"build"_s << u"42a"_s << u"0"_s;
        QTest::newRow("build arabic") << u"build"_s << u"\u0664\u0662"_s << u"0"_s;
        QTest::newRow("build overflow") << u"build"_s << u"99999999999999999999"_s << u"0"_s;
        QTest::newRow("os 24.04") << u"os"_s << u"24.04"_s << u"24.4.0"_s;
        QTest::newRow("os 1.2.3.4") << u"os"_s << u"1.2.3.4"_s << u"1.2.3"_s;
        QTest::newRow("os unknown") << u"os"_s << u"unknown"_s << u"0.0.0"_s;
        QTest::newRow("line break") << u"service"_s << u"a\r\nb"_s << u"a\uFFFD\uFFFDb"_s;
        QTest::newRow("bidi override") << u"service"_s << u"a\u202Eb"_s << u"a\uFFFDb"_s;
        QTest::newRow("100") << u"service"_s << QString(100, u'x') << QString(100, u'x');
        QTest::newRow("101") << u"service"_s << QString(98, u'x') + u"\U0001F600\U0001F600\U0001F600"_s
                             << QString(98, u'x') + u"\U0001F600\u2026"_s; // never half an emoji
        // The application's deadlines, in seconds (every other test passes short ones).
        QTest::newRow("deadline stalled") << u"deadline"_s << u"stalled"_s << u"60"_s;
        QTest::newRow("deadline json") << u"deadline"_s << u"json"_s << u"120"_s;
        QTest::newRow("deadline small upload") << u"deadline"_s << u"1000"_s << u"120"_s;
        QTest::newRow("deadline 170 MB upload") << u"deadline"_s << u"170000000"_s << u"5187"_s;
        // Retry-After, read at 10:11:12 UTC.
        QTest::newRow("Retry-After 2") << u"retry"_s << u" 2"_s << u"2"_s;
        QTest::newRow("Retry-After a date") << u"retry"_s << u"Wed, 04 Mar 2026 10:12:12 GMT"_s << u"60"_s;
        QTest::newRow("Retry-After a date gone")
            << u"retry"_s << u"Wed, 04 Mar 2026 10:00:00 GMT"_s << u"0"_s;
        QTest::newRow("Retry-After soon") << u"retry"_s << u"soon"_s << u"none"_s;
    }
    void texts()
    {
        QFETCH(QString, kind);
        QFETCH(QString, in);
        QFETCH(QString, out);
        const QString build = QString::number(SelvaroAPI::parseBuildNumber(in));
        const ServiceDeadlines deadlines = SelvaroAPI(&m_network).deadlines();
        const auto retry
            = RetryAfter::parse(in.toLatin1(), QDateTime(QDate(2026, 3, 4), QTime(10, 11, 12), Qt::UTC));
        const auto deadline = in == u"stalled"_s ? deadlines.inactivity
            : in == u"json"_s                    ? deadlines.jsonCall
                                                 : deadlines.upload(in.toLongLong());
        QCOMPARE(kind == u"build"_s     ? build
                : kind == u"os"_s       ? DeviceInfo::threePartVersion(in)
                : kind == u"deadline"_s ? QString::number(deadline.count() / 1000)
                : kind == u"retry"_s    ? (retry ? QString::number(retry->count()) : u"none"_s)
                                        : ServiceText::bounded(in),
            out);
    }

    void valuesSent()
    {
        // 11:11:12.345 in UTC+1 is 10:11:12.345Z.
        const QDateTime startedAt(QDate(2025, 3, 4), QTime(11, 11, 12, 345), Qt::OffsetFromUTC, 3600);
        const QJsonObject note { { u"startedAt"_s, u"2025-03-04T10:11:12.345Z"_s }, { u"duration"_s, 59 },
            { u"recordingKey"_s, u"k"_s }, { u"source"_s, u"recorder"_s }, { u"sourceUrl"_s, u""_s },
            { u"buildNumber"_s, QString::fromUtf8(BuildInfo::buildNumber).toLongLong() },
            { u"deviceLocale"_s, QLocale().name() }, { u"anonUser"_s, u"a1"_s } };
        QCOMPARE(SelvaroAPI::noteBody(u"a1"_s, true, startedAt, 59, u"k"_s), note);
        QCOMPARE(SelvaroAPI::noteBody(u"a1"_s, false, startedAt, 59, u"k"_s).value(u"user"_s), u"a1"_s);
        const QStringList device = DeviceInfo::current(u"V"_s).toJson().keys();
        QCOMPARE(device.join(u' '), u"appVersion brand locale model osVersion type vendorUuid"_s);
    }

    void statusMapping_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("outcome"); // the error's description, or "ok"
        QTest::addColumn<QString>("logged"); // after "GET /upload-recording-url?ext=m4a"
        const QString longCode = QString(99, u'c') + u'\u2026';
        QTest::newRow("399 is success") << 399 << target << u"ok"_s << QString();
        QTest::newRow("200 empty") << 200 << QByteArray() << u"unexpected response"_s
                                   << u": undecodable body"_s;
        QTest::newRow("400 no code") << 400 << target << u"http_400 (400)"_s << u" -> 400 http_400"_s;
        QTest::newRow("401") << 401 << json("{'error':'no'}") << u"no (401)"_s << u" -> 401 no"_s;
        QTest::newRow("404 html") << 404 << "<html>"_ba << u"http_404 (404)"_s << u" -> 404 http_404"_s;
        QTest::newRow("407") << 407 << json("{'error':'no'}") << u"no (407)"_s << u" -> 407 no"_s;
        QTest::newRow("line break") << 404 << json("{'error':'x\\nGET'}") << u"x\uFFFDGET (404)"_s
                                    << u" -> 404 x\uFFFDGET"_s;
        QTest::newRow("long code") << 409 << "{\"error\":\"" + QByteArray(5000, 'c') + "\"}"
                                   << longCode + u" (409)"_s << u" -> 409 "_s + longCode;
        QTest::newRow("over 1 MiB") << 200 << QByteArray(SelvaroAPI::maxJsonBodyBytes + 1, ' ')
                                    << u"unexpected response"_s << u": body over 1048576 bytes refused"_s;
    }
    void statusMapping()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, outcome);
        QFETCH(QString, logged);
        LogCapture log;
        // Qt reads 401 and 407 as its own errors; they are answers all the same.
        RawHttpServer server(reply(status, body, "WWW-Authenticate: Basic\r\nProxy-Authenticate: Basic\r\n"));
        QCOMPARE(await(client(server.url()).uploadTarget(u"tok"_s)).text(), outcome);
        const QString line = u"GET /upload-recording-url?ext=m4a"_s + logged;
        QCOMPARE(log.lines(u"api"_s), logged.isNull() ? QStringList() : QStringList { line });
    }

    void headers()
    {
        RawHttpServer server(reply(200, target));
        await(client(server.url()).uploadTarget(u"tok.en"_s));
        await(client(server.url()).refreshSession(u"a/b"_s, u"t"_s, DeviceInfo::current(u"V"_s)));
        await(client(server.url()).redeemPairing(u"dc"_s));
        const QByteArray get = server.requests.at(0), refresh = server.requests.at(1);
        QCOMPARE(headerOf(get, "Authorization"), "tok.en"_ba); // bare, no scheme word
        QCOMPARE(headerOf(get, "Content-Type"), "application/json"_ba); // also without a body
        QCOMPARE(headerOf(get, "User-Agent"), "selvaro-recorder/"_ba + BuildInfo::shortVersion);
        QVERIFY(refresh.startsWith("POST /sessions/a/b/refresh HTTP/1.1\r\n")); // the id verbatim
        QVERIFY(refresh.contains("\r\n\r\n{\"device\":{"));
        QCOMPARE(headerOf(server.requests.at(2), "Authorization"), "(none)"_ba);
    }

    // Below HTTP every call wraps Qt's error; whatever the server does, a call ends by
    // its deadline with the time-out sentence. A redirect to another origin ("localhost"
    // is not "127.0.0.1", though the same machine) is refused rather than followed with
    // the token: nothing listens there, so following it would end in "Connection refused".
    void transportFailures_data()
    {
        QTest::addColumn<bool>("upload");
        QTest::addColumn<Responder>("responder"); // none: nothing listens
        QTest::addColumn<QString>("outcome");
        const Responder drip = reply(200, target, {}, 200ms);
        QTest::newRow("json, a byte every 200 ms") << false << drip << u"The request timed out."_s;
        QTest::newRow("upload, a byte every 200 ms") << true << drip << u"The request timed out."_s;
        QTest::newRow("json, refused") << false << Responder() << u"Connection refused"_s;
        QTest::newRow("upload, refused") << true << Responder() << u"Connection refused"_s;
        QTest::newRow("json, redirected elsewhere")
            << false << reply(302, {}, "Location: http://localhost:1/x\r\n") << u"Insecure redirect"_s;
    }
    void transportFailures()
    {
        QFETCH(bool, upload);
        QFETCH(Responder, responder);
        QFETCH(QString, outcome);
        RawHttpServer server(responder);
        const QUrl url = responder ? server.url() : QUrl(u"http://127.0.0.1:1"_s);
        const SelvaroAPI api = client(url, { 60s, 500ms, 500ms, 1024 });
        QElapsedTimer elapsed;
        elapsed.start();
        const std::optional<ApiError> error = upload
            ? await(api.upload(file(5), { url.toString() + u"/u"_s, {} })).apiError
            : await(api.uploadTarget(u"t"_s)).apiError;
        QVERIFY(error && error->transportError());
        QCOMPARE(error->transportError()->description(), outcome);
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
        const QString refused = u"unexpected response"_s;
        QTest::newRow("http to a loopback service") << QString() << u"%1/u"_s << 200 << u"ok"_s;
        QTest::newRow("204") << QString() << u"%1/u"_s << 204 << u"upload_failed (204)"_s;
        QTest::newRow("302 not followed") << QString() << u"%1/u"_s << 302 << u"upload_failed (302)"_s;
        QTest::newRow("http from an https service")
            << u"https://127.0.0.1:1"_s << u"%1/u"_s << 200 << refused;
        QTest::newRow("http from a remote service") << u"http://example.com"_s << u"%1/u"_s << 200 << refused;
        QTest::newRow("no host") << QString() << u"https:///u"_s << 200 << refused;
        QTest::newRow("ftp") << QString() << u"ftp://127.0.0.1/u"_s << 200 << refused;
    }
    void upload()
    {
        QFETCH(QString, base);
        QFETCH(QString, url);
        QFETCH(int, status);
        QFETCH(QString, outcome);
        RawHttpServer server(reply(status, {}, "Location: /elsewhere\r\n"));
        const SelvaroAPI api = client(base.isEmpty() ? server.url() : QUrl(base));
        const UploadTarget target { url.replace(u"%1"_s, server.url().toString()), u"k"_s };
        QCOMPARE(await(api.upload(file(5), target)).text(), outcome);
        QCOMPARE(server.requests.size(), outcome == u"unexpected response"_s ? 0 : 1);
    }

    // The local note service: upload target, a streamed upload, the note.
    void aRecordingGoesOut()
    {
        DevService service;
        QVERIFY2(service.available(), "run under scripts/fixtures/with-devservice");
        const SelvaroAPI api = client(service.baseUrl());
        const QJsonObject session = service.createSession(true);
        const QString token = session[u"token"_s].toString();
        const auto target = await(api.uploadTarget(token)).value.value();

        const qint64 size = 64 * 1024 * 1024;
        const QString path = file(size);
        QFile clearPeak(u"/proc/self/clear_refs"_s);
        QVERIFY(clearPeak.open(QIODevice::WriteOnly) && clearPeak.write("5") == 1 && clearPeak.flush());
        [[maybe_unused]] const qint64 before = peakMemoryKiB();
        int ticks = 0;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&ticks] { ++ticks; });
        ticker.start(1);
        QCOMPARE(await(api.upload(path, target)).text(), u"ok"_s);
        // Streamed: the file is never held in memory (AddressSanitizer keeps freed pieces
        // resident, so only a plain build can tell), and the event loop keeps turning.
#ifndef __SANITIZE_ADDRESS__
        QVERIFY2(
            peakMemoryKiB() - before < size / 4096, qPrintable(QString::number(peakMemoryKiB() - before)));
#endif
        QVERIFY(ticks > 10);
        const QJsonObject headers = service.requests().last()[u"headers"_s].toObject();
        QCOMPARE(
            headers.keys().filter(u"content-"_s), QStringList({ u"content-length"_s, u"content-type"_s }));
        QCOMPARE(headers[u"content-type"_s], u"audio/m4a"_s);
        QVERIFY(!headers.contains(u"authorization"_s));
        QVERIFY(service.download(target.key).startsWith("head"));

        // A stalled upload holds no JSON call up: it has a connection of its own.
        service.addFault({ { u"path"_s, u"/uploads/*"_s }, { u"delayMs"_s, 3000 } });
        QCoro::Task<> stalled = api.upload(file(1000), await(api.uploadTarget(token)).value.value());
        const auto asked = std::chrono::steady_clock::now();
        QVERIFY(await(api.uploadTarget(token)).value && std::chrono::steady_clock::now() - asked < 2s);
        QCOMPARE(await(std::move(stalled)).text(), u"ok"_s);

        const auto note = await(api.createNote(token, session[u"accountId"_s].toString(), true,
            QDateTime::currentDateTimeUtc(), 59, target.key));
        QCOMPARE(service.notes().first()[u"id"_s], note.value.value().id);
    }
};

QTEST_GUILESS_MAIN(TestServiceClient)
#include "tst_service_client.moc"
