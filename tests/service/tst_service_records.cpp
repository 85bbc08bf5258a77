// The pure parts of the service client: wire records, error texts, bounded service
// text, the note body, the build-number parse and the device description.
#include "service/ApiErrorBody.h"
#include "service/NoteRecord.h"
#include "service/PairingStart.h"
#include "service/SelvaroAPI.h"
#include "service/ServiceText.h"

#include "BuildInfo.h"

#include <QJsonDocument>
#include <QLocale>
#include <QtTest/QTest>

class TestServiceRecords : public QObject
{
    Q_OBJECT

private slots:
    // Every listed member is required with its JSON type; unknown members are ignored.
    void decoding_data()
    {
        QTest::addColumn<QString>("record");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("decodes");
        const QString pairing = QStringLiteral("PairingStart"), session = QStringLiteral("SessionPayload");
        QTest::newRow("start") << pairing << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':5,'x':[1]}") << true;
        QTest::newRow("start 5.0") << pairing << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':5.0}") << true;
        QTest::newRow("start no interval") << pairing << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600}") << false;
        QTest::newRow("start '5'") << pairing << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':'5'}") << false;
        QTest::newRow("start 5.5") << pairing << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':5.5}") << false;
        QTest::newRow("start 1e12") << pairing << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':1e12}") << false;
        QTest::newRow("session") << session << QByteArray("{'id':'s','profileId':'p','token':'t','isAnonymous':true}") << true;
        QTest::newRow("session 1") << session << QByteArray("{'id':'s','profileId':'p','token':'t','isAnonymous':1}") << false;
        QTest::newRow("session no token") << session << QByteArray("{'id':'s','profileId':'p','isAnonymous':false}") << false;
        QTest::newRow("target") << QStringLiteral("UploadTarget") << QByteArray("{'url':'https://x/y','key':'k'}") << true;
        QTest::newRow("target no key") << QStringLiteral("UploadTarget") << QByteArray("{'url':'https://x/y'}") << false;
        QTest::newRow("note") << QStringLiteral("NoteRecord") << QByteArray("{'id':'n1','other':2}") << true;
        QTest::newRow("note 5") << QStringLiteral("NoteRecord") << QByteArray("{'id':5}") << false;
        QTest::newRow("error") << QStringLiteral("ApiErrorBody") << QByteArray("{'error':'code_expired'}") << true;
        QTest::newRow("error nested") << QStringLiteral("ApiErrorBody") << QByteArray("{'error':{'code':'x'}}") << false;
    }
    void decoding()
    {
        QFETCH(QString, record);
        QFETCH(QByteArray, json);
        QFETCH(bool, decodes);
        const QJsonObject object = QJsonDocument::fromJson(json.replace('\'', '"')).object();
        const auto roundTrips = [&](auto decoded) { return decoded && decltype(decoded)::value_type::fromJson(decoded->toJson()) == decoded; };
        const QHash<QString, std::function<bool()>> decoders{
            {QStringLiteral("PairingStart"), [&] { return roundTrips(PairingStart::fromJson(object)); }},
            {QStringLiteral("SessionPayload"), [&] { return roundTrips(SessionPayload::fromJson(object)); }},
            {QStringLiteral("UploadTarget"), [&] { return roundTrips(UploadTarget::fromJson(object)); }},
            {QStringLiteral("NoteRecord"), [&] { return roundTrips(NoteRecord::fromJson(object)); }},
            {QStringLiteral("ApiErrorBody"), [&] { return roundTrips(ApiErrorBody::fromJson(object)); }}};
        QCOMPARE(decoders.value(record)(), decodes);
    }

    void descriptions()
    {
        QCOMPARE(ApiError::http(410, QStringLiteral("code_expired")).description(), QStringLiteral("code_expired (410)"));
        QCOMPARE(ApiError::badResponse().description(), QStringLiteral("unexpected response"));
        const ApiError transport = ApiError::transport({QNetworkReply::ConnectionRefusedError, QStringLiteral("Connection refused")});
        QCOMPARE(QByteArray(transport.what()), QByteArray("Connection refused"));
    }

    void uploadDeadline()
    {
        using namespace std::chrono_literals;
        QCOMPARE(ServiceDeadlines().upload(1024 * 1024), 120s); // the floor
        QCOMPARE(ServiceDeadlines().upload(600 * 32 * 1024), 600s); // 32 KiB/s
    }

    void boundedText_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("shown");
        QTest::newRow("plain") << QStringLiteral("code_expired") << QStringLiteral("code_expired");
        QTest::newRow("line break") << QStringLiteral("a\r\nb") << QStringLiteral("a\uFFFD\uFFFDb");
        QTest::newRow("bidi override") << QStringLiteral("a\u202Eb") << QStringLiteral("a\uFFFDb");
        QTest::newRow("100") << QString(100, QLatin1Char('x')) << QString(100, QLatin1Char('x'));
        QTest::newRow("101") << QString(101, QLatin1Char('x')) << QString(99, QLatin1Char('x')) + QChar(0x2026);
        QTest::newRow("no half emoji") << QString(98, QLatin1Char('x')) + QStringLiteral("\U0001F600\U0001F600\U0001F600")
                                       << QString(98, QLatin1Char('x')) + QStringLiteral("\U0001F600\u2026");
    }
    void boundedText()
    {
        QFETCH(QString, text);
        QFETCH(QString, shown);
        QCOMPARE(ServiceText::bounded(text), shown);
    }

    void buildNumber_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint64>("number");
        QTest::newRow("plain") << QStringLiteral("42") << qint64(42);
        QTest::newRow("plus") << QStringLiteral("+42") << qint64(42);
        QTest::newRow("minus") << QStringLiteral("-7") << qint64(-7);
        QTest::newRow("42a") << QStringLiteral("42a") << qint64(0);
        QTest::newRow("1.2") << QStringLiteral("1.2") << qint64(0);
        QTest::newRow("sign only") << QStringLiteral("+") << qint64(0);
        QTest::newRow("arabic-indic") << QStringLiteral("\u0664\u0662") << qint64(0);
        QTest::newRow("overflow") << QStringLiteral("99999999999999999999") << qint64(0);
    }
    void buildNumber()
    {
        QFETCH(QString, text);
        QFETCH(qint64, number);
        QCOMPARE(SelvaroAPI::parseBuildNumber(text), number);
    }

    void noteBody()
    {
        // 11:11:12.345 in UTC+1 is 10:11:12.345Z.
        const QDateTime startedAt(QDate(2025, 3, 4), QTime(11, 11, 12, 345), Qt::OffsetFromUTC, 3600);
        const QJsonObject body = SelvaroAPI::noteBody(QStringLiteral("acc1"), true, startedAt, 59, QStringLiteral("k"));
        const QJsonObject expected{{QStringLiteral("startedAt"), QStringLiteral("2025-03-04T10:11:12.345Z")},
                                   {QStringLiteral("duration"), 59}, {QStringLiteral("recordingKey"), QStringLiteral("k")},
                                   {QStringLiteral("source"), QStringLiteral("recorder")}, {QStringLiteral("sourceUrl"), QStringLiteral("")},
                                   {QStringLiteral("buildNumber"), QString::fromUtf8(BuildInfo::buildNumber).toLongLong()},
                                   {QStringLiteral("deviceLocale"), QLocale().name()}, {QStringLiteral("anonUser"), QStringLiteral("acc1")}};
        QCOMPARE(body, expected);
        QCOMPARE(SelvaroAPI::noteBody(QStringLiteral("acc1"), false, startedAt, 59, QStringLiteral("k")).value(QLatin1String("user")),
                 QJsonValue(QStringLiteral("acc1")));
    }

    void threePartVersion_data()
    {
        QTest::addColumn<QString>("version");
        QTest::addColumn<QString>("expected");
        QTest::newRow("debian") << QStringLiteral("12") << QStringLiteral("12.0.0");
        QTest::newRow("ubuntu") << QStringLiteral("24.04") << QStringLiteral("24.4.0");
        QTest::newRow("four parts") << QStringLiteral("1.2.3.4") << QStringLiteral("1.2.3");
        QTest::newRow("suffix") << QStringLiteral("3.19.1_alpha2024") << QStringLiteral("3.19.1");
        QTest::newRow("unknown") << QStringLiteral("unknown") << QStringLiteral("0.0.0");
    }
    void threePartVersion()
    {
        QFETCH(QString, version);
        QFETCH(QString, expected);
        QCOMPARE(DeviceInfo::threePartVersion(version), expected);
    }

    void deviceInfo()
    {
        const QJsonObject json = DeviceInfo::current(QStringLiteral("V")).toJson();
        QCOMPARE(json.keys(), (QStringList{QStringLiteral("appVersion"), QStringLiteral("brand"), QStringLiteral("locale"), QStringLiteral("model"),
                                           QStringLiteral("osVersion"), QStringLiteral("type"), QStringLiteral("vendorUuid")}));
        QCOMPARE(json.value(QLatin1String("type")), QJsonValue(QStringLiteral("linux")));
        QCOMPARE(json.value(QLatin1String("vendorUuid")), QJsonValue(QStringLiteral("V")));
    }
};

QTEST_GUILESS_MAIN(TestServiceRecords)
#include "tst_service_records.moc"
