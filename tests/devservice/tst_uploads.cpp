// Upload targets and the pre-signed PUT: signature, expiry, Content-Type, streaming.

#include "ServiceClient.h"

#include <QJsonArray>
#include <QRandomGenerator>
#include <QTest>
#include <QUrlQuery>

class TestUploads : public QObject
{
    Q_OBJECT

private:
    DevService m_dev;
    ServiceClient m_client{m_dev};

    static QByteArray randomBytes(qsizetype size)
    {
        QByteArray bytes(size, Qt::Uninitialized);
        QRandomGenerator generator(size);
        for (char &byte : bytes)
            byte = static_cast<char>(generator.bounded(256));
        return bytes;
    }

    // The target's URL with one query item replaced.
    static QString withQueryItem(const QString &url, const QString &name, const QString &value)
    {
        QUrl changed(url);
        QUrlQuery query(changed);
        query.removeAllQueryItems(name);
        query.addQueryItem(name, value);
        changed.setQuery(query);
        return changed.toString();
    }

    void expectForbidden(const DevService::Reply &reply, const QString &error)
    {
        QCOMPARE(reply.status, 403);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), error);
    }

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init() { m_dev.reset(); }

    void targetIsAPresignedUrlOnThisService()
    {
        const auto account = m_client.newAccount(false);
        const QJsonObject target = m_client.uploadTarget(account);
        const QString key = target.value(QLatin1String("key")).toString();
        const QUrl url(target.value(QLatin1String("url")).toString());
        QVERIFY(!key.isEmpty());
        QVERIFY(key.endsWith(QLatin1String(".m4a")));
        QCOMPARE(url.scheme(), m_dev.baseUrl().scheme());
        QCOMPARE(url.host(), m_dev.baseUrl().host());
        QCOMPARE(url.port(), m_dev.baseUrl().port());
        QVERIFY(url.path().endsWith(key));
        const QUrlQuery query(url);
        QVERIFY(query.hasQueryItem(QStringLiteral("expires")));
        QVERIFY(query.hasQueryItem(QStringLiteral("signature")));
        QVERIFY(m_client.uploadTarget(account).value(QLatin1String("key")).toString() != key);
    }

    void targetNeedsATokenAndAnExtension()
    {
        const auto account = m_client.newAccount(true);
        struct Case {
            QString path;
            QByteArray token;
            int status;
            QString error;
        };
        const Case cases[] = {
            {QStringLiteral("/upload-recording-url?ext=m4a"), QByteArray(), 401, QStringLiteral("missing_token")},
            {QStringLiteral("/upload-recording-url?ext=m4a"), QByteArray("not.a.token"), 401, QStringLiteral("invalid_token")},
            {QStringLiteral("/upload-recording-url"), account.token, 400, QStringLiteral("missing_ext")},
            {QStringLiteral("/upload-recording-url?ext=../x"), account.token, 400, QStringLiteral("invalid_ext")},
        };
        for (const Case &c : cases) {
            const auto reply = m_client.get(c.path, c.token);
            QCOMPARE(reply.status, c.status);
            QCOMPARE(reply.json().value(QLatin1String("error")).toString(), c.error);
        }
    }

    void putStoresTheBytes()
    {
        const auto account = m_client.newAccount(false);
        const QJsonObject target = m_client.uploadTarget(account);
        const QString key = target.value(QLatin1String("key")).toString();
        // Larger than the writer's buffer, so the streamed path is exercised end to end.
        const QByteArray bytes = randomBytes(9 * 1024 * 1024 + 17);
        const auto reply = m_client.put(target.value(QLatin1String("url")).toString(), bytes);
        QCOMPARE(reply.status, 200);

        const QJsonArray uploads = m_dev.uploads();
        QCOMPARE(uploads.size(), 1);
        QCOMPARE(uploads.first().toObject().value(QLatin1String("key")).toString(), key);
        QCOMPARE(uploads.first().toObject().value(QLatin1String("size")).toInteger(), bytes.size());
        QCOMPARE(uploads.first().toObject().value(QLatin1String("contentType")).toString(), QStringLiteral("audio/m4a"));
        QVERIFY(m_dev.download(key) == bytes);

        // The request log counts the body that arrived.
        const QJsonArray requests = m_dev.requests();
        const auto put = std::find_if(requests.begin(), requests.end(), [](const QJsonValue &request) {
            return request.toObject().value(QLatin1String("method")).toString() == QLatin1String("PUT");
        });
        QVERIFY(put != requests.end());
        const QJsonObject logged = put->toObject();
        QCOMPARE(logged.value(QLatin1String("method")).toString(), QStringLiteral("PUT"));
        QCOMPARE(logged.value(QLatin1String("bodySize")).toInteger(), bytes.size());
        QCOMPARE(logged.value(QLatin1String("headers")).toObject().value(QLatin1String("content-type")).toString(),
                 QStringLiteral("audio/m4a"));
    }

    void filesServeRanges()
    {
        const auto account = m_client.newAccount(false);
        const QByteArray bytes = randomBytes(100000);
        const QString key = m_client.upload(account, bytes);
        QVERIFY(!key.isEmpty());
        // A browser's <audio> element seeks with Range requests.
        const auto result = m_client.raw()->Get("/files/" + key.toStdString(), {{"Range", "bytes=1000-1999"}});
        QVERIFY(result);
        QCOMPARE(result->status, 206);
        QCOMPARE(QByteArray::fromStdString(result->body), bytes.mid(1000, 1000));
        QCOMPARE(m_client.get(QStringLiteral("/files/unknown.m4a")).status, 404);
    }

    void putRefusesWhatTheSignatureDoesNotCover()
    {
        const auto account = m_client.newAccount(false);
        const QJsonObject target = m_client.uploadTarget(account);
        const QString url = target.value(QLatin1String("url")).toString();
        const QString key = target.value(QLatin1String("key")).toString();
        const QString expires = QUrlQuery(QUrl(url)).queryItemValue(QStringLiteral("expires"));
        const QString signature = QUrlQuery(QUrl(url)).queryItemValue(QStringLiteral("signature"));
        const QByteArray bytes("not really audio");

        QString flipped = signature;
        flipped[0] = flipped[0] == QLatin1Char('0') ? QLatin1Char('1') : QLatin1Char('0');
        expectForbidden(m_client.put(withQueryItem(url, QStringLiteral("signature"), flipped), bytes),
                        QStringLiteral("invalid_signature"));
        // Moving the expiry breaks the signature too.
        expectForbidden(m_client.put(withQueryItem(url, QStringLiteral("expires"), QString::number(expires.toLongLong() + 3600)), bytes),
                        QStringLiteral("invalid_signature"));
        // The signature of one key opens no other.
        QString otherUrl = url;
        otherUrl.replace(key, QStringLiteral("another.m4a"));
        expectForbidden(m_client.put(otherUrl, bytes), QStringLiteral("invalid_signature"));
        expectForbidden(m_client.put(QUrl(url).adjusted(QUrl::RemoveQuery).toString(), bytes), QStringLiteral("invalid_signature"));
        QCOMPARE(m_dev.uploads().size(), 0);
    }

    void putRefusesAnExpiredUrl()
    {
        // A negative lifetime hands out URLs that are already past their expiry.
        m_dev.setConfig({{QStringLiteral("uploadUrlTtl"), -1}});
        const auto account = m_client.newAccount(false);
        const QJsonObject target = m_client.uploadTarget(account);
        expectForbidden(m_client.put(target.value(QLatin1String("url")).toString(), "late"), QStringLiteral("url_expired"));
        QCOMPARE(m_dev.uploads().size(), 0);
    }

    void putWantsAudioM4a_data()
    {
        QTest::addColumn<QByteArray>("contentType");
        QTest::newRow("json") << QByteArray("application/json");
        QTest::newRow("audio/mp4") << QByteArray("audio/mp4");
        QTest::newRow("octet-stream") << QByteArray("application/octet-stream");
        QTest::newRow("with parameters") << QByteArray("audio/m4a; charset=binary");
    }
    void putWantsAudioM4a()
    {
        QFETCH(QByteArray, contentType);
        const auto account = m_client.newAccount(false);
        const QJsonObject target = m_client.uploadTarget(account);
        expectForbidden(m_client.put(target.value(QLatin1String("url")).toString(), "bytes", contentType),
                        QStringLiteral("wrong_content_type"));
        QCOMPARE(m_dev.uploads().size(), 0);
    }

    void putWithoutContentTypeIsRefused()
    {
        const auto account = m_client.newAccount(false);
        const QString url = m_client.uploadTarget(account).value(QLatin1String("url")).toString();
        const auto result = m_client.raw()->Put(ServiceClient::pathOf(url).toStdString(), "bytes", 5, "");
        QVERIFY(result);
        QCOMPARE(result->status, 403);
    }

    void aConnectionStaysUsableAfterARefusedPut()
    {
        // The refused body is read to its end, so the next request on the same
        // keep-alive connection is parsed from a clean start.
        const auto account = m_client.newAccount(false);
        const QString url = m_client.uploadTarget(account).value(QLatin1String("url")).toString();
        auto client = m_client.raw();
        client->set_keep_alive(true);
        const std::string body(300000, 'x');
        auto refused = client->Put(ServiceClient::pathOf(url).toStdString(), body, "audio/mp4");
        QVERIFY(refused);
        QCOMPARE(refused->status, 403);
        auto accepted = client->Put(ServiceClient::pathOf(url).toStdString(), body, "audio/m4a");
        QVERIFY(accepted);
        QCOMPARE(accepted->status, 200);
    }
};

QTEST_GUILESS_MAIN(TestUploads)
#include "tst_uploads.moc"
