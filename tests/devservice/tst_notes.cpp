// Note creation: the body the recorder sends, and every way a body can be wrong.

#include "ServiceClient.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using Edit = std::function<void(QJsonObject &body)>;
Q_DECLARE_METATYPE(Edit)

namespace {
const QString notesPath = QStringLiteral("/api/collections/notes/records");

Edit set(const QString &member, const QJsonValue &value)
{
    return [member, value](QJsonObject &body) { body.insert(member, value); };
}

Edit remove(const QString &member)
{
    return [member](QJsonObject &body) { body.remove(member); };
}
} // namespace

class TestNotes : public QObject
{
    Q_OBJECT

private:
    DevService m_dev;
    ServiceClient m_client{m_dev};

    QString errorOf(const DevService::Reply &reply) { return reply.json().value(QLatin1String("error")).toString(); }

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init() { m_dev.reset(); }

    void aValidNoteIsStoredAsReceived_data()
    {
        QTest::addColumn<bool>("anonymous");
        QTest::addColumn<QString>("startedAt");
        QTest::newRow("signed in") << false << QStringLiteral("2025-03-04T10:11:12.345Z");
        QTest::newRow("anonymous") << true << QStringLiteral("2025-03-04T10:11:12.345Z");
        QTest::newRow("one fraction digit") << false << QStringLiteral("2025-12-31T23:59:59.5Z");
        QTest::newRow("nanoseconds") << true << QStringLiteral("2024-02-29T00:00:00.123456789Z");
    }
    void aValidNoteIsStoredAsReceived()
    {
        QFETCH(bool, anonymous);
        QFETCH(QString, startedAt);
        const auto account = m_client.newAccount(anonymous);
        const QString key = m_client.upload(account, "audio bytes");
        QJsonObject body = ServiceClient::noteBody(account, key);
        body.insert(QStringLiteral("startedAt"), startedAt);
        const auto reply = m_client.post(notesPath, body, account.token);
        QCOMPARE(reply.status, 200);
        const QString id = reply.json().value(QLatin1String("id")).toString();
        QVERIFY(!id.isEmpty());

        const QJsonObject note = m_dev.notes().first().toObject();
        QCOMPARE(note.value(QLatin1String("id")).toString(), id);
        QCOMPARE(note.value(QLatin1String("body")).toObject(), body);
        QCOMPARE(note.value(QLatin1String("recordingKey")).toString(), key);
        QCOMPARE(note.value(QLatin1String("recordingSize")).toInt(), 11);
        QCOMPARE(ServiceClient::pathOf(note.value(QLatin1String("recordingUrl")).toString()), QStringLiteral("/files/") + key);
    }

    void notesComeNewestFirst()
    {
        const auto account = m_client.newAccount(false);
        QStringList ids;
        for (int i = 0; i < 3; ++i) {
            const QString key = m_client.upload(account, QByteArray(10 + i, 'a'));
            ids.prepend(m_client.post(notesPath, ServiceClient::noteBody(account, key), account.token).json().value(QLatin1String("id")).toString());
        }
        QStringList listed;
        for (const QJsonValue &note : m_dev.notes())
            listed.append(note.toObject().value(QLatin1String("id")).toString());
        QCOMPARE(listed, ids);
    }

