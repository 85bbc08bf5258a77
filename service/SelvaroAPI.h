#pragma once

#include "service/ApiError.h"
#include "service/DeviceInfo.h"
#include "service/NoteRecord.h"
#include "service/PairingStart.h"
#include "service/ServiceDeadlines.h"
#include "service/SessionPayload.h"
#include "service/UploadTarget.h"

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QString>
#include <QUrl>

#include <qcoro/qcorotask.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;

// The application's only client of the note service.
//
// A value: it holds the network manager, the base URL and the deadlines, nothing that
// changes, so copies are free and calls may overlap. Each call copies the client into
// its coroutine, so a call outlives the object it was started from; the network
// manager must outlive every call (the application keeps one for the whole process).
// Calls run on the thread of the network manager (the main thread).
//
// Uploads go through a network manager of their own, made with the client and shared by
// its copies: a recording's PUT never shares a connection with the JSON calls, so a
// stalled upload body cannot hold the JSON calls up behind it (HTTP/2 would multiplex
// both on one connection), nor a JSON call the upload.
//
// Failures are C++ exceptions carried through the awaited QCoro::Task: every call
// throws ApiError (a failure below HTTP as ApiError::transport).
class SelvaroAPI
{
public:
    // Bodies of JSON answers larger than this are refused without being read whole.
    static constexpr qint64 maxJsonBodyBytes = 1024 * 1024;

    // The service origin compiled in (BuildInfo::serviceUrl). Parsed once; an
    // unparsable value stops the process, since no build may ship with one.
    [[nodiscard]] static QUrl compiledBaseUrl();

    explicit SelvaroAPI(
        QNetworkAccessManager *network, QUrl baseUrl = compiledBaseUrl(), ServiceDeadlines deadlines = {});

    [[nodiscard]] QUrl baseUrl() const { return m_baseUrl; }
    [[nodiscard]] const ServiceDeadlines &deadlines() const { return m_deadlines; }

    // POST /pair {"device": …}
    [[nodiscard]] QCoro::Task<PairingStart> startPairing(DeviceInfo device) const;
    // POST /pair/token {"deviceCode": …}; nothing while the user has not confirmed
    // (the service's "authorization_pending"), any other failure thrown.
    [[nodiscard]] QCoro::Task<std::optional<SessionPayload>> redeemPairing(QString deviceCode) const;
    // POST /sessions/<id>/refresh {"device": …}; the id goes into the path verbatim.
    [[nodiscard]] QCoro::Task<SessionPayload> refreshSession(
        QString id, QString token, DeviceInfo device) const;
    // GET /upload-recording-url?ext=m4a
    [[nodiscard]] QCoro::Task<UploadTarget> uploadTarget(QString token) const;
    // POST /api/collections/notes/records with the eight members of noteBody().
    [[nodiscard]] QCoro::Task<NoteRecord> createNote(QString token, QString accountId, bool isAnonymous,
        QDateTime startedAt, qint64 duration, QString recordingKey) const;
    // Bytes of the body sent so far and the file's size, as the upload goes.
    using UploadProgress = std::function<void(qint64 sent, qint64 total)>;
    // PUT of the file at `filePath` to target.url, streamed from disk, with only
    // "Content-Type: audio/m4a". Succeeds only on 200; any other status, redirects
    // included, throws ApiError::http(status, "upload_failed"). A failure below HTTP
    // (or a file that cannot be opened) throws ApiError::transport. The target
    // must be https, unless the base URL itself is a loopback http one (the local note
    // service): anything else is ApiError::badResponse, before a byte is sent.
    // `progress` is called on the main thread while the body goes out.
    [[nodiscard]] QCoro::Task<> upload(
        QString filePath, UploadTarget target, UploadProgress progress = {}) const;

    // "selvaro-recorder/" + the short version ("0" when none is compiled in).
    [[nodiscard]] static QByteArray userAgent();
    // An optional "+" or "-" and decimal digits, nothing else; anything else gives 0.
    [[nodiscard]] static qint64 parseBuildNumber(const QString &text);
    // The note as sent: startedAt in UTC with milliseconds and "Z", the duration, the
    // recording key, source, sourceUrl, buildNumber, deviceLocale, and the account id
    // under "anonUser" or "user".
    [[nodiscard]] static QJsonObject noteBody(const QString &accountId, bool isAnonymous,
        const QDateTime &startedAt, qint64 duration, const QString &recordingKey);

private:
    // The one path of every JSON call: headers, body, status mapping, size limit,
    // logging. Returns the body of an answer below 400; throws ApiError otherwise.
    static QCoro::Task<QByteArray> request(SelvaroAPI self, QByteArray method, QString path,
        std::optional<QString> token, std::optional<QJsonObject> body);

    // request() and the decoding of its answer into Record.
    template <typename Record>
    static QCoro::Task<Record> call(SelvaroAPI self, QByteArray method, QString path,
        std::optional<QString> token, std::optional<QJsonObject> body);
    static QCoro::Task<std::optional<SessionPayload>> pendingAsNothing(QCoro::Task<SessionPayload> redeem);
    static QCoro::Task<> uploadCall(
        SelvaroAPI self, QString filePath, UploadTarget target, UploadProgress progress);

    QNetworkAccessManager *m_network;
    std::shared_ptr<QNetworkAccessManager> m_uploadNetwork;
    QUrl m_baseUrl;
    ServiceDeadlines m_deadlines;
};
