// The pre-signed PUT: what its signature covers, expiry, Content-Type, the size
// limit; and what is stored: the bytes, served back with ranges, in private files.

#include "ServiceSteps.h"

#include <QJsonArray>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>

using namespace ServiceSteps;

class TestUploads : public QObject
{
    Q_OBJECT

    DevService m_dev;

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init() { m_dev.reset(); }

    void put_data()
    {
        QTest::addColumn<QString>("edit"); // of the URL handed out: "pattern|replacement"
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("config"); // posted to /admin/config first
        QTest::addColumn<bool>("chunked");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("error");
        const auto row = [](const char *name, const char *edit, const char *type, const char *config,
                             bool chunked, int status, const char *error) {
            QTest::newRow(name) << QString::fromLatin1(edit) << QByteArray(type) << QByteArray(config)
                                << chunked << status << QString::fromLatin1(error);
        };
        // clang-format off
        row("as handed out", "", "audio/m4a", "{}", false, 200, "");
        row("at the size limit, chunked", "", "audio/m4a", R"({"maxUploadBytes":6})", true, 200, "");
        row("signature changed", "signature=\\w|signature=x", "audio/m4a", "{}", false, 403, "invalid_signature");
        row("expiry moved", "expires=\\d+|expires=99999999999", "audio/m4a", "{}", false, 403, "invalid_signature");
        row("another key", "/uploads/[^?]+|/uploads/another.m4a", "audio/m4a", "{}", false, 403, "invalid_signature");
        row("no query", "\\?.*|", "audio/m4a", "{}", false, 403, "invalid_signature");
        row("expired", "", "audio/m4a", R"({"uploadUrlTtl":-1})", false, 403, "url_expired");
        row("audio/mp4", "", "audio/mp4", "{}", false, 403, "wrong_content_type");
        row("with parameters", "", "audio/m4a; charset=binary", "{}", false, 403, "wrong_content_type");
        row("over the size limit", "", "audio/m4a", R"({"maxUploadBytes":5})", false, 413, "upload_too_large");
        row("over the size limit, chunked", "", "audio/m4a", R"({"maxUploadBytes":5})", true, 413, "upload_too_large");
        // clang-format on
    }
    void put()
    {
        QFETCH(QString, edit);
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, config);
        QFETCH(bool, chunked);
        QFETCH(int, status);
        QFETCH(QString, error);
        m_dev.setConfig(QJsonDocument::fromJson(config).object());
        QString url = uploadTarget(m_dev, newAccount(m_dev, false)).value(QLatin1String("url")).toString();
        url.replace(
            QRegularExpression(edit.section(QLatin1Char('|'), 0, 0)), edit.section(QLatin1Char('|'), 1));
        const std::string path = QUrl(url).toString(QUrl::RemoveScheme | QUrl::RemoveAuthority).toStdString();
        const std::string body = "bytes!";
        const auto oneByteAtATime = [&body](size_t offset, httplib::DataSink &sink) {
            return offset < body.size() ? sink.write(body.data() + offset, 1) : (sink.done(), true);
        };
        const auto result = chunked ? rawClient(m_dev)->Put(path, oneByteAtATime, contentType.toStdString())
                                    : rawClient(m_dev)->Put(path, body, contentType.toStdString());
        QVERIFY(result);
        QCOMPARE(result->status, status);
        QCOMPARE(errorOf(QByteArray::fromStdString(result->body)), error);
        QCOMPARE(m_dev.uploads().size(), status == 200 ? 1 : 0);
    }

    void storedPrivatelyAndServedBack()
    {
        // Larger than the writer's buffer, so the streamed path runs end to end.
        QByteArray bytes(9 * 1024 * 1024 + 17, Qt::Uninitialized);
        QRandomGenerator(7).fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
        const QString key = upload(m_dev, newAccount(m_dev, false), bytes);
        QVERIFY(m_dev.download(key) == bytes);
        // A browser's <audio> element seeks with Range requests.
        const auto range = rawClient(m_dev)->Get("/files/" + key.toStdString(),
            { { "Range", "bytes=1000-1999" }, { "X-Admin-Token", m_dev.adminToken().toStdString() } });
        QVERIFY(range);
        QCOMPARE(range->status, 206);
        QVERIFY(QByteArray::fromStdString(range->body) == bytes.mid(1000, 1000));
        const QString data = qEnvironmentVariable("SELVARO_TEST_SERVICE_DATA") + QLatin1Char('/');
        for (const QString &file :
            { QStringLiteral("uploads/") + key, QStringLiteral("state.json"), QStringLiteral("admin-token") })
            QVERIFY2(ownerOnly(data + file), qPrintable(file));
    }
};

QTEST_GUILESS_MAIN(TestUploads)
#include "tst_devservice_uploads.moc"
