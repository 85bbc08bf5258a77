// The wire contract the recorder relies on: every request and each answer it can
// get, from the AccessGuard's refusals through the public endpoints and the
// pre-signed PUT to the scripted faults the other tests put in front of them.

#include "support/DevService.h"

#include <QJsonDocument>
#include <QTest>
#include <QUrlQuery>

#include <httplib.h>

class TestContract : public QObject
{
    Q_OBJECT

    DevService m_dev;

    // The names a row may use: @port, @admin (the admin token), @device (the seven
    // members), device codes @pending, @confirmed, @redeemed and @expired, sessions
    // @session (signed in) and @oldSession, their tokens @ownToken, @anonToken and
    // @oldToken (expired), accounts @user and @anonUser, @anonKey (an object the
    // anonymous account uploaded), @note (a signed-in account's valid note without
    // its user member), a fresh pre-signed PUT's @key, @expires and @signature, and
    // @lateUpload (a pre-signed path already expired).
    QHash<QByteArray, QByteArray> m_names;

    // No name is part of another, so the order of replacing does not matter.
    QByteArray expand(QByteArray text) const
    {
        for (auto it = m_names.begin(); it != m_names.end(); ++it)
            text.replace(it.key(), it.value());
        return text;
    }
    QUrl uploadUrl(const QByteArray &token)
    {
        return QUrl(m_dev
                        .send("GET", QStringLiteral("/upload-recording-url?ext=m4a"), {},
                            { { "Authorization", token } })
                        .json()[QLatin1String("url")]
                        .toString());
    }

private slots:
    void initTestCase() { QVERIFY2(m_dev.available(), "run under scripts/fixtures/with-devservice"); }

    void init()
    {
        m_dev.reset();
        const DevService::Account signedIn = m_dev.newAccount(false);
        const DevService::Account anonymous = m_dev.newAccount(true);
        m_dev.setConfig({ { QStringLiteral("tokenTtl"), -1 }, { QStringLiteral("expiresIn"), 0 },
            { QStringLiteral("uploadUrlTtl"), -1 } });
        const DevService::Account old = m_dev.newAccount(false);
        m_names["@expired"] = m_dev.startPairing()[QLatin1String("deviceCode")].toString().toLatin1();
        m_names["@lateUpload"]
            = uploadUrl(signedIn.token).toString(QUrl::RemoveScheme | QUrl::RemoveAuthority).toLatin1();
        m_dev.setConfig({ { QStringLiteral("tokenTtl"), 3600 }, { QStringLiteral("expiresIn"), 600 },
            { QStringLiteral("uploadUrlTtl"), 900 } });
        m_names["@pending"] = m_dev.startPairing()[QLatin1String("deviceCode")].toString().toLatin1();
        for (const char *name : { "@confirmed", "@redeemed" }) {
            const QJsonObject pairing = m_dev.startPairing();
            m_dev.confirm(pairing[QLatin1String("userCode")].toString(), false);
            m_names[name] = pairing[QLatin1String("deviceCode")].toString().toLatin1();
        }
        m_dev.send(
            "POST", QStringLiteral("/pair/token"), "{\"deviceCode\":\"" + m_names["@redeemed"] + "\"}");
        const QUrl upload = uploadUrl(signedIn.token);
        const QUrlQuery query(upload);
        m_names["@key"] = upload.fileName().toLatin1();
        m_names["@expires"] = query.queryItemValue(QStringLiteral("expires")).toLatin1();
        m_names["@signature"] = query.queryItemValue(QStringLiteral("signature")).toLatin1();
        m_names.insert({ { "@port", QByteArray::number(m_dev.baseUrl().port()) },
            { "@admin", m_dev.adminToken() }, { "@device", DevService::deviceMembers },
            { "@session", signedIn.sessionId.toLatin1() }, { "@oldSession", old.sessionId.toLatin1() },
            { "@ownToken", signedIn.token }, { "@anonToken", anonymous.token }, { "@oldToken", old.token },
            { "@user", signedIn.accountId.toLatin1() }, { "@anonUser", anonymous.accountId.toLatin1() },
            { "@anonKey", m_dev.upload(anonymous, "their audio").toLatin1() },
            { "@note", DevService::noteMembers(m_dev.upload(signedIn, "audio")) } });
    }

