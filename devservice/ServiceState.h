#pragma once

#include "Answer.h"
#include "Jwt.h"
#include "ObjectStore.h"
#include "ServiceConfig.h"

#include <QByteArray>
#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <functional>
#include <mutex>
#include <optional>

// Everything the service remembers: pairings, sessions, issued upload targets,
// uploaded objects, notes and the request log. Every public method takes the one
// mutex, so the server's pool threads may call any of them at any time; none of
// them blocks on the network or on a large file while holding it.
//
// With a state file the durable parts (secret, pairings, sessions, uploads,
// notes) are written to it after each change and read back at start.
class ServiceState
{
public:
    struct Session
    {
        QString id;
        QString accountId;
        QString profileId;
        bool anonymous = false;
        QByteArray token;
        QJsonObject device;
        qint64 createdAtMs = 0;
    };

    struct Upload
    {
        QString key;
        qint64 size = 0;
        QString contentType;
    };

    // Milliseconds since the epoch; replaceable so that expiry can be tested exactly.
    using Clock = std::function<qint64()>;

    ServiceState(ServiceConfig startConfig, const ObjectStore &objects, QString stateFile, Clock clock = {});

    // Reads the state file, if any; false with a reason when it exists but is unreadable.
    bool load(QString *error);
    // The origin clients reach us at, used in the URLs we hand out. Set once before serving.
    void setBaseUrl(const QString &baseUrl);

    [[nodiscard]] ServiceConfig config();
    Answer setConfig(const QJsonObject &changes);
    void reset();

    // Pairing
    Answer startPairing(const QJsonObject &device);
    Answer redeemPairing(const QString &deviceCode);
    Answer confirmPairing(const QString &userCode, bool anonymous);

    // Sessions and tokens
    // Judged in the order the client relies on: unknown session 404, then a token
    // not of this session 401, then a bad device description (`deviceError`) 400.
    Answer refreshSession(const QString &sessionId, const QByteArray &token, const QJsonObject &device,
        const QString &deviceError);
    Answer createSession(bool anonymous);
    bool deleteSession(const QString &sessionId);
    // The session a token belongs to, when the token is ours, unexpired and its session alive.
    std::optional<Session> authenticate(const QByteArray &token);

    // Uploads
    Answer uploadTarget(const Session &session, const QString &extension);
    // "" when the pre-signed query is valid for `key` now, else the error code.
    QString checkUploadSignature(const QString &key, const QString &expires, const QString &signature);
    void storeUpload(const Upload &upload);
    std::optional<Upload> upload(const QString &key);

    // Notes
    Answer createNote(const Session &session, const QJsonObject &body);

    // Admin views
    void logRequest(const QJsonObject &entry);
    QJsonArray requests();
    QJsonArray pairings();
    QJsonArray sessions();
    QJsonArray notes();
    QJsonArray uploads();

private:
    enum class PairingState { Pending, Confirmed, Redeemed };
    struct Pairing
    {
        QString deviceCode;
        QString userCode;
        QJsonObject device;
        PairingState state = PairingState::Pending;
        qint64 createdAtMs = 0;
        qint64 expiresAtMs = 0;
        QString sessionId;
    };
    struct Note
    {
        QString id;
        QJsonObject body;
        QString recordingKey;
        QString accountId;
        qint64 createdAtMs = 0;
    };

    // The caller holds m_mutex for all of these.
    Session &newSession(bool anonymous, const QJsonObject &device);
    QByteArray issueToken(const Session &session) const;
    QJsonObject sessionPayload(const Session &session) const;
    Pairing *findPairingByUserCode(const QString &userCode);
    QByteArray uploadSignature(const QString &key, const QString &expires) const;
    QString newUserCode() const;
    void save();
    QJsonObject toJson() const;
    void fromJson(const QJsonObject &object);

    std::mutex m_mutex;
    const ServiceConfig m_startConfig;
    ServiceConfig m_config;
    const ObjectStore &m_objects;
    const QString m_stateFile;
    Clock m_clock;
    QString m_baseUrl;
    QByteArray m_secret;
    Jwt m_jwt;

    QList<Pairing> m_pairings;
    QHash<QString, Session> m_sessions;
    // Key → account it was issued to; a note may only cite its own account's objects.
    QHash<QString, QString> m_issuedKeys;
    QHash<QString, Upload> m_uploads;
    QList<Note> m_notes;
    QJsonArray m_requests;
};
