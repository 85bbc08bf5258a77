#include "ServiceState.h"

#include "Crypto.h"
#include "DeviceValidator.h"
#include "NoteValidator.h"

#include <QDateTime>
#include <QFile>

#include <algorithm>
#include <limits>

namespace {
const QLatin1String idAlphabet("abcdefghijklmnopqrstuvwxyz0123456789");
// No 0/O, 1/I/L: a user code is read off one screen and typed on another.
const QLatin1String userCodeAlphabet("ABCDEFGHJKMNPQRSTUVWXYZ23456789");
constexpr int requestLogLimit = 10000;

QString newId(int length = 15)
{
    return Crypto::randomString(idAlphabet, length);
}

ServiceError refusal(ServiceError::Kind kind, const char *code)
{
    return { kind, QString::fromLatin1(code) };
}

ServiceError rejected(const QString &code)
{
    return { ServiceError::Kind::Rejected, code };
}

// "r3xd8n5w", "R3XD-8N5W" and " r3xd-8n5w " all name the same code: the phone's
// deep link carries it without the dash.
QString normalizedUserCode(const QString &code)
{
    QString result;
    for (const QChar c : code) {
        if (c.isLetterOrNumber())
            result.append(c.toUpper());
    }
    return result;
}
} // namespace

ServiceState::ServiceState(
    ServiceConfig startConfig, const ObjectStore &objects, QString stateFile, Clock clock)
    : m_startConfig(startConfig)
    , m_config(startConfig)
    , m_objects(objects)
    , m_file(std::move(stateFile))
    , m_clock(clock ? std::move(clock) : [] { return QDateTime::currentMSecsSinceEpoch(); })
    , m_records { .secret = Crypto::randomBytes(32) }
    , m_jwt(m_records.secret)
{ }

Outcome<std::monostate, QString> ServiceState::load()
{
    const std::lock_guard lock(m_mutex);
    const auto kept = m_file.load();
    if (!kept)
        return kept.error();
    const QByteArray secret = m_records.secret;
    m_records = *kept;
    // A file without a usable secret keeps the one made at start.
    if (m_records.secret.size() < 32)
        m_records.secret = secret;
    m_jwt = Jwt(m_records.secret);
    // An object whose file went missing is forgotten rather than served as empty.
    m_records.uploads.removeIf([this](const auto &entry) {
        return !ObjectStore::isValidKey(entry.key()) || !QFile::exists(m_objects.pathOf(entry.key()));
    });
    save();
    return {};
}

void ServiceState::setBaseUrl(const QString &baseUrl)
{
    const std::lock_guard lock(m_mutex);
    m_baseUrl = baseUrl;
}

QString ServiceState::baseUrl()
{
    const std::lock_guard lock(m_mutex);
    return m_baseUrl;
}

ServiceConfig ServiceState::config()
{
    const std::lock_guard lock(m_mutex);
    return m_config;
}

Outcome<ServiceConfig> ServiceState::setConfig(const QJsonObject &changes)
{
    const std::lock_guard lock(m_mutex);
    const QString error = m_config.apply(changes);
    if (!error.isEmpty())
        return rejected(error);
    return m_config;
}

void ServiceState::reset()
{
    const std::lock_guard lock(m_mutex);
    m_config = m_startConfig;
    m_records = { .secret = m_records.secret };
    m_requests = {};
    m_objects.clear();
    save();
}

// --- pairing ---------------------------------------------------------------

QString ServiceState::newUserCode() const
{
    for (;;) {
        const QString raw = Crypto::randomString(userCodeAlphabet, 8);
        const bool taken = std::any_of(m_records.pairings.begin(), m_records.pairings.end(),
            [&raw](const Pairing &p) { return normalizedUserCode(p.userCode) == raw; });
        if (!taken)
            return raw.left(4) + QLatin1Char('-') + raw.mid(4);
    }
}

