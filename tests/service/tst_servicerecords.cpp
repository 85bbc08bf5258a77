// The pure parts of the service client: wire records, error texts, the note body,
// the build-number parse and the device description.

#include "service/ApiError.h"
#include "service/ApiErrorBody.h"
#include "service/DeviceInfo.h"
#include "service/NoteRecord.h"
#include "service/PairingStart.h"
#include "service/SelvaroAPI.h"
#include "service/SessionPayload.h"
#include "service/UploadTarget.h"

#include "BuildInfo.h"

#include <QJsonDocument>
#include <QLocale>
#include <QSet>
#include <QtTest/QTest>

namespace {
// JSON written with single quotes, which keeps the tables readable.
QJsonObject object(const char *json)
{
    return QJsonDocument::fromJson(QByteArray(json).replace('\'', '"')).object();
}
} // namespace

class TestServiceRecords : public QObject
{
    Q_OBJECT

private slots:
    void pairingStart_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("decodes");
        QTest::newRow("complete") << QByteArray("{'deviceCode':'d','userCode':'R3XD-8N5W','expiresIn':600,'interval':5}") << true;
        QTest::newRow("unknown members ignored") << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':5,'extra':[1]}") << true;
        QTest::newRow("whole number written as 5.0") << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':5.0}") << true;
        QTest::newRow("missing interval") << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600}") << false;
        QTest::newRow("interval a string") << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':'5'}") << false;
        QTest::newRow("interval a fraction") << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':5.5}") << false;
        QTest::newRow("interval beyond int") << QByteArray("{'deviceCode':'d','userCode':'u','expiresIn':600,'interval':1e12}") << false;
        QTest::newRow("userCode null") << QByteArray("{'deviceCode':'d','userCode':null,'expiresIn':600,'interval':5}") << false;
        QTest::newRow("deviceCode a number") << QByteArray("{'deviceCode':7,'userCode':'u','expiresIn':600,'interval':5}") << false;
    }

    void pairingStart()
    {
        QFETCH(QByteArray, json);
        QFETCH(bool, decodes);
        const auto start = PairingStart::fromJson(object(json.constData()));
        QCOMPARE(start.has_value(), decodes);
        if (start)
            QCOMPARE(PairingStart::fromJson(start->toJson()), start);
    }

    void sessionPayload_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("decodes");
        QTest::newRow("complete") << QByteArray("{'id':'s','profileId':'p','token':'t','isAnonymous':true}") << true;
        QTest::newRow("isAnonymous as 1") << QByteArray("{'id':'s','profileId':'p','token':'t','isAnonymous':1}") << false;
        QTest::newRow("isAnonymous as string") << QByteArray("{'id':'s','profileId':'p','token':'t','isAnonymous':'true'}") << false;
        QTest::newRow("no token") << QByteArray("{'id':'s','profileId':'p','isAnonymous':false}") << false;
        QTest::newRow("id a number") << QByteArray("{'id':1,'profileId':'p','token':'t','isAnonymous':false}") << false;
    }

    void sessionPayload()
    {
        QFETCH(QByteArray, json);
        QFETCH(bool, decodes);
        const auto payload = SessionPayload::fromJson(object(json.constData()));
        QCOMPARE(payload.has_value(), decodes);
        if (payload) {
            QCOMPARE(payload->isAnonymous, true);
            QCOMPARE(SessionPayload::fromJson(payload->toJson()), payload);
        }
    }

    void smallRecords()
    {
        const auto target = UploadTarget::fromJson(object("{'url':'https://x/y','key':'k'}"));
        const auto targetWithoutKey = UploadTarget::fromJson(object("{'url':'https://x/y'}"));
        const auto note = NoteRecord::fromJson(object("{'id':'n1','other':2}"));
        const auto noteWithNumber = NoteRecord::fromJson(object("{'id':5}"));
        const auto errorBody = ApiErrorBody::fromJson(object("{'error':'code_expired'}"));
        const auto nestedError = ApiErrorBody::fromJson(object("{'error':{'code':'x'}}"));
        const auto messageOnly = ApiErrorBody::fromJson(object("{'message':'x'}"));

        QCOMPARE(target, (UploadTarget{QStringLiteral("https://x/y"), QStringLiteral("k")}));
        QVERIFY(!targetWithoutKey);
        QCOMPARE(note, NoteRecord{QStringLiteral("n1")});
        QVERIFY(!noteWithNumber);
        QCOMPARE(errorBody, ApiErrorBody{QStringLiteral("code_expired")});
        QVERIFY(!nestedError);
        QVERIFY(!messageOnly);
    }

    void errorDescriptions()
    {
        QCOMPARE(ApiError::http(410, QStringLiteral("code_expired")).description(), QStringLiteral("code_expired (410)"));
        QCOMPARE(ApiError::badResponse().description(), QStringLiteral("unexpected response"));
        const TransportError refused(QNetworkReply::ConnectionRefusedError, QStringLiteral("Connection refused"));
        const ApiError transport = ApiError::transport(refused);
        QCOMPARE(transport.description(), QStringLiteral("Connection refused"));
        QCOMPARE(transport.networkError(), QNetworkReply::ConnectionRefusedError);
        QCOMPARE(transport.transportError(), refused);
        QCOMPARE(QByteArray(transport.what()), QByteArray("Connection refused"));
        QCOMPARE(ApiError::http(404, QStringLiteral("http_404")).status(), 404);
        QVERIFY(ApiError::http(404, QStringLiteral("a")) != ApiError::http(404, QStringLiteral("b")));
    }

    void buildNumber_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qint64>("number");
        QTest::newRow("plain") << QStringLiteral("42") << qint64(42);
        QTest::newRow("plus") << QStringLiteral("+42") << qint64(42);
        QTest::newRow("minus") << QStringLiteral("-7") << qint64(-7);
        QTest::newRow("trailing letter") << QStringLiteral("42a") << qint64(0);
        QTest::newRow("dotted") << QStringLiteral("1.2") << qint64(0);
        QTest::newRow("empty") << QString() << qint64(0);
        QTest::newRow("sign only") << QStringLiteral("+") << qint64(0);
        QTest::newRow("leading blank") << QStringLiteral(" 42") << qint64(0);
        QTest::newRow("two signs") << QStringLiteral("+-4") << qint64(0);
        QTest::newRow("arabic-indic digits") << QStringLiteral("\u0664\u0662") << qint64(0);
        QTest::newRow("overflow") << QStringLiteral("99999999999999999999") << qint64(0);
    }

    void buildNumber()
    {
        QFETCH(QString, text);
        QFETCH(qint64, number);
        QCOMPARE(SelvaroAPI::parseBuildNumber(text), number);
    }

    void noteBodyMembers_data()
    {
        QTest::addColumn<bool>("anonymous");
        QTest::addColumn<QString>("accountKey");
        QTest::addColumn<QString>("absentKey");
        QTest::newRow("anonymous") << true << QStringLiteral("anonUser") << QStringLiteral("user");
        QTest::newRow("signed in") << false << QStringLiteral("user") << QStringLiteral("anonUser");
    }

    void noteBodyMembers()
    {
        QFETCH(bool, anonymous);
        QFETCH(QString, accountKey);
        QFETCH(QString, absentKey);
        // 11:11:12.345 in UTC+1 is 10:11:12.345Z.
        const QDateTime startedAt(QDate(2025, 3, 4), QTime(11, 11, 12, 345), Qt::OffsetFromUTC, 3600);
        const QJsonObject body = SelvaroAPI::noteBody(QStringLiteral("acc1"), anonymous, startedAt, 59, QStringLiteral("rec/k.m4a"));

        QCOMPARE(body.size(), 8);
        QCOMPARE(body.value(accountKey).toString(), QStringLiteral("acc1"));
        QVERIFY(!body.contains(absentKey));
        QCOMPARE(body.value(QLatin1String("startedAt")).toString(), QStringLiteral("2025-03-04T10:11:12.345Z"));
        QCOMPARE(body.value(QLatin1String("duration")).toInteger(), 59);
        QCOMPARE(body.value(QLatin1String("recordingKey")).toString(), QStringLiteral("rec/k.m4a"));
        QCOMPARE(body.value(QLatin1String("source")).toString(), QStringLiteral("recorder"));
        QVERIFY(body.value(QLatin1String("sourceUrl")).isString());
        QCOMPARE(body.value(QLatin1String("sourceUrl")).toString(), QString());
        QCOMPARE(body.value(QLatin1String("buildNumber")).toInteger(), SelvaroAPI::parseBuildNumber(QString::fromUtf8(BuildInfo::buildNumber)));
        QCOMPARE(body.value(QLatin1String("deviceLocale")).toString(), QLocale().name());
    }

    void noteBodyWholeSecondsAndZeroMilliseconds()
    {
        const QDateTime startedAt(QDate(2025, 3, 4), QTime(10, 11, 12), Qt::UTC);
        const QJsonObject body = SelvaroAPI::noteBody(QStringLiteral("a"), false, startedAt, 0, QStringLiteral("k"));
        QCOMPARE(body.value(QLatin1String("startedAt")).toString(), QStringLiteral("2025-03-04T10:11:12.000Z"));
        QCOMPARE(body.value(QLatin1String("duration")).toInteger(-1), 0);
    }

    void userAgent()
    {
        QCOMPARE(SelvaroAPI::userAgent(), QByteArray("selvaro-recorder/") + BuildInfo::shortVersion);
    }

    void threePartVersion_data()
    {
        QTest::addColumn<QString>("version");
        QTest::addColumn<QString>("expected");
        QTest::newRow("debian") << QStringLiteral("12") << QStringLiteral("12.0.0");
        QTest::newRow("ubuntu") << QStringLiteral("24.04") << QStringLiteral("24.4.0");
        QTest::newRow("three parts") << QStringLiteral("15.1.0") << QStringLiteral("15.1.0");
        QTest::newRow("four parts") << QStringLiteral("1.2.3.4") << QStringLiteral("1.2.3");
        QTest::newRow("suffix") << QStringLiteral("3.19.1_alpha20240101") << QStringLiteral("3.19.1");
        QTest::newRow("unknown") << QStringLiteral("unknown") << QStringLiteral("0.0.0");
        QTest::newRow("empty") << QString() << QStringLiteral("0.0.0");
    }

    void threePartVersion()
    {
        QFETCH(QString, version);
        QFETCH(QString, expected);
        QCOMPARE(DeviceInfo::threePartVersion(version), expected);
    }

    void deviceInfo()
    {
        const DeviceInfo first = DeviceInfo::current(QStringLiteral("0F9C6A1E-0000-4000-8000-000000000001"));
        const DeviceInfo second = DeviceInfo::current(QStringLiteral("0F9C6A1E-0000-4000-8000-000000000001"));
        QCOMPARE(first, second);

        const QJsonObject json = first.toJson();
        const QStringList names = json.keys();
        const QSet<QString> keys(names.cbegin(), names.cend());
        QCOMPARE(keys, (QSet<QString>{QStringLiteral("vendorUuid"), QStringLiteral("appVersion"), QStringLiteral("osVersion"),
                                      QStringLiteral("type"), QStringLiteral("brand"), QStringLiteral("model"),
                                      QStringLiteral("locale")}));
        for (const QString &key : keys)
            QVERIFY2(json.value(key).isString(), qPrintable(key));
        QCOMPARE(first.vendorUuid, QStringLiteral("0F9C6A1E-0000-4000-8000-000000000001"));
        QCOMPARE(first.type, QStringLiteral("linux"));
        QCOMPARE(first.appVersion, QString::fromUtf8(BuildInfo::shortVersion));
        QCOMPARE(first.osVersion.count(QLatin1Char('.')), 2);
        QCOMPARE(first.locale, QLocale().name());
    }
};

QTEST_GUILESS_MAIN(TestServiceRecords)
#include "tst_servicerecords.moc"
