#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

// The tests' one client of the local note service: its admin API (see
// docs/ARCHITECTURE.md) and the steps the tests take on the public one as the
// recorder does.
// Calls block on a local event loop, which keeps test bodies short; they must not
// be used from inside a coroutine that the same loop is driving to completion.
// The service is the one scripts/fixtures/with-devservice started for this test,
// and its admin token the one that fixture exported.
class DevService
{
public:
    DevService();
    DevService(QUrl baseUrl, QByteArray adminToken);

    [[nodiscard]] QUrl baseUrl() const { return m_baseUrl; }
    [[nodiscard]] QByteArray adminToken() const { return m_adminToken; }
    [[nodiscard]] bool available() const { return m_baseUrl.isValid() && !m_baseUrl.isEmpty(); }

    void reset() { post("/admin/reset", {}); }
    QJsonObject setConfig(const QJsonObject &config) { return post("/admin/config", config).json(); }
    // {"path": "/pair/token", "method": "POST", "count": 1, "status": 500, "body": "...",
    //  "contentType": "...", "headers": {...}, "delayMs": 0, "drop": false}
    void addFault(const QJsonObject &fault) { post("/admin/faults", fault); }

    // Every non-admin request; secret header values (Authorization, X-Admin-Token,
    // Cookie) are shown as redacted(value).
    [[nodiscard]] QJsonArray requests() { return get("/admin/requests").array(); }
    [[nodiscard]] static QString redacted(const QByteArray &value);
    [[nodiscard]] QJsonArray pairings() { return get("/admin/pairings").array(); }
    // Confirms a pending code as the phone would; returns the answer's JSON
    // ({"sessionId", "accountId", "profileId"} or {"error"}).
    QJsonObject confirm(const QString &userCode, bool anonymous)
    {
        const QJsonObject code { { QStringLiteral("userCode"), userCode },
            { QStringLiteral("anonymous"), anonymous } };
        return post("/admin/pairings/confirm", code).json();
    }
    // A session made directly, without pairing: the SessionPayload plus "accountId".
    QJsonObject createSession(bool anonymous)
    {
        return post("/admin/sessions", { { QStringLiteral("anonymous"), anonymous } }).json();
    }
    [[nodiscard]] QJsonArray sessions() { return get("/admin/sessions").array(); }
    [[nodiscard]] QJsonArray notes() { return get("/admin/notes").array(); }
    [[nodiscard]] QJsonArray uploads() { return get("/admin/uploads").array(); }
    // Raw bytes of an uploaded object, fetched from the service.
    [[nodiscard]] QByteArray download(const QString &key)
    {
        return send("GET", QStringLiteral("/files/") + key).body;
    }

    struct Account
    {
        QString sessionId;
        QByteArray token;
        QString accountId;
    };
    // A session made directly, as createSession() does.
    Account newAccount(bool anonymous);
    // Fetches an upload target and PUTs `bytes` there as the recorder does; the key, or "" on failure.
    QString upload(const Account &account, const QByteArray &bytes);
    // Starts a pairing for the device of deviceMembers: {"deviceCode", "userCode", …}.
    QJsonObject startPairing();
    // The seven members of a device description as the recorder sends them, without braces.
    static const QByteArray deviceMembers;
    // A note's members as the recorder sends them, but for the user member; without braces.
    [[nodiscard]] static QByteArray noteMembers(const QString &recordingKey);

    struct Reply
    {
        int status = 0;
        QByteArray body;
        [[nodiscard]] QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
        [[nodiscard]] QJsonArray array() const { return QJsonDocument::fromJson(body).array(); }
    };
    // Adds the admin token to requests for "/", "/admin/…" and "/files/…".
    Reply send(const QByteArray &method, const QString &path, const QByteArray &body = {},
        const QList<QPair<QByteArray, QByteArray>> &headers = {});

private:
    Reply get(const char *path) { return send("GET", QString::fromLatin1(path)); }
    Reply post(const char *path, const QJsonObject &body)
    {
        return send("POST", QString::fromLatin1(path), QJsonDocument(body).toJson(QJsonDocument::Compact));
    }

    QUrl m_baseUrl;
    QByteArray m_adminToken;
};
