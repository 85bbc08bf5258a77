#include "service/SelvaroAPI.h"

#include "BuildInfo.h"
#include "common/Logging.h"
#include "service/ApiErrorBody.h"
#include "service/RetryAfter.h"
#include "service/ServiceText.h"

#include <QFile>
#include <QHostAddress>
#include <QJsonDocument>
#include <QLocale>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>

#include <qcoro/qcoronetworkreply.h>

#include <limits>
#include <memory>

namespace {

struct LaterDeleter
{
    void operator()(QObject *object) const { object->deleteLater(); }
};
using ReplyPtr = std::unique_ptr<QNetworkReply, LaterDeleter>;

bool hasStatus(const QNetworkReply &reply)
{
    return reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
}

int statusOf(const QNetworkReply &reply)
{
    return reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

// Qt folds two things into QNetworkReply::error(): failures below HTTP, and the
// status of a complete answer (404 -> ContentNotFoundError, 500 ->
// InternalServerError, …). Only the first kind is a transport error; an answer
// with a status is judged by its status.
bool failedBelowHttp(const QNetworkReply &reply)
{
    const int error = reply.error();
    if (error == QNetworkReply::NoError)
        return false;
    if (!hasStatus(reply))
        return true;
    // A 407 from the server reads as a proxy failure, but it is an answer like any other.
    if (error == QNetworkReply::ProxyAuthenticationRequiredError && statusOf(reply) == 407)
        return false;
    return error < 200 // connection, TLS, timeout, redirect and proxy failures
        || error == QNetworkReply::ProtocolUnknownError || error == QNetworkReply::ProtocolFailure;
}

// Ends the reply once `deadline` has passed, however steadily it still trickles in. The
// abort reads as a cancelled operation, which timedOut() reports as a time-out. QTimer
// takes an int of milliseconds; longer deadlines are cut to about 24 days.
void limitTime(QNetworkReply *reply, std::chrono::milliseconds deadline)
{
    auto *timer = new QTimer(reply);
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(timer, &QTimer::timeout, reply, &QNetworkReply::abort);
    QObject::connect(reply, &QNetworkReply::finished, timer, &QTimer::stop);
    timer->start(static_cast<int>(std::min<qint64>(deadline.count(), std::numeric_limits<int>::max())));
}

bool isLoopbackHttp(const QUrl &url)
{
    const QString host = url.host();
    return url.scheme() == QLatin1String("http")
        && (host.compare(QLatin1String("localhost"), Qt::CaseInsensitive) == 0
            || QHostAddress(host).isLoopback());
}

// Only https, so the recording never crosses the network in the clear; plain http
// only while the client itself talks to a loopback service (the local note service).
bool isAcceptableUploadUrl(const QUrl &url, const QUrl &baseUrl)
{
    if (!url.isValid() || url.host().isEmpty())
        return false;
    return url.scheme() == QLatin1String("https")
        || (url.scheme() == QLatin1String("http") && isLoopbackHttp(baseUrl));
}

// Refuses a JSON answer larger than any record before it is read whole: by its
// declared length as soon as the headers arrive, and by what has actually arrived
// for chunked or lying answers. The read buffer caps what Qt holds meanwhile.
// `oversized` must outlive the reply's signals (it lives in the awaiting coroutine).
void limitBody(QNetworkReply *reply, bool *oversized)
{
    reply->setReadBufferSize(SelvaroAPI::maxJsonBodyBytes + 1);
    const auto refuse = [reply, oversized](qint64 size) {
        if (size > SelvaroAPI::maxJsonBodyBytes && !*oversized) {
            *oversized = true;
            reply->abort();
        }
    };
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [reply, refuse] {
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        if (length.isValid())
            refuse(length.toLongLong());
    });
    QObject::connect(
        reply, &QNetworkReply::readyRead, reply, [reply, refuse] { refuse(reply->bytesAvailable()); });
}

// The transfer timeout and the deadline are the only aborts not asked for by limitBody.
bool timedOut(const QNetworkReply &reply, bool abortedHere)
{
    return reply.error() == QNetworkReply::OperationCanceledError && !abortedHere;
}

std::optional<std::chrono::seconds> retryAfterOf(const QNetworkReply &reply)
{
    return RetryAfter::parse(
        reply.rawHeader(QByteArrayLiteral("Retry-After")), QDateTime::currentDateTimeUtc());
}

QString errorCode(int status, const QByteArray &body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (const auto errorBody = ApiErrorBody::fromJson(document.object()); errorBody && document.isObject())
        return ServiceText::bounded(errorBody->error);
    return QStringLiteral("http_") + QString::number(status);
}

template <typename Record>
Record decoded(const QByteArray &method, const QString &path, const QByteArray &body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (document.isObject()) {
        if (auto record = Record::fromJson(document.object()))
            return *std::move(record);
    }
    qCCritical(
        lcApi, "%s %s: undecodable body", method.constData(), qUtf8Printable(ServiceText::bounded(path)));
    throw ApiError::badResponse();
}

} // namespace

