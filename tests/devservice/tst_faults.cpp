// Fault injection, the request log, and the service's resilience to bad input and load.

#include "ServiceClient.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpSocket>
#include <QTest>

#include <atomic>
#include <thread>

namespace {
const QJsonObject someDevice{{QStringLiteral("vendorUuid"), QStringLiteral("V")}, {QStringLiteral("appVersion"), QStringLiteral("1")},
                             {QStringLiteral("osVersion"), QStringLiteral("6.1.0")}, {QStringLiteral("type"), QStringLiteral("linux")},
                             {QStringLiteral("brand"), QStringLiteral("b")},        {QStringLiteral("model"), QStringLiteral("m")},
                             {QStringLiteral("locale"), QStringLiteral("en_US")}};
}

class TestFaults : public QObject
{
    Q_OBJECT

private:
    DevService m_dev;
    ServiceClient m_client{m_dev};

    DevService::Reply pair() { return m_client.post(QStringLiteral("/pair"), {{QStringLiteral("device"), someDevice}}); }

    // Sends raw bytes on a fresh connection and returns whatever comes back before
    // the service closes it or falls silent for a moment.
    QByteArray rawExchange(const QByteArray &bytes)
    {
        QTcpSocket socket;
        socket.connectToHost(m_dev.baseUrl().host(), static_cast<quint16>(m_dev.baseUrl().port()));
        if (!socket.waitForConnected(2000))
            return "no connection";
        socket.write(bytes);
        socket.waitForBytesWritten(1000);
        QByteArray answer;
        while (socket.waitForReadyRead(300))
            answer += socket.readAll();
        return answer;
    }

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init() { m_dev.reset(); }

