#pragma once

#include "Jwt.h"
#include "ObjectStore.h"
#include "Outcome.h"
#include "ServiceConfig.h"
#include "ServiceRecords.h"
#include "StateFile.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <functional>
#include <mutex>
#include <optional>

// The service's rules over everything it remembers: pairings, sessions, issued
// upload targets, uploaded objects, notes and the request log. It answers with
// records and ServiceErrors; the routes make HTTP of them. Every public method
// takes the one mutex, so the server's pool threads may call any of them at any
// time; none of them blocks on the network or on a large file while holding it.
//
// With a state file the records are written to it after each change and read
// back at start.
class ServiceState
{
public:
    // Milliseconds since the epoch; replaceable so that expiry can be tested exactly.
    using Clock = std::function<qint64()>;

    struct UploadTarget
    {
        QString key;
        QString url; // pre-signed, on the base URL
    };

    ServiceState(ServiceConfig startConfig, const ObjectStore &objects, QString stateFile, Clock clock = {});

    // Reads the state file, if any; the reason when it exists but is unreadable.
    [[nodiscard]] Outcome<std::monostate, QString> load();
    // The origin clients reach us at, used in the URLs we hand out. Set once before serving.
    void setBaseUrl(const QString &baseUrl);
    [[nodiscard]] QString baseUrl();
    [[nodiscard]] qint64 now() const { return m_clock(); }

    [[nodiscard]] ServiceConfig config();
    Outcome<ServiceConfig> setConfig(const QJsonObject &changes);
    void reset();

    // Pairing
    Outcome<Pairing> startPairing(const QJsonValue &device);
    Outcome<Session> redeemPairing(const QString &deviceCode);
    Outcome<Session> confirmPairing(const QString &userCode, bool anonymous);

    // Sessions and tokens
    // Judged in the order the client relies on: unknown session, then a token not
    // of this session, then a bad device description.
    Outcome<Session> refreshSession(
        const QString &sessionId, const QByteArray &token, const QJsonValue &device);
    Session createSession(bool anonymous);
    bool deleteSession(const QString &sessionId);
    // The session a token belongs to, when the token is ours, unexpired and its session alive.
    std::optional<Session> authenticate(const QByteArray &token);

    // Uploads
    UploadTarget uploadTarget(const Session &session, const QString &extension);
    // Whether the pre-signed query allows a PUT of `key` now.
    Outcome<> checkUploadSignature(const QString &key, const QString &expires, const QString &signature);
    void storeUpload(const Upload &upload);
    std::optional<Upload> upload(const QString &key);

    // Notes
    Outcome<Note> createNote(const Session &session, const QJsonObject &body);

    // What the admin views show
    void logRequest(const QJsonObject &entry);
    QJsonArray requests();
    QList<Pairing> pairings();
    QList<Session> sessions(); // oldest first
    QList<Note> notes(); // newest first
    QList<Upload> uploads(); // by key

private:
    // The caller holds m_mutex for all of these.
    Session &newSession(bool anonymous, const QJsonObject &device);
    QByteArray issueToken(const Session &session) const;
    Pairing *findPairingByUserCode(const QString &userCode);
    QByteArray uploadSignature(const QString &key, const QString &expires) const;
    QString newUserCode() const;
    void save() { m_file.save(m_records); }

    std::mutex m_mutex;
    const ServiceConfig m_startConfig;
    ServiceConfig m_config;
    const ObjectStore &m_objects;
    const StateFile m_file;
    const Clock m_clock;
    QString m_baseUrl;
    ServiceRecords m_records;
    Jwt m_jwt;
    QJsonArray m_requests;
};