QUrl SelvaroAPI::compiledBaseUrl()
{
    static const QUrl url = [] {
        QUrl parsed(QString::fromUtf8(BuildInfo::serviceUrl), QUrl::StrictMode);
        if (!parsed.isValid() || parsed.host().isEmpty())
            qFatal("The compiled-in service URL \"%s\" is not a URL with a host", BuildInfo::serviceUrl);
        return parsed;
    }();
    return url;
}

SelvaroAPI::SelvaroAPI(QNetworkAccessManager *network, QUrl baseUrl, ServiceDeadlines deadlines)
    : m_network(network)
    , m_uploadNetwork(std::make_shared<QNetworkAccessManager>())
    , m_baseUrl(std::move(baseUrl))
    , m_deadlines(deadlines)
{
    Q_ASSERT(m_network);
}

QByteArray SelvaroAPI::userAgent()
{
    const QByteArray version(BuildInfo::shortVersion);
    return QByteArrayLiteral("selvaro-recorder/") + (version.isEmpty() ? QByteArrayLiteral("0") : version);
}

qint64 SelvaroAPI::parseBuildNumber(const QString &text)
{
    QStringView digits(text);
    if (digits.startsWith(QLatin1Char('+')) || digits.startsWith(QLatin1Char('-')))
        digits = digits.mid(1);
    if (digits.isEmpty())
        return 0;
    for (const QChar c : digits) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return 0;
    }
    bool ok = false;
    const qint64 number = text.toLongLong(&ok, 10); // fails on overflow, which also gives 0
    return ok ? number : 0;
}

QJsonObject SelvaroAPI::noteBody(const QString &accountId, bool isAnonymous, const QDateTime &startedAt,
    qint64 duration, const QString &recordingKey)
{
    return {
        { QStringLiteral("startedAt"), startedAt.toUTC().toString(Qt::ISODateWithMs) },
        { QStringLiteral("duration"), duration },
        { QStringLiteral("recordingKey"), recordingKey },
        { QStringLiteral("source"), QStringLiteral("recorder") },
        { QStringLiteral("sourceUrl"), QString(QLatin1String("")) },
        { QStringLiteral("buildNumber"), parseBuildNumber(QString::fromUtf8(BuildInfo::buildNumber)) },
        { QStringLiteral("deviceLocale"), QLocale().name() },
        { isAnonymous ? QStringLiteral("anonUser") : QStringLiteral("user"), accountId },
    };
}

QCoro::Task<QByteArray> SelvaroAPI::request(SelvaroAPI self, QByteArray method, QString path,
    std::optional<QString> token, std::optional<QJsonObject> body)
{
    const QUrl url = self.m_baseUrl.resolved(QUrl(path));
    Q_ASSERT_X(url.isValid(), "SelvaroAPI::request", "path does not form a URL");

    QNetworkRequest request(url);
    request.setTransferTimeout(static_cast<int>(self.m_deadlines.inactivity.count()));
    // The token must never reach another host, so only same-origin redirects are followed.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::SameOriginRedirectPolicy);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setHeader(QNetworkRequest::UserAgentHeader, userAgent());
    // The service takes the bare token, without a scheme word.
    if (token)
        request.setRawHeader(QByteArrayLiteral("Authorization"), token->toUtf8());

    const QByteArray payload = body ? QJsonDocument(*body).toJson(QJsonDocument::Compact) : QByteArray();
    ReplyPtr reply(body ? self.m_network->sendCustomRequest(request, method, payload)
                        : self.m_network->sendCustomRequest(request, method));
    bool oversized = false;
    limitBody(reply.get(), &oversized);
    limitTime(reply.get(), self.m_deadlines.jsonCall);
    co_await reply.get();

    if (failedBelowHttp(*reply) && !oversized)
        throw ApiError::transport(TransportError::fromReply(*reply, timedOut(*reply, false)));
    if (!hasStatus(*reply))
        throw ApiError::badResponse();

    const int status = statusOf(*reply);
    const QByteArray answer = oversized ? QByteArray() : reply->readAll();
    // The path may hold a session id, which came from the service.
    const QString loggedPath = ServiceText::bounded(path);
    if (status >= 400) {
        const QString code = errorCode(status, answer);
        qCCritical(lcApi, "%s %s -> %d %s", method.constData(), qUtf8Printable(loggedPath), status,
            qUtf8Printable(code));
        throw ApiError::http(status, code, retryAfterOf(*reply));
    }
    if (oversized) {
        qCCritical(lcApi, "%s %s: body over %lld bytes refused", method.constData(),
            qUtf8Printable(loggedPath), SelvaroAPI::maxJsonBodyBytes);
        throw ApiError::badResponse();
    }
    co_return answer;
}

template <typename Record>
QCoro::Task<Record> SelvaroAPI::call(SelvaroAPI self, QByteArray method, QString path,
    std::optional<QString> token, std::optional<QJsonObject> body)
{
    const QByteArray answer = co_await request(self, method, path, std::move(token), std::move(body));
    co_return decoded<Record>(method, path, answer);
}