Outcome<Pairing> ServiceState::startPairing(const QJsonValue &device)
{
    const QString deviceError = DeviceValidator::check(device);
    if (!deviceError.isEmpty())
        return rejected(deviceError);
    const std::lock_guard lock(m_mutex);
    Pairing pairing;
    pairing.deviceCode = QString::fromLatin1(
        Crypto::randomBytes(32).toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
    pairing.userCode = newUserCode();
    pairing.device = device.toObject();
    pairing.createdAtMs = m_clock();
    pairing.expiresAtMs = pairing.createdAtMs + m_config.expiresIn * 1000;
    m_records.pairings.append(pairing);
    save();
    return pairing;
}

Outcome<Session> ServiceState::redeemPairing(const QString &deviceCode)
{
    const std::lock_guard lock(m_mutex);
    auto it = std::find_if(m_records.pairings.begin(), m_records.pairings.end(),
        [&deviceCode](const Pairing &p) { return p.deviceCode == deviceCode; });
    if (it == m_records.pairings.end())
        return refusal(ServiceError::Kind::NotFound, "code_not_found");
    if (it->state == Pairing::State::Redeemed)
        return refusal(ServiceError::Kind::AlreadyUsed, "code_already_used");
    if (it->expiredAt(m_clock()))
        return refusal(ServiceError::Kind::Expired, "code_expired");
    if (it->state == Pairing::State::Pending)
        return refusal(ServiceError::Kind::Rejected, "authorization_pending");
    const auto session = m_records.sessions.constFind(it->sessionId);
    if (session == m_records.sessions.constEnd()) // removed by an admin between confirm and redeem
        return refusal(ServiceError::Kind::Expired, "code_expired");
    it->state = Pairing::State::Redeemed;
    save();
    return *session;
}

Pairing *ServiceState::findPairingByUserCode(const QString &userCode)
{
    const QString wanted = normalizedUserCode(userCode);
    for (Pairing &pairing : m_records.pairings) {
        if (!wanted.isEmpty() && normalizedUserCode(pairing.userCode) == wanted)
            return &pairing;
    }
    return nullptr;
}

Outcome<Session> ServiceState::confirmPairing(const QString &userCode, bool anonymous)
{
    const std::lock_guard lock(m_mutex);
    Pairing *pairing = findPairingByUserCode(userCode);
    if (!pairing)
        return refusal(ServiceError::Kind::NotFound, "code_not_found");
    if (pairing->state != Pairing::State::Pending)
        return refusal(ServiceError::Kind::AlreadyUsed, "code_already_used");
    if (pairing->expiredAt(m_clock()))
        return refusal(ServiceError::Kind::Expired, "code_expired");
    const Session &session = newSession(anonymous, pairing->device);
    pairing->state = Pairing::State::Confirmed;
    pairing->sessionId = session.id;
    save();
    return session;
}

// --- sessions ----------------------------------------------------------------

Session &ServiceState::newSession(bool anonymous, const QJsonObject &device)
{
    Session session;
    session.id = newId();
    session.accountId = newId();
    session.profileId = newId();
    session.anonymous = anonymous;
    session.device = device;
    session.createdAtMs = m_clock();
    session.token = issueToken(session);
    return *m_records.sessions.insert(session.id, session);
}

QByteArray ServiceState::issueToken(const Session &session) const
{
    const qint64 now = m_clock() / 1000;
    // "jti" keeps two tokens issued within one second distinct.
    return m_jwt.sign({ { QStringLiteral("id"), session.accountId }, { QStringLiteral("sid"), session.id },
        { QStringLiteral("anon"), session.anonymous }, { QStringLiteral("iat"), now },
        { QStringLiteral("exp"), now + m_config.tokenTtl }, { QStringLiteral("jti"), newId(12) } });
}

Outcome<Session> ServiceState::refreshSession(
    const QString &sessionId, const QByteArray &token, const QJsonValue &device)
{
    const std::lock_guard lock(m_mutex);
    auto it = m_records.sessions.find(sessionId);
    if (it == m_records.sessions.end())
        return refusal(ServiceError::Kind::NotFound, "session_not_found");
    if (token.isEmpty())
        return refusal(ServiceError::Kind::Unauthenticated, "missing_token");
    // An expired token may still renew its own session: that is what refresh is for.
    const auto claims = m_jwt.verify(token, std::numeric_limits<qint64>::min());
    if (!claims || claims->value(QStringLiteral("sid")).toString() != sessionId
        || claims->value(QStringLiteral("id")).toString() != it->accountId)
        return refusal(ServiceError::Kind::Unauthenticated, "invalid_token");
    const QString deviceError = DeviceValidator::check(device);
    if (!deviceError.isEmpty())
        return rejected(deviceError);
    it->device = device.toObject();
    it->token = issueToken(*it);
    save();
    return *it;
}

Session ServiceState::createSession(bool anonymous)
{
    const std::lock_guard lock(m_mutex);
    const Session session = newSession(anonymous, {});
    save();
    return session;
}

bool ServiceState::deleteSession(const QString &sessionId)
{
    const std::lock_guard lock(m_mutex);
    const bool removed = m_records.sessions.remove(sessionId) > 0;
    if (removed)
        save();
    return removed;
}

std::optional<Session> ServiceState::authenticate(const QByteArray &token)
{
    const std::lock_guard lock(m_mutex);
    const auto claims = m_jwt.verify(token, m_clock() / 1000);
    if (!claims)
        return std::nullopt;
    const auto it = m_records.sessions.constFind(claims->value(QStringLiteral("sid")).toString());
    if (it == m_records.sessions.constEnd()
        || claims->value(QStringLiteral("id")).toString() != it->accountId)
        return std::nullopt;
    return *it;
}

// --- uploads -----------------------------------------------------------------

QByteArray ServiceState::uploadSignature(const QString &key, const QString &expires) const
{
    return Crypto::hmacSha256(m_records.secret, "upload\n" + key.toUtf8() + '\n' + expires.toUtf8()).toHex();
}

ServiceState::UploadTarget ServiceState::uploadTarget(const Session &session, const QString &extension)
{
    const std::lock_guard lock(m_mutex);
    const QString key = newId(24) + QLatin1Char('.') + extension;
    const QString expires = QString::number(m_clock() / 1000 + m_config.uploadUrlTtl);
    m_records.issuedKeys.insert(key, session.accountId);
    save();
    return { key,
        m_baseUrl + QStringLiteral("/uploads/") + key + QStringLiteral("?expires=") + expires
            + QStringLiteral("&signature=") + QString::fromLatin1(uploadSignature(key, expires)) };
}

Outcome<> ServiceState::checkUploadSignature(
    const QString &key, const QString &expires, const QString &signature)
{
    const std::lock_guard lock(m_mutex);
    if (expires.isEmpty() || signature.isEmpty()
        || !Crypto::equal(signature.toLatin1(), uploadSignature(key, expires)))
        return refusal(ServiceError::Kind::Forbidden, "invalid_signature");
    bool ok = false;
    const qint64 expiresAt = expires.toLongLong(&ok);
    if (!ok || m_clock() / 1000 >= expiresAt)
        return refusal(ServiceError::Kind::Forbidden, "url_expired");
    return {};
}

void ServiceState::storeUpload(const Upload &upload)
{
    const std::lock_guard lock(m_mutex);
    m_records.uploads.insert(upload.key, upload);
    save();
}

std::optional<Upload> ServiceState::upload(const QString &key)
{
    const std::lock_guard lock(m_mutex);
    const auto it = m_records.uploads.constFind(key);
    if (it == m_records.uploads.constEnd())
        return std::nullopt;
    return *it;
}

// --- notes -------------------------------------------------------------------

Outcome<Note> ServiceState::createNote(const Session &session, const QJsonObject &body)
{
    const std::lock_guard lock(m_mutex);
    const NoteValidator validator(session.anonymous, session.accountId, [this, &session](const QString &key) {
        return m_records.uploads.contains(key) && m_records.issuedKeys.value(key) == session.accountId;
    });
    const QString error = validator.check(body);
    if (!error.isEmpty())
        return rejected(error);
    Note note;
    note.id = newId();
    note.body = body;
    note.recordingKey = body.value(QLatin1String("recordingKey")).toString();
    note.accountId = session.accountId;
    note.createdAtMs = m_clock();
    m_records.notes.append(note);
    save();
    return note;
}

// --- what the admin views show -------------------------------------------------

void ServiceState::logRequest(const QJsonObject &entry)
{
    const std::lock_guard lock(m_mutex);
    if (m_requests.size() >= requestLogLimit)
        m_requests.removeFirst();
    m_requests.append(entry);
}

QJsonArray ServiceState::requests()
{
    const std::lock_guard lock(m_mutex);
    return m_requests;
}

QList<Pairing> ServiceState::pairings()
{
    const std::lock_guard lock(m_mutex);
    return m_records.pairings;
}

QList<Session> ServiceState::sessions()
{
    const std::lock_guard lock(m_mutex);
    QList<Session> ordered = m_records.sessions.values();
    std::sort(ordered.begin(), ordered.end(),
        [](const Session &a, const Session &b) { return a.createdAtMs < b.createdAtMs; });
    return ordered;
}

QList<Note> ServiceState::notes()
{
    const std::lock_guard lock(m_mutex);
    return { m_records.notes.crbegin(), m_records.notes.crend() };
}

QList<Upload> ServiceState::uploads()
{
    const std::lock_guard lock(m_mutex);
    QList<Upload> ordered = m_records.uploads.values();
    std::sort(ordered.begin(), ordered.end(), [](const Upload &a, const Upload &b) { return a.key < b.key; });
    return ordered;
}
