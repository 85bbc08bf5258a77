// The wire contract the recorder relies on: every public endpoint and each answer it
// can give, plus the scripted faults the other tests put in front of them.

#include "ServiceSteps.h"

#include <QJsonArray>
#include <QTest>

using namespace ServiceSteps;

class TestContract : public QObject
{
    Q_OBJECT

    DevService m_dev;

    // The names a row may use in its path and body: @device (the seven members),
    // device codes @pending, @confirmed, @redeemed and @expired, sessions @session
    // (signed in) and @stale (its token expired), @user / @anonUser (account ids),
    // @anonKey (an object the anonymous account uploaded) and @note (a signed-in
    // account's valid note without its user member).
    QHash<QByteArray, QByteArray> m_names;
    QHash<QString, QByteArray> m_tokens;

    // No name is part of another, so the order of replacing does not matter.
    QByteArray expand(QByteArray text) const
    {
        for (auto it = m_names.begin(); it != m_names.end(); ++it)
            text.replace(it.key(), it.value());
        return text;
    }

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }

    void init()
    {
        m_dev.reset();
        const Account signedIn = newAccount(m_dev, false);
        const Account anonymous = newAccount(m_dev, true);
        m_dev.setConfig({ { QStringLiteral("tokenTtl"), -1 }, { QStringLiteral("expiresIn"), 0 } });
        const Account stale = newAccount(m_dev, false);
        m_names["@expired"] = startPairing(m_dev)[QLatin1String("deviceCode")].toString().toLatin1();
        m_dev.setConfig({ { QStringLiteral("tokenTtl"), 3600 }, { QStringLiteral("expiresIn"), 600 } });
        m_names["@pending"] = startPairing(m_dev)[QLatin1String("deviceCode")].toString().toLatin1();
        for (const char *name : { "@confirmed", "@redeemed" }) {
            const QJsonObject pairing = startPairing(m_dev);
            m_dev.confirm(pairing[QLatin1String("userCode")].toString(), false);
            m_names[name] = pairing[QLatin1String("deviceCode")].toString().toLatin1();
        }
        m_dev.send(
            "POST", QStringLiteral("/pair/token"), "{\"deviceCode\":\"" + m_names["@redeemed"] + "\"}");
        m_names["@device"] = deviceMembers;
        m_names["@session"] = signedIn.sessionId.toLatin1();
        m_names["@stale"] = stale.sessionId.toLatin1();
        m_names["@user"] = signedIn.accountId.toLatin1();
        m_names["@anonUser"] = anonymous.accountId.toLatin1();
        m_names["@anonKey"] = upload(m_dev, anonymous, "their audio").toLatin1();
        m_names["@note"] = noteMembers(upload(m_dev, signedIn, "audio"));
        m_tokens = { { QStringLiteral("own"), signedIn.token }, { QStringLiteral("anon"), anonymous.token },
            { QStringLiteral("stale"), stale.token },
            { QStringLiteral("bearer"), "Bearer " + signedIn.token } };
    }

    void answers_data()
    {
        QTest::addColumn<QByteArray>("request"); // method, path and which token (a key of m_tokens), if any
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        // For a success the members the answer has, comma-separated; for a failure its error code.
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QByteArray>("fault"); // posted to /admin/faults first, unless empty
        const auto row = [](const char *name, const char *request, const QByteArray &body, int status,
                             const char *answer, const char *fault = "") {
            QTest::newRow(name) << QByteArray(request) << body << status << QString::fromLatin1(answer)
                                << QByteArray(fault);
        };
        const QByteArray device = "{\"device\":{@device}}";
        const char *payload = "id,profileId,token,isAnonymous";
        // clang-format off
        row("pair", "POST /pair", device, 200, "deviceCode,userCode,expiresIn,interval");
        row("pair, no device", "POST /pair", "{}", 400, "missing_device");
        row("pair, device a string", "POST /pair", R"({"device":"mac"})", 400, "invalid_device");
        row("pair, member missing", "POST /pair", R"({"device":{"vendorUuid":"V"}})", 400, "missing_device.appVersion");
        row("pair, member mistyped", "POST /pair", R"({"device":{"vendorUuid":"V","appVersion":"1","osVersion":6}})", 400, "invalid_device.osVersion");
        row("pair, an eighth member", "POST /pair", R"({"device":{@device,"serial":"S"}})", 400, "unexpected_device.serial");
        row("pair, malformed JSON", "POST /pair", R"({"device":)", 400, "invalid_json");
        row("pair, over the body limit", "POST /pair", QByteArray(2 * 1024 * 1024, ' '), 413, "body_too_large");
        row("redeem, pending", "POST /pair/token", R"({"deviceCode":"@pending"})", 400, "authorization_pending");
        row("redeem, confirmed", "POST /pair/token", R"({"deviceCode":"@confirmed"})", 200, payload);
        row("redeem, redeemed", "POST /pair/token", R"({"deviceCode":"@redeemed"})", 409, "code_already_used");
        row("redeem, expired", "POST /pair/token", R"({"deviceCode":"@expired"})", 410, "code_expired");
        row("redeem, unknown", "POST /pair/token", R"({"deviceCode":"nope"})", 404, "code_not_found");
        row("redeem, no code", "POST /pair/token", "{}", 400, "missing_deviceCode");
        row("refresh", "POST /sessions/@session/refresh own", device, 200, payload);
        row("refresh, expired token", "POST /sessions/@stale/refresh stale", device, 200, payload);
        row("refresh, unknown session", "POST /sessions/x/refresh own", device, 404, "session_not_found");
        row("refresh, another's token", "POST /sessions/@session/refresh anon", device, 401, "invalid_token");
        row("refresh, Bearer", "POST /sessions/@session/refresh bearer", device, 401, "invalid_token");
        row("refresh, no token", "POST /sessions/@session/refresh", device, 401, "missing_token");
        row("refresh, no device", "POST /sessions/@session/refresh own", "{}", 400, "missing_device");
        row("target", "GET /upload-recording-url?ext=m4a own", {}, 200, "url,key");
        row("target, no token", "GET /upload-recording-url?ext=m4a", {}, 401, "missing_token");
        row("target, expired token", "GET /upload-recording-url?ext=m4a stale", {}, 401, "invalid_token");
        row("target, no ext", "GET /upload-recording-url own", {}, 400, "missing_ext");
        row("target, bad ext", "GET /upload-recording-url?ext=../x own", {}, 400, "invalid_ext");
        row("note", "POST /api/collections/notes/records own", R"({@note,"user":"@user"})", 200, "id");
        row("note, anonymous", "POST /api/collections/notes/records anon", R"({@note,"recordingKey":"@anonKey","anonUser":"@anonUser"})", 200, "id");
        row("note, no token", "POST /api/collections/notes/records", R"({@note,"user":"@user"})", 401, "missing_token");
        row("note, no user", "POST /api/collections/notes/records own", R"({@note})", 400, "missing_user");
        row("note, wrong user member", "POST /api/collections/notes/records own", R"({@note,"anonUser":"@user"})", 400, "wrong_user_member");
        row("note, a ninth member", "POST /api/collections/notes/records own", R"({@note,"user":"@user","title":"T"})", 400, "unexpected_title");
        row("note, mistyped", "POST /api/collections/notes/records own", R"({@note,"duration":"42","user":"@user"})", 400, "invalid_duration");
        row("note, no fraction", "POST /api/collections/notes/records own", R"({@note,"startedAt":"2025-03-04T10:11:12Z","user":"@user"})", 400, "invalid_startedAt");
        row("note, another's user", "POST /api/collections/notes/records own", R"({@note,"user":"@anonUser"})", 400, "user_mismatch");
        row("note, another's recording", "POST /api/collections/notes/records anon", R"({@note,"anonUser":"@anonUser"})", 400, "unknown_recording");
        row("unknown path", "GET /nowhere", {}, 404, "not_found");
        row("fault, status and body", "POST /pair", device, 503, "maintenance", "{\"path\":\"/pair\",\"status\":503,\"body\":\"{\\\"error\\\":\\\"maintenance\\\"}\"}");
        row("fault, prefix and method", "POST /sessions/@session/refresh own", device, 500, "", "{\"path\":\"/sessions/*\",\"method\":\"post\",\"status\":500}");
        row("fault, other method", "GET /upload-recording-url?ext=m4a own", {}, 200, "url,key", R"({"path":"/upload-recording-url","method":"POST","status":418})");
        // Qt sends a request again once when its connection closes before any answer.
        row("fault, dropped twice", "POST /pair/token", "{}", 0, "", R"({"path":"/pair/token","drop":true,"count":2})");
        // clang-format on
    }
    void answers()
    {
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QString, answer);
        QFETCH(QByteArray, fault);
        if (!fault.isEmpty())
            QCOMPARE(m_dev.send("POST", QStringLiteral("/admin/faults"), fault).status, 200);
        const QList<QByteArray> words = expand(request).split(' ');
        QList<QPair<QByteArray, QByteArray>> headers;
        if (words.size() > 2)
            headers.append({ "Authorization", m_tokens.value(QString::fromLatin1(words[2])) });
        const auto reply = m_dev.send(words[0], QString::fromLatin1(words[1]), expand(body), headers);
        QCOMPARE(reply.status, status);
        if (status >= 400)
            QCOMPARE(errorOf(reply.body), answer);
        for (const QString &member : answer.split(QLatin1Char(','), Qt::SkipEmptyParts))
            QVERIFY2(status >= 400 || reply.json().contains(member), qPrintable(member));
    }
};

QTEST_GUILESS_MAIN(TestContract)
#include "tst_devservice_contract.moc"