    void aStatusFaultAnswersCountTimesThenStops()
    {
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair")},
                        {QStringLiteral("count"), 2},
                        {QStringLiteral("status"), 503},
                        {QStringLiteral("body"), QStringLiteral(R"({"error":"maintenance"})")},
                        {QStringLiteral("headers"), QJsonObject{{QStringLiteral("Retry-After"), QStringLiteral("7")}}}});
        for (int i = 0; i < 2; ++i) {
            const auto reply = pair();
            QCOMPARE(reply.status, 503);
            QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("maintenance"));
        }
        auto raw = m_client.raw();
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair")}, {QStringLiteral("status"), 502},
                        {QStringLiteral("body"), QStringLiteral("<html>bad gateway</html>")},
                        {QStringLiteral("headers"), QJsonObject{{QStringLiteral("Retry-After"), QStringLiteral("7")}}}});
        const auto html = raw->Post("/pair", "{}", "application/json");
        QVERIFY(html);
        QCOMPARE(html->status, 502);
        QCOMPARE(html->body, std::string("<html>bad gateway</html>"));
        QCOMPARE(html->get_header_value("Retry-After"), std::string("7"));
        QCOMPARE(html->get_header_value("Content-Type"), std::string("text/plain"));
        QCOMPARE(pair().status, 200);
        // Faulted requests are logged like any other.
        QCOMPARE(m_dev.requests().size(), 4);
    }

    void faultsMatchMethodAndPathPrefix()
    {
        const auto account = m_client.newAccount(false);
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/sessions/*")}, {QStringLiteral("method"), QStringLiteral("post")},
                        {QStringLiteral("status"), 500}});
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/upload-recording-url")}, {QStringLiteral("method"), QStringLiteral("POST")},
                        {QStringLiteral("status"), 418}});
        // The query is not part of the path; the method does not match.
        QCOMPARE(m_client.get(QStringLiteral("/upload-recording-url?ext=m4a"), account.token).status, 200);
        QCOMPARE(pair().status, 200);
        const auto refreshed = m_client.post(QStringLiteral("/sessions/%1/refresh").arg(account.sessionId),
                                             {{QStringLiteral("device"), someDevice}}, account.token);
        QCOMPARE(refreshed.status, 500);
        QCOMPARE(refreshed.json().value(QLatin1String("error")).toString(), QString());
    }

    void aDelayWaitsThenHandlesNormally()
    {
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair")}, {QStringLiteral("delayMs"), 300}});
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(pair().status, 200);
        QVERIFY2(timer.elapsed() >= 290, qPrintable(QString::number(timer.elapsed())));
        timer.restart();
        QCOMPARE(pair().status, 200);
        QVERIFY(timer.elapsed() < 290);
        QCOMPARE(m_dev.pairings().size(), 2);
    }

    void aDelayedRequestDoesNotHoldUpOthers()
    {
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/slow")}, {QStringLiteral("delayMs"), 800}, {QStringLiteral("status"), 204}});
        std::thread slow([client = m_client.raw()] { client->Get("/slow"); });
        QTest::qWait(100);
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(pair().status, 200);
        QVERIFY(timer.elapsed() < 500);
        slow.join();
    }

    void aDropClosesTheConnectionWithoutAnswer()
    {
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair")}, {QStringLiteral("drop"), true}});
        const auto result = m_client.raw()->Post("/pair", R"({"device":{}})", "application/json");
        QVERIFY(!result);
        QCOMPARE(m_dev.pairings().size(), 0);
        QCOMPARE(pair().status, 200);
    }

    void aDropReachesAQtClient()
    {
        // What the recorder sees. Qt re-sends a request once when its connection
        // closes before any answer, so each failure a Qt client should see takes two drops.
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair/token")}, {QStringLiteral("drop"), true}, {QStringLiteral("count"), 2}});
        const auto reply = m_client.post(QStringLiteral("/pair/token"), {{QStringLiteral("deviceCode"), QStringLiteral("x")}});
        QCOMPARE(reply.status, 0);
        QVERIFY(reply.body.isEmpty());
        QCOMPARE(m_dev.requests().size(), 2);
        QCOMPARE(m_client.post(QStringLiteral("/pair/token"), {{QStringLiteral("deviceCode"), QStringLiteral("x")}}).status, 404);
    }

    void aDelayedDropOnAnUpload()
    {
        const auto account = m_client.newAccount(false);
        const QString url = m_client.uploadTarget(account).value(QLatin1String("url")).toString();
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/uploads/*")}, {QStringLiteral("delayMs"), 50},
                        {QStringLiteral("drop"), true}, {QStringLiteral("count"), 2}});
        QCOMPARE(m_client.put(url, QByteArray(2 * 1024 * 1024, 'a')).status, 0);
        QCOMPARE(m_dev.uploads().size(), 0);
        QCOMPARE(m_client.put(url, QByteArray(1024, 'a')).status, 200);
    }

    void resetForgetsFaults()
    {
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/pair")}, {QStringLiteral("status"), 500}, {QStringLiteral("count"), 5}});
        m_dev.reset();
        QCOMPARE(pair().status, 200);
    }

    void badFaultsAreRefused_data()
    {
        QTest::addColumn<QByteArray>("spec");
        QTest::addColumn<QString>("error");
        QTest::newRow("no path") << QByteArray(R"({"status":500})") << QStringLiteral("missing_path");
        QTest::newRow("relative path") << QByteArray(R"({"path":"pair"})") << QStringLiteral("invalid_path");
        QTest::newRow("status out of range") << QByteArray(R"({"path":"/x","status":99})") << QStringLiteral("invalid_status");
        QTest::newRow("count zero") << QByteArray(R"({"path":"/x","count":0})") << QStringLiteral("invalid_count");
        QTest::newRow("delay a string") << QByteArray(R"({"path":"/x","delayMs":"1s"})") << QStringLiteral("invalid_delayMs");
        QTest::newRow("drop a number") << QByteArray(R"({"path":"/x","drop":1})") << QStringLiteral("invalid_drop");
        QTest::newRow("headers a list") << QByteArray(R"({"path":"/x","headers":["a"]})") << QStringLiteral("invalid_headers");
        QTest::newRow("not JSON") << QByteArray("path=/x") << QStringLiteral("invalid_json");
    }
    void badFaultsAreRefused()
    {
        QFETCH(QByteArray, spec);
        QFETCH(QString, error);
        const auto reply = m_dev.send("POST", QStringLiteral("/admin/faults"), spec);
        QCOMPARE(reply.status, 400);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), error);
    }

    void theRequestLogShowsWhatClientsSent()
    {
        const auto account = m_client.newAccount(true);
        m_client.get(QStringLiteral("/upload-recording-url?ext=m4a"), account.token);
        pair();
        QCOMPARE(m_dev.pairings().size(), 1); // admin calls stay out of the log
        const QJsonArray requests = m_dev.requests();
        QCOMPARE(requests.size(), 2);
        const QJsonObject get = requests.at(0).toObject();
        QCOMPARE(get.value(QLatin1String("method")).toString(), QStringLiteral("GET"));
        QCOMPARE(get.value(QLatin1String("path")).toString(), QStringLiteral("/upload-recording-url"));
        QCOMPARE(get.value(QLatin1String("query")).toString(), QStringLiteral("ext=m4a"));
        const QJsonObject headers = get.value(QLatin1String("headers")).toObject();
        QCOMPARE(headers.value(QLatin1String("authorization")).toString().toLatin1(), account.token);
        QCOMPARE(headers.value(QLatin1String("content-type")).toString(), QStringLiteral("application/json"));
        QVERIFY(!headers.contains(QLatin1String("remote_addr")));
        QCOMPARE(get.value(QLatin1String("bodySize")).toInt(), 0);
        const QJsonObject post = requests.at(1).toObject();
        QCOMPARE(post.value(QLatin1String("method")).toString(), QStringLiteral("POST"));
        QCOMPARE(post.value(QLatin1String("bodySize")).toInt(),
                 QJsonDocument(QJsonObject{{QStringLiteral("device"), someDevice}}).toJson(QJsonDocument::Compact).size());
    }

    void unknownPathsAnswer404AsJson()
    {
        auto reply = m_client.get(QStringLiteral("/nowhere"));
        QCOMPARE(reply.status, 404);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("not_found"));
        reply = m_client.post(QStringLiteral("/sessions/a/b/refresh"), {});
        QCOMPARE(reply.status, 404);
        // A path the service does not serve can still be scripted.
        m_dev.addFault({{QStringLiteral("path"), QStringLiteral("/nowhere")}, {QStringLiteral("status"), 200}, {QStringLiteral("body"), QStringLiteral("{}")}});
        QCOMPARE(m_client.get(QStringLiteral("/nowhere")).status, 200);
    }

    void garbageOnTheWireNeverBringsItDown()
    {
        const QByteArray inputs[] = {
            "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03 TLS hello to a plain port\r\n\r\n",
            "GARBAGE\r\n\r\n",
            "POST /pair HTTP/1.1\r\nHost: x\r\nContent-Length: -5\r\n\r\n{}",
            "POST /pair HTTP/1.1\r\nHost: x\r\nContent-Length: 99999999999999999999\r\n\r\n{}",
            "POST /pair HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n0\r\n\r\n",
            "POST /pair HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n{",
            "GET /" + QByteArray(20000, 'a') + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n",
            "GET / HTTP/1.1\r\nConnection: close\r\n" + QByteArray(10000, 'h') + ": v\r\n\r\n",
            "PUT /uploads/..%2f..%2fetc%2fpasswd?expires=1&signature=00 HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
            "Content-Length: 0\r\n\r\n",
        };
        for (const QByteArray &input : inputs) {
            const QByteArray answer = rawExchange(input);
            QVERIFY2(answer != "no connection", input.left(60).constData());
            if (!answer.isEmpty())
                QVERIFY2(answer.startsWith("HTTP/1.1 4") || answer.startsWith("HTTP/1.1 5"), answer.left(80).constData());
        }
        QCOMPARE(pair().status, 200);
    }

    void manyClientsAtOnce()
    {
        constexpr int threads = 8;
        constexpr int perThread = 25;
        std::atomic<int> ok{0};
        std::vector<std::thread> workers;
        const std::string body = QJsonDocument(QJsonObject{{QStringLiteral("device"), someDevice}}).toJson().toStdString();
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&ok, &body, client = m_client.raw()] {
                for (int i = 0; i < perThread; ++i) {
                    const auto result = client->Post("/pair", body, "application/json");
                    if (result && result->status == 200)
                        ++ok;
                }
            });
        }
        for (auto &worker : workers)
            worker.join();
        QCOMPARE(ok.load(), threads * perThread);
        QCOMPARE(m_dev.pairings().size(), threads * perThread);
        QCOMPARE(m_dev.requests().size(), threads * perThread);
    }
};

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