    void invalidBodies_data()
    {
        QTest::addColumn<bool>("anonymous");
        QTest::addColumn<Edit>("edit");
        QTest::addColumn<QString>("error");
        const QStringList members{QStringLiteral("startedAt"), QStringLiteral("duration"), QStringLiteral("recordingKey"),
                                  QStringLiteral("source"),    QStringLiteral("sourceUrl"), QStringLiteral("buildNumber"),
                                  QStringLiteral("deviceLocale")};
        for (const QString &member : members)
            QTest::addRow("no %s", qPrintable(member)) << false << remove(member) << QStringLiteral("missing_") + member;
        QTest::newRow("no user") << false << remove(QStringLiteral("user")) << QStringLiteral("missing_user");
        QTest::newRow("no anonUser") << true << remove(QStringLiteral("anonUser")) << QStringLiteral("missing_anonUser");

        // JSON types
        QTest::newRow("startedAt a number") << false << set(QStringLiteral("startedAt"), 1741083072) << QStringLiteral("invalid_startedAt");
        QTest::newRow("duration a string") << false << set(QStringLiteral("duration"), QStringLiteral("42")) << QStringLiteral("invalid_duration");
        QTest::newRow("duration fractional") << false << set(QStringLiteral("duration"), 4.5) << QStringLiteral("invalid_duration");
        QTest::newRow("duration negative") << false << set(QStringLiteral("duration"), -1) << QStringLiteral("invalid_duration");
        QTest::newRow("recordingKey null") << false << set(QStringLiteral("recordingKey"), QJsonValue::Null) << QStringLiteral("invalid_recordingKey");
        QTest::newRow("sourceUrl null") << false << set(QStringLiteral("sourceUrl"), QJsonValue::Null) << QStringLiteral("invalid_sourceUrl");
        QTest::newRow("buildNumber a string") << false << set(QStringLiteral("buildNumber"), QStringLiteral("7")) << QStringLiteral("invalid_buildNumber");
        QTest::newRow("deviceLocale an array") << false << set(QStringLiteral("deviceLocale"), QJsonArray{}) << QStringLiteral("invalid_deviceLocale");
        QTest::newRow("user a number") << false << set(QStringLiteral("user"), 5) << QStringLiteral("invalid_user");

        // startedAt: internet date-time, UTC, fractional seconds, Z.
        const QStringList badTimes{QStringLiteral("2025-03-04T10:11:12Z"),         QStringLiteral("2025-03-04T10:11:12.345"),
                                   QStringLiteral("2025-03-04T10:11:12.345+00:00"), QStringLiteral("2025-03-04 10:11:12.345Z"),
                                   QStringLiteral("2025-13-04T10:11:12.345Z"),      QStringLiteral("2025-02-30T10:11:12.345Z"),
                                   QStringLiteral("2025-03-04T25:11:12.345Z"),      QStringLiteral(""),
                                   QStringLiteral("yesterday")};
        for (const QString &time : badTimes)
            QTest::addRow("startedAt \"%s\"", qPrintable(time)) << false << set(QStringLiteral("startedAt"), time) << QStringLiteral("invalid_startedAt");

        QTest::newRow("source phone") << false << set(QStringLiteral("source"), QStringLiteral("phone")) << QStringLiteral("invalid_source");
        QTest::newRow("user of someone else") << false << set(QStringLiteral("user"), QStringLiteral("someoneelse1234")) << QStringLiteral("user_mismatch");
        QTest::newRow("anonUser of someone else") << true << set(QStringLiteral("anonUser"), QStringLiteral("someoneelse1234")) << QStringLiteral("user_mismatch");
        QTest::newRow("signed in sends anonUser") << false
                                                  << Edit([](QJsonObject &body) { body.insert(QStringLiteral("anonUser"), body.take(QStringLiteral("user"))); })
                                                  << QStringLiteral("wrong_user_member");
        QTest::newRow("anonymous sends user") << true
                                              << Edit([](QJsonObject &body) { body.insert(QStringLiteral("user"), body.take(QStringLiteral("anonUser"))); })
                                              << QStringLiteral("wrong_user_member");
        QTest::newRow("both user members") << false << set(QStringLiteral("anonUser"), QStringLiteral("x")) << QStringLiteral("wrong_user_member");
        QTest::newRow("a ninth member") << false << set(QStringLiteral("title"), QStringLiteral("Standup")) << QStringLiteral("unexpected_title");
        QTest::newRow("key never issued") << false << set(QStringLiteral("recordingKey"), QStringLiteral("made-up.m4a")) << QStringLiteral("unknown_recording");
        QTest::newRow("empty key") << false << set(QStringLiteral("recordingKey"), QString()) << QStringLiteral("unknown_recording");
    }
    void invalidBodies()
    {
        QFETCH(bool, anonymous);
        QFETCH(Edit, edit);
        QFETCH(QString, error);
        const auto account = m_client.newAccount(anonymous);
        QJsonObject body = ServiceClient::noteBody(account, m_client.upload(account, "audio"));
        edit(body);
        const auto reply = m_client.post(notesPath, body, account.token);
        QCOMPARE(reply.status, 400);
        QCOMPARE(errorOf(reply), error);
        QCOMPARE(m_dev.notes().size(), 0);
    }

    void theRecordingMustBeThisAccountsAndUploaded()
    {
        const auto account = m_client.newAccount(false);
        const auto other = m_client.newAccount(false);
        // Issued but never PUT.
        const QString pending = m_client.uploadTarget(account).value(QLatin1String("key")).toString();
        auto reply = m_client.post(notesPath, ServiceClient::noteBody(account, pending), account.token);
        QCOMPARE(errorOf(reply), QStringLiteral("unknown_recording"));
        // Uploaded by another account.
        const QString theirs = m_client.upload(other, "their audio");
        reply = m_client.post(notesPath, ServiceClient::noteBody(account, theirs), account.token);
        QCOMPARE(errorOf(reply), QStringLiteral("unknown_recording"));
        QCOMPARE(m_client.post(notesPath, ServiceClient::noteBody(other, theirs), other.token).status, 200);
    }

    void tokenRequired()
    {
        const auto account = m_client.newAccount(false);
        const QJsonObject body = ServiceClient::noteBody(account, m_client.upload(account, "audio"));
        auto reply = m_client.post(notesPath, body);
        QCOMPARE(reply.status, 401);
        QCOMPARE(errorOf(reply), QStringLiteral("missing_token"));
        reply = m_client.post(notesPath, body, "eyJhbGciOiJub25lIn0.eyJpZCI6IngifQ.");
        QCOMPARE(reply.status, 401);
        QCOMPARE(errorOf(reply), QStringLiteral("invalid_token"));
    }

    void badInputGetsA4xx()
    {
        const auto account = m_client.newAccount(false);
        const QList<QPair<QByteArray, QByteArray>> auth{{"Authorization", account.token}};
        auto reply = m_dev.send("POST", notesPath, "{\"startedAt\": ", auth);
        QCOMPARE(reply.status, 400);
        QCOMPARE(errorOf(reply), QStringLiteral("invalid_json"));
        reply = m_dev.send("POST", notesPath, "\"just a string\"", auth);
        QCOMPARE(errorOf(reply), QStringLiteral("invalid_json"));
        reply = m_dev.send("POST", notesPath, QByteArray("\xff\xfe{}", 4), auth);
        QCOMPARE(reply.status, 400);

        m_dev.setConfig({{QStringLiteral("maxBodyBytes"), 1000}});
        QJsonObject big = ServiceClient::noteBody(account, m_client.upload(account, "audio"));
        big.insert(QStringLiteral("sourceUrl"), QString(2000, QLatin1Char('x')));
        reply = m_client.post(notesPath, big, account.token);
        QCOMPARE(reply.status, 413);
        QCOMPARE(errorOf(reply), QStringLiteral("body_too_large"));
        // The limit is on bytes, not on meaning: a body just under it is judged normally.
        big.insert(QStringLiteral("sourceUrl"), QString());
        QCOMPARE(m_client.post(notesPath, big, account.token).status, 200);
    }
};

QTEST_GUILESS_MAIN(TestNotes)
#include "tst_notes.moc"
