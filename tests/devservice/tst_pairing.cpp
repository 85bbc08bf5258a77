// Device-code pairing, session tokens and refresh, over HTTP against the real service.

#include "ServiceClient.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

namespace {
QJsonObject device(const QString &model = QStringLiteral("ThinkPad X1"))
{
    return {{QStringLiteral("vendorUuid"), QStringLiteral("6F1A0C2E-4B1D-4C43-9A57-1C2B3D4E5F60")},
            {QStringLiteral("appVersion"), QStringLiteral("0.1.0")},
            {QStringLiteral("osVersion"), QStringLiteral("6.1.0")},
            {QStringLiteral("type"), QStringLiteral("linux")},
            {QStringLiteral("brand"), QStringLiteral("lenovo")},
            {QStringLiteral("model"), model},
            {QStringLiteral("locale"), QStringLiteral("en_US")}};
}

QJsonObject claimsOf(const QByteArray &token)
{
    const QList<QByteArray> parts = token.split('.');
    if (parts.size() != 3)
        return {};
    return QJsonDocument::fromJson(QByteArray::fromBase64(parts[1], QByteArray::Base64UrlEncoding)).object();
}
} // namespace

class TestPairing : public QObject
{
    Q_OBJECT

private:
    DevService m_dev;
    ServiceClient m_client{m_dev};