    void answers_data()
    {
        // The request line, then "Name: value" header lines; "Transfer-Encoding: chunked"
        // sends the body a byte at a time without a length.
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        // For a success the members the answer has, comma-separated; for a failure its error code.
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QByteArray>("first"); // "<admin path> <JSON>" posted first, unless empty
        const auto row = [](const char *name, const char *request, const QByteArray &body, int status,
                             const char *answer, const char *first = "") {
            QTest::newRow(name) << QByteArray(request) << body << status << QString::fromLatin1(answer)
                                << QByteArray(first);
        };
        const QByteArray device = "{\"device\":{@device}}";
        const char *payload = "id,profileId,token,isAnonymous";
        // clang-format off
        row("rebound name", "GET /upload-recording-url\nHost: attacker.example:@port", {}, 421, "wrong_host");
        row("other port", "GET /admin/config\nHost: 127.0.0.1:1\nX-Admin-Token: @admin", {}, 421, "wrong_host");
        row("localhost", "GET /nowhere\nHost: localhost:@port", {}, 404, "not_found");
        row("foreign origin", "POST /pair\nOrigin: http://attacker.example", {}, 403, "foreign_origin");
        row("origin of another port", "POST /admin/reset\nOrigin: http://127.0.0.1:1\nX-Admin-Token: @admin", {}, 403, "foreign_origin");
        row("opaque origin", "DELETE /admin/sessions/x\nOrigin: null\nX-Admin-Token: @admin", {}, 403, "foreign_origin");
        row("own origin", "POST /pair/token\nOrigin: http://localhost:@port", {}, 400, "missing_deviceCode");
        row("foreign origin, reading", "GET /nowhere\nOrigin: http://attacker.example", {}, 404, "not_found");
        row("admin, no token", "GET /admin/requests", {}, 401, "missing_admin_token");
        row("admin, wrong token", "POST /admin/sessions\nX-Admin-Token: x@admin", {}, 403, "invalid_admin_token");
        row("admin, token", "GET /admin/config\nX-Admin-Token: @admin", {}, 200, "expiresIn,interval");
        row("files, no token", "GET /files/a.m4a", {}, 401, "missing_admin_token");
        row("page, no token", "GET /", {}, 401, "missing_admin_token");
        row("page, wrong token", "GET /?token=nope", {}, 403, "invalid_admin_token");
        row("page, token in a cookie of another port", "GET /\nCookie: selvaro_admin_1=@admin", {}, 401, "missing_admin_token");
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
        row("refresh", "POST /sessions/@session/refresh\nAuthorization: @ownToken", device, 200, payload);
        row("refresh, expired token", "POST /sessions/@oldSession/refresh\nAuthorization: @oldToken", device, 200, payload);
        row("refresh, unknown session", "POST /sessions/x/refresh\nAuthorization: @ownToken", device, 404, "session_not_found");
        row("refresh, another's token", "POST /sessions/@session/refresh\nAuthorization: @anonToken", device, 401, "invalid_token");
        row("refresh, Bearer", "POST /sessions/@session/refresh\nAuthorization: Bearer @ownToken", device, 401, "invalid_token");
        row("refresh, no token", "POST /sessions/@session/refresh", device, 401, "missing_token");
        row("refresh, no device", "POST /sessions/@session/refresh\nAuthorization: @ownToken", "{}", 400, "missing_device");
        row("target", "GET /upload-recording-url?ext=m4a\nAuthorization: @ownToken", {}, 200, "url,key");
        row("target, no token", "GET /upload-recording-url?ext=m4a", {}, 401, "missing_token");
        row("target, expired token", "GET /upload-recording-url?ext=m4a\nAuthorization: @oldToken", {}, 401, "invalid_token");
        row("target, no ext", "GET /upload-recording-url\nAuthorization: @ownToken", {}, 400, "missing_ext");
        row("target, bad ext", "GET /upload-recording-url?ext=../x\nAuthorization: @ownToken", {}, 400, "invalid_ext");
        row("put", "PUT /uploads/@key?expires=@expires&signature=@signature\nContent-Type: audio/m4a", "bytes!", 200, "");
        row("put, at the size limit, chunked", "PUT /uploads/@key?expires=@expires&signature=@signature\nContent-Type: audio/m4a\nTransfer-Encoding: chunked", "bytes!", 200, "", R"(/admin/config {"maxUploadBytes":6})");
        row("put, signature changed", "PUT /uploads/@key?expires=@expires&signature=0000000000000000000000000000000000000000000000000000000000000000\nContent-Type: audio/m4a", "bytes!", 403, "invalid_signature");
        row("put, expiry moved", "PUT /uploads/@key?expires=9@expires&signature=@signature\nContent-Type: audio/m4a", "bytes!", 403, "invalid_signature");
        row("put, another key", "PUT /uploads/another.m4a?expires=@expires&signature=@signature\nContent-Type: audio/m4a", "bytes!", 403, "invalid_signature");
        row("put, no query", "PUT /uploads/@key\nContent-Type: audio/m4a", "bytes!", 403, "invalid_signature");
        row("put, expired", "PUT @lateUpload\nContent-Type: audio/m4a", "bytes!", 403, "url_expired");
        row("put, audio/mp4", "PUT /uploads/@key?expires=@expires&signature=@signature\nContent-Type: audio/mp4", "bytes!", 403, "wrong_content_type");
        row("put, with parameters", "PUT /uploads/@key?expires=@expires&signature=@signature\nContent-Type: audio/m4a; charset=binary", "bytes!", 403, "wrong_content_type");
        row("put, over the size limit", "PUT /uploads/@key?expires=@expires&signature=@signature\nContent-Type: audio/m4a", "bytes!", 413, "upload_too_large", R"(/admin/config {"maxUploadBytes":5})");
        row("put, over the size limit, chunked", "PUT /uploads/@key?expires=@expires&signature=@signature\nContent-Type: audio/m4a\nTransfer-Encoding: chunked", "bytes!", 413, "upload_too_large", R"(/admin/config {"maxUploadBytes":5})");
        row("note", "POST /api/collections/notes/records\nAuthorization: @ownToken", R"({@note,"user":"@user"})", 200, "id");
        row("note, anonymous", "POST /api/collections/notes/records\nAuthorization: @anonToken", R"({@note,"recordingKey":"@anonKey","anonUser":"@anonUser"})", 200, "id");
        row("note, no token", "POST /api/collections/notes/records", R"({@note,"user":"@user"})", 401, "missing_token");
        row("note, no user", "POST /api/collections/notes/records\nAuthorization: @ownToken", R"({@note})", 400, "missing_user");
        row("note, wrong user member", "POST /api/collections/notes/records\nAuthorization: @ownToken", R"({@note,"anonUser":"@user"})", 400, "wrong_user_member");
        row("note, a ninth member", "POST /api/collections/notes/records\nAuthorization: @ownToken", R"({@note,"user":"@user","title":"T"})", 400, "unexpected_title");
        row("note, mistyped", "POST /api/collections/notes/records\nAuthorization: @ownToken", R"({@note,"duration":"42","user":"@user"})", 400, "invalid_duration");
        row("note, no fraction", "POST /api/collections/notes/records\nAuthorization: @ownToken", R"({@note,"startedAt":"2025-03-04T10:11:12Z","user":"@user"})", 400, "invalid_startedAt");
        row("note, another's user", "POST /api/collections/notes/records\nAuthorization: @ownToken", R"({@note,"user":"@anonUser"})", 400, "user_mismatch");
        row("note, another's recording", "POST /api/collections/notes/records\nAuthorization: @anonToken", R"({@note,"anonUser":"@anonUser"})", 400, "unknown_recording");
        row("fault, status and body", "POST /pair", device, 503, "maintenance", "/admin/faults {\"path\":\"/pair\",\"status\":503,\"body\":\"{\\\"error\\\":\\\"maintenance\\\"}\"}");
        row("fault, prefix and method", "POST /sessions/@session/refresh\nAuthorization: @ownToken", device, 500, "", "/admin/faults {\"path\":\"/sessions/*\",\"method\":\"post\",\"status\":500}");
        row("fault, other method", "GET /upload-recording-url?ext=m4a\nAuthorization: @ownToken", {}, 200, "url,key", R"(/admin/faults {"path":"/upload-recording-url","method":"POST","status":418})");
        row("fault, dropped", "POST /pair/token", "{}", 0, "", R"(/admin/faults {"path":"/pair/token","drop":true})");
        row("fault, after a part of the body", "PUT /uploads/@key?expires=@expires&signature=@signature\nContent-Type: audio/m4a", "bytes!", 503, "", "/admin/faults {\"path\":\"/uploads/*\",\"afterBytes\":2,\"status\":503}");
        // clang-format on
    }
    void answers()
    {
        QFETCH(QByteArray, request);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QString, answer);
        QFETCH(QByteArray, first);
        const QList<QByteArray> admin = first.split(' '); // the JSON has no spaces
        if (!first.isEmpty())
            QCOMPARE(m_dev.send("POST", QString::fromLatin1(admin[0]), admin[1]).status, 200);
        QList<QByteArray> lines = expand(request).split('\n');
        httplib::Request sent;
        sent.method = lines[0].left(lines[0].indexOf(' ')).toStdString();
        sent.path = lines.takeFirst().mid(sent.method.size() + 1).toStdString();
        for (const QByteArray &line : lines)
            sent.headers.emplace(line.left(line.indexOf(':')).toStdString(),
                line.mid(line.indexOf(':') + 1).trimmed().toStdString());
        sent.body = expand(body).toStdString();
        const auto oneByteAtATime = [&sent](size_t offset, httplib::DataSink &sink) {
            return offset < sent.body.size() ? sink.write(sent.body.data() + offset, 1) : (sink.done(), true);
        };
        httplib::Client client(m_dev.baseUrl().host().toStdString(), m_dev.baseUrl().port());
        const bool chunked = sent.headers.erase("Transfer-Encoding") > 0;
        const auto result = chunked
            ? client.Put(sent.path, oneByteAtATime, sent.get_header_value("Content-Type"))
            : client.send(sent);
        QCOMPARE(result ? result->status : 0, status);
        const QJsonObject reply
            = QJsonDocument::fromJson(QByteArray::fromStdString(result ? result->body : "")).object();
        if (status >= 400)
            QCOMPARE(reply[QLatin1String("error")].toString(), answer);
        for (const QString &member : answer.split(QLatin1Char(','), Qt::SkipEmptyParts))
            QVERIFY2(status >= 400 || reply.contains(member), qPrintable(member));
        if (sent.method == "PUT")
            QCOMPARE(m_dev.uploads().size(), status == 200 ? 3 : 2);
    }
};

QTEST_GUILESS_MAIN(TestContract)
#include "tst_devservice_contract.moc"