QCoro::Task<PairingStart> SelvaroAPI::startPairing(DeviceInfo device) const
{
    return call<PairingStart>(*this, "POST", QStringLiteral("/pair"), std::nullopt,
        QJsonObject { { QStringLiteral("device"), device.toJson() } });
}

QCoro::Task<std::optional<SessionPayload>> SelvaroAPI::redeemPairing(QString deviceCode) const
{
    return pendingAsNothing(call<SessionPayload>(*this, "POST", QStringLiteral("/pair/token"), std::nullopt,
        QJsonObject { { QStringLiteral("deviceCode"), deviceCode } }));
}

QCoro::Task<std::optional<SessionPayload>> SelvaroAPI::pendingAsNothing(QCoro::Task<SessionPayload> redeem)
{
    try {
        co_return co_await std::move(redeem);
    } catch (const ApiError &error) {
        // Not confirmed on the phone yet: whatever the status, that is "no session yet".
        if (error.isHttp() && error.code() == QLatin1String("authorization_pending"))
            co_return std::nullopt;
        throw;
    }
}

QCoro::Task<SessionPayload> SelvaroAPI::refreshSession(QString id, QString token, DeviceInfo device) const
{
    // The id goes in as it is, not percent-escaped: the path must name exactly the
    // session the service issued.
    return call<SessionPayload>(*this, "POST", QStringLiteral("/sessions/") + id + QStringLiteral("/refresh"),
        std::move(token), QJsonObject { { QStringLiteral("device"), device.toJson() } });
}

QCoro::Task<UploadTarget> SelvaroAPI::uploadTarget(QString token) const
{
    return call<UploadTarget>(
        *this, "GET", QStringLiteral("/upload-recording-url?ext=m4a"), std::move(token), std::nullopt);
}

QCoro::Task<NoteRecord> SelvaroAPI::createNote(QString token, QString accountId, bool isAnonymous,
    QDateTime startedAt, qint64 duration, QString recordingKey) const
{
    return call<NoteRecord>(*this, "POST", QStringLiteral("/api/collections/notes/records"), std::move(token),
        noteBody(accountId, isAnonymous, startedAt, duration, recordingKey));
}

QCoro::Task<> SelvaroAPI::upload(QString filePath, UploadTarget target, UploadProgress progress) const
{
    return uploadCall(*this, std::move(filePath), std::move(target), std::move(progress));
}

QCoro::Task<> SelvaroAPI::uploadCall(
    SelvaroAPI self, QString filePath, UploadTarget target, UploadProgress progress)
{
    // The URL comes from the network: a broken one is the service's fault, not ours,
    // and must not stop the application.
    const QUrl url(target.url, QUrl::StrictMode);
    if (!isAcceptableUploadUrl(url, self.m_baseUrl))
        throw ApiError::badResponse();

    auto file = std::make_unique<QFile>(filePath);
    if (!file->open(QIODevice::ReadOnly)) {
        throw ApiError::transport(TransportError(
            file->exists() ? QNetworkReply::ContentAccessDenied : QNetworkReply::ContentNotFoundError,
            file->errorString()));
    }

    QNetworkRequest request(url);
    request.setTransferTimeout(static_cast<int>(self.m_deadlines.inactivity.count()));
    // Qt would turn a PUT answered 302 into a GET and report its 200: the recording
    // would be lost without a word. A redirect is a failed upload instead.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("audio/m4a"));

    // A random-access file gives Qt a Content-Length and lets it read the file in
    // chunks as the socket drains, so the recording is never held in memory.
    const qint64 size = file->size();
    ReplyPtr reply(self.m_uploadNetwork->put(request, file.get()));
    file.release()->setParent(reply.get());
    limitTime(reply.get(), self.m_deadlines.upload(size));
    // Whatever the storage answers is of no interest; drop it as it comes.
    reply->setReadBufferSize(64 * 1024);
    QObject::connect(reply.get(), &QNetworkReply::readyRead, reply.get(),
        [r = reply.get()] { r->skip(r->bytesAvailable()); });
    if (progress)
        QObject::connect(reply.get(), &QNetworkReply::uploadProgress, reply.get(), progress);
    co_await reply.get();
    // The reply is deleted later; `progress` may refer to what the caller ends now.
    QObject::disconnect(reply.get(), &QNetworkReply::uploadProgress, nullptr, nullptr);

    if (failedBelowHttp(*reply))
        throw ApiError::transport(TransportError::fromReply(*reply, timedOut(*reply, false)));
    if (!hasStatus(*reply))
        throw ApiError::badResponse();
    // Only 200 counts: a storage that answers 201 or 204 is not the one we expect.
    if (const int status = statusOf(*reply); status != 200)
        throw ApiError::http(status, QStringLiteral("upload_failed"), retryAfterOf(*reply));
}