    QJsonObject startPairing()
    {
        const auto reply = m_client.post(QStringLiteral("/pair"), {{QStringLiteral("device"), device()}});
        return reply.status == 200 ? reply.json() : QJsonObject{};
    }
    DevService::Reply redeem(const QString &deviceCode)
    {
        return m_client.post(QStringLiteral("/pair/token"), {{QStringLiteral("deviceCode"), deviceCode}});
    }

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }
    void init() { m_dev.reset(); }

    void startAnswersCodesAndRecordsTheDevice()
    {
        m_dev.setConfig({{QStringLiteral("expiresIn"), 120}, {QStringLiteral("interval"), 3}});
        const QJsonObject start = startPairing();
        QCOMPARE(start.value(QLatin1String("expiresIn")).toInt(), 120);
        QCOMPARE(start.value(QLatin1String("interval")).toInt(), 3);
        // "R3XD-8N5W": two groups of four from an alphabet without 0/O, 1/I/L.
        static const QRegularExpression userCode(QStringLiteral("^[A-HJKMNP-Z2-9]{4}-[A-HJKMNP-Z2-9]{4}$"));
        QVERIFY2(userCode.match(start.value(QLatin1String("userCode")).toString()).hasMatch(),
                 qPrintable(start.value(QLatin1String("userCode")).toString()));
        const QByteArray deviceCode = start.value(QLatin1String("deviceCode")).toString().toLatin1();
        QVERIFY(QByteArray::fromBase64(deviceCode, QByteArray::Base64UrlEncoding).size() >= 16);

        const QJsonObject pairing = m_dev.pairings().first().toObject();
        QCOMPARE(pairing.value(QLatin1String("device")).toObject(), device());
        QCOMPARE(pairing.value(QLatin1String("state")).toString(), QStringLiteral("pending"));
        QCOMPARE(pairing.value(QLatin1String("userCode")), start.value(QLatin1String("userCode")));
    }

    void codesAreUnique()
    {
        QSet<QString> userCodes;
        QSet<QString> deviceCodes;
        for (int i = 0; i < 40; ++i) {
            const QJsonObject start = startPairing();
            userCodes.insert(start.value(QLatin1String("userCode")).toString());
            deviceCodes.insert(start.value(QLatin1String("deviceCode")).toString());
        }
        QCOMPARE(userCodes.size(), 40);
        QCOMPARE(deviceCodes.size(), 40);
    }

    void startRejectsBadDevices_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("error");
        QJsonObject numericOs = device();
        numericOs.insert(QStringLiteral("osVersion"), 6);
        QJsonObject noModel = device();
        noModel.remove(QStringLiteral("model"));
        const auto json = [](const QJsonObject &o) { return QJsonDocument(o).toJson(QJsonDocument::Compact); };
        QTest::newRow("no device") << QByteArray("{}") << QStringLiteral("missing_device");
        QTest::newRow("device is a string") << QByteArray(R"({"device":"mac"})") << QStringLiteral("invalid_device");
        QTest::newRow("member missing") << json({{QStringLiteral("device"), noModel}}) << QStringLiteral("missing_device.model");
        QTest::newRow("member mistyped") << json({{QStringLiteral("device"), numericOs}}) << QStringLiteral("invalid_device.osVersion");
        QTest::newRow("malformed JSON") << QByteArray(R"({"device":)") << QStringLiteral("invalid_json");
        QTest::newRow("array body") << QByteArray("[1,2]") << QStringLiteral("invalid_json");
    }
    void startRejectsBadDevices()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, error);
        const auto reply = m_dev.send("POST", QStringLiteral("/pair"), body);
        QCOMPARE(reply.status, 400);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), error);
        QCOMPARE(m_dev.pairings().size(), 0);
    }

    void redeemWalksThroughItsStates_data()
    {
        QTest::addColumn<bool>("anonymous");
        QTest::newRow("signed in") << false;
        QTest::newRow("anonymous") << true;
    }
    void redeemWalksThroughItsStates()
    {
        QFETCH(bool, anonymous);
        const QJsonObject start = startPairing();
        const QString deviceCode = start.value(QLatin1String("deviceCode")).toString();

        auto reply = redeem(deviceCode);
        QCOMPARE(reply.status, 400);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("authorization_pending"));

        int status = 0;
        const QJsonObject confirmed = m_dev.confirm(start.value(QLatin1String("userCode")).toString(), anonymous, &status);
        QCOMPARE(status, 200);
        QCOMPARE(m_dev.pairings().first().toObject().value(QLatin1String("state")).toString(), QStringLiteral("confirmed"));

        reply = redeem(deviceCode);
        QCOMPARE(reply.status, 200);
        const QJsonObject session = reply.json();
        QCOMPARE(session.value(QLatin1String("id")), confirmed.value(QLatin1String("sessionId")));
        QCOMPARE(session.value(QLatin1String("profileId")), confirmed.value(QLatin1String("profileId")));
        QCOMPARE(session.value(QLatin1String("isAnonymous")).toBool(), anonymous);
        const QByteArray token = session.value(QLatin1String("token")).toString().toLatin1();
        QCOMPARE(claimsOf(token).value(QLatin1String("id")), confirmed.value(QLatin1String("accountId")));
        QCOMPARE(QJsonDocument::fromJson(QByteArray::fromBase64(token.split('.').first(), QByteArray::Base64UrlEncoding))
                     .object()
                     .value(QLatin1String("alg"))
                     .toString(),
                 QStringLiteral("HS256"));

        // Once only.
        reply = redeem(deviceCode);
        QCOMPARE(reply.status, 409);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("code_already_used"));
        QCOMPARE(m_dev.pairings().first().toObject().value(QLatin1String("state")).toString(), QStringLiteral("redeemed"));
        // The device sent at pairing stays with the session.
        QCOMPARE(m_dev.sessions().first().toObject().value(QLatin1String("device")).toObject(), device());
    }

    void redeemErrors()
    {
        auto reply = redeem(QStringLiteral("no-such-code"));
        QCOMPARE(reply.status, 404);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("code_not_found"));

        reply = m_client.post(QStringLiteral("/pair/token"), {});
        QCOMPARE(reply.status, 400);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("missing_deviceCode"));
        reply = m_client.post(QStringLiteral("/pair/token"), {{QStringLiteral("deviceCode"), 12}});
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("invalid_deviceCode"));

        // A lifetime of zero: the code is born expired, for redeem and confirm alike.
        m_dev.setConfig({{QStringLiteral("expiresIn"), 0}});
        const QJsonObject start = startPairing();
        reply = redeem(start.value(QLatin1String("deviceCode")).toString());
        QCOMPARE(reply.status, 410);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("code_expired"));
        int status = 0;
        QCOMPARE(m_dev.confirm(start.value(QLatin1String("userCode")).toString(), false, &status)
                     .value(QLatin1String("error")).toString(),
                 QStringLiteral("code_expired"));
        QCOMPARE(status, 410);
    }

    void confirmAcceptsTheCodeAsThePhoneReadsIt()
    {
        const QString code = startPairing().value(QLatin1String("userCode")).toString();
        int status = 0;
        // The QR deep link carries the code without its dash; people type lower case.
        m_dev.confirm(code.toLower().remove(QLatin1Char('-')), true, &status);
        QCOMPARE(status, 200);
        m_dev.confirm(code, true, &status);
        QCOMPARE(status, 409);
        QCOMPARE(m_dev.confirm(QStringLiteral("AAAA-AAAA"), true, &status).value(QLatin1String("error")).toString(),
                 QStringLiteral("code_not_found"));
        QCOMPARE(status, 404);
    }

    void refreshIssuesANewToken()
    {
        const auto account = m_client.newAccount(false);
        const QString path = QStringLiteral("/sessions/%1/refresh").arg(account.sessionId);
        const auto reply = m_client.post(path, {{QStringLiteral("device"), device(QStringLiteral("Framework 13"))}}, account.token);
        QCOMPARE(reply.status, 200);
        const QJsonObject session = reply.json();
        QCOMPARE(session.value(QLatin1String("id")).toString(), account.sessionId);
        QCOMPARE(session.value(QLatin1String("isAnonymous")).toBool(), false);
        const QByteArray fresh = session.value(QLatin1String("token")).toString().toLatin1();
        QVERIFY(fresh != account.token);
        QCOMPARE(claimsOf(fresh).value(QLatin1String("id")).toString(), account.accountId);
        QCOMPARE(m_dev.sessions().first().toObject().value(QLatin1String("device")).toObject().value(QLatin1String("model")),
                 QJsonValue(QStringLiteral("Framework 13")));
        // The new token works where tokens are needed.
        QCOMPARE(m_client.get(QStringLiteral("/upload-recording-url?ext=m4a"), fresh).status, 200);
    }

    void refreshErrors()
    {
        const auto account = m_client.newAccount(true);
        const auto other = m_client.newAccount(true);
        const QJsonObject body{{QStringLiteral("device"), device()}};
        const QString path = QStringLiteral("/sessions/%1/refresh").arg(account.sessionId);
        struct Case {
            QString path;
            QByteArray token;
            QJsonObject body;
            int status;
            QString error;
        };
        const Case cases[] = {
            {QStringLiteral("/sessions/unknown/refresh"), account.token, body, 404, QStringLiteral("session_not_found")},
            {path, other.token, body, 401, QStringLiteral("invalid_token")},
            {path, account.token + "x", body, 401, QStringLiteral("invalid_token")},
            {path, "Bearer " + account.token, body, 401, QStringLiteral("invalid_token")},
            {path, QByteArray(), body, 401, QStringLiteral("missing_token")},
            {path, account.token, {}, 400, QStringLiteral("missing_device")},
        };
        for (const Case &c : cases) {
            const auto reply = m_client.post(c.path, c.body, c.token);
            QCOMPARE(reply.status, c.status);
            QCOMPARE(reply.json().value(QLatin1String("error")).toString(), c.error);
        }
    }

    void aForgottenSessionIsGone()
    {
        const auto account = m_client.newAccount(false);
        QCOMPARE(m_dev.deleteSession(account.sessionId), 200);
        QCOMPARE(m_dev.deleteSession(account.sessionId), 404);
        QCOMPARE(m_client.post(QStringLiteral("/sessions/%1/refresh").arg(account.sessionId),
                               {{QStringLiteral("device"), device()}}, account.token)
                     .status,
                 404);
        const auto reply = m_client.get(QStringLiteral("/upload-recording-url?ext=m4a"), account.token);
        QCOMPARE(reply.status, 401);
        QCOMPARE(reply.json().value(QLatin1String("error")).toString(), QStringLiteral("invalid_token"));
    }

    void expiredTokensAreRefusedButMayRefresh()
    {
        m_dev.setConfig({{QStringLiteral("tokenTtl"), 0}});
        const auto account = m_client.newAccount(false);
        QCOMPARE(m_client.get(QStringLiteral("/upload-recording-url?ext=m4a"), account.token).status, 401);
        m_dev.setConfig({{QStringLiteral("tokenTtl"), 3600}});
        const auto reply = m_client.post(QStringLiteral("/sessions/%1/refresh").arg(account.sessionId),
                                         {{QStringLiteral("device"), device()}}, account.token);
        QCOMPARE(reply.status, 200);
        QCOMPARE(m_client.get(QStringLiteral("/upload-recording-url?ext=m4a"),
                              reply.json().value(QLatin1String("token")).toString().toLatin1())
                     .status,
                 200);
    }

    void configRejectsNonsenseAndResetRestoresIt()
    {
        const auto bad = m_dev.send("POST", QStringLiteral("/admin/config"), R"({"interval":"soon"})");
        QCOMPARE(bad.status, 400);
        QCOMPARE(bad.json().value(QLatin1String("error")).toString(), QStringLiteral("invalid_interval"));
        const QJsonObject changed = m_dev.setConfig({{QStringLiteral("interval"), 9}});
        QCOMPARE(changed.value(QLatin1String("interval")).toInt(), 9);
        QVERIFY(changed.contains(QLatin1String("expiresIn")));
        QVERIFY(changed.contains(QLatin1String("maxBodyBytes")));
        QVERIFY(changed.contains(QLatin1String("uploadUrlTtl")));
        m_dev.reset();
        QCOMPARE(startPairing().value(QLatin1String("interval")).toInt(), 5);
    }
};

QTEST_GUILESS_MAIN(TestPairing)
#include "tst_pairing.moc"
