#include "ServiceState.h"

#include "Crypto.h"
#include "NoteValidator.h"

#include <QDateTime>
#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>

namespace {
const QLatin1String idAlphabet("abcdefghijklmnopqrstuvwxyz0123456789");
// No 0/O, 1/I/L: a user code is read off one screen and typed on another.
const QLatin1String userCodeAlphabet("ABCDEFGHJKMNPQRSTUVWXYZ23456789");
constexpr int requestLogLimit = 10000;

QString newId(int length = 15)
{
    return Crypto::randomString(idAlphabet, length);
}

QString isoTime(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(Qt::ISODateWithMs);
}

QString stateName(int state)
{
    static const QString names[]
        = { QStringLiteral("pending"), QStringLiteral("confirmed"), QStringLiteral("redeemed") };
    return names[state];
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
    , m_stateFile(std::move(stateFile))
    , m_clock(clock ? std::move(clock) : [] { return QDateTime::currentMSecsSinceEpoch(); })
    , m_secret(Crypto::randomBytes(32))
    , m_jwt(m_secret)
{ }

bool ServiceState::load(QString *error)
{
    const std::lock_guard lock(m_mutex);
    if (m_stateFile.isEmpty() || !QFile::exists(m_stateFile)) {
        save();
        return true;
    }
    QFile file(m_stateFile);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return false;
    }
    QJsonParseError parseError {};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!document.isObject()) {
        *error = parseError.errorString();
        return false;
    }
    fromJson(document.object());
    return true;
}

void ServiceState::setBaseUrl(const QString &baseUrl)
{
    const std::lock_guard lock(m_mutex);
    m_baseUrl = baseUrl;
}

ServiceConfig ServiceState::config()
{
    const std::lock_guard lock(m_mutex);
    return m_config;
}

Answer ServiceState::setConfig(const QJsonObject &changes)
{
    const std::lock_guard lock(m_mutex);
    const QString error = m_config.apply(changes);
    if (!error.isEmpty())
        return Answer::error(400, error);
    return Answer::json(m_config.toJson());
}

void ServiceState::reset()
{
    const std::lock_guard lock(m_mutex);
    m_config = m_startConfig;
    m_pairings.clear();
    m_sessions.clear();
    m_issuedKeys.clear();
    m_uploads.clear();
    m_notes.clear();
    m_requests = {};
    m_objects.clear();
    save();
}

// --- pairing ---------------------------------------------------------------

QString ServiceState::newUserCode() const
{
    for (;;) {
        const QString raw = Crypto::randomString(userCodeAlphabet, 8);
        const bool taken = std::any_of(m_pairings.begin(), m_pairings.end(),
            [&raw](const Pairing &p) { return normalizedUserCode(p.userCode) == raw; });
        if (!taken)
            return raw.left(4) + QLatin1Char('-') + raw.mid(4);
    }
}

Answer ServiceState::startPairing(const QJsonObject &device)
{
    const std::lock_guard lock(m_mutex);
    Pairing pairing;
    pairing.deviceCode = QString::fromLatin1(
        Crypto::randomBytes(32).toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
    pairing.userCode = newUserCode();
    pairing.device = device;
    pairing.createdAtMs = m_clock();
    pairing.expiresAtMs = pairing.createdAtMs + m_config.expiresIn * 1000;
    m_pairings.append(pairing);
    save();
    return Answer::json({ { QStringLiteral("deviceCode"), pairing.deviceCode },
        { QStringLiteral("userCode"), pairing.userCode }, { QStringLiteral("expiresIn"), m_config.expiresIn },
        { QStringLiteral("interval"), m_config.interval } });
}

Answer ServiceState::redeemPairing(const QString &deviceCode)
{
    const std::lock_guard lock(m_mutex);
    auto it = std::find_if(m_pairings.begin(), m_pairings.end(),
        [&deviceCode](const Pairing &p) { return p.deviceCode == deviceCode; });
    if (it == m_pairings.end())
        return Answer::error(404, QStringLiteral("code_not_found"));
    if (it->state == PairingState::Redeemed)
        return Answer::error(409, QStringLiteral("code_already_used"));
    if (m_clock() >= it->expiresAtMs)
        return Answer::error(410, QStringLiteral("code_expired"));
    if (it->state == PairingState::Pending)
        return Answer::error(400, QStringLiteral("authorization_pending"));
    const auto session = m_sessions.constFind(it->sessionId);
    if (session == m_sessions.constEnd()) // removed by an admin between confirm and redeem
        return Answer::error(410, QStringLiteral("code_expired"));
    it->state = PairingState::Redeemed;
    save();
    return Answer::json(sessionPayload(*session));
}

ServiceState::Pairing *ServiceState::findPairingByUserCode(const QString &userCode)
{
    const QString wanted = normalizedUserCode(userCode);
    for (Pairing &pairing : m_pairings) {
        if (!wanted.isEmpty() && normalizedUserCode(pairing.userCode) == wanted)
            return &pairing;
    }
    return nullptr;
}

Answer ServiceState::confirmPairing(const QString &userCode, bool anonymous)
{
    const std::lock_guard lock(m_mutex);
    Pairing *pairing = findPairingByUserCode(userCode);
    if (!pairing)
        return Answer::error(404, QStringLiteral("code_not_found"));
    if (pairing->state != PairingState::Pending)
        return Answer::error(409, QStringLiteral("code_already_used"));
    if (m_clock() >= pairing->expiresAtMs)
        return Answer::error(410, QStringLiteral("code_expired"));
    const Session &session = newSession(anonymous, pairing->device);
    pairing->state = PairingState::Confirmed;
    pairing->sessionId = session.id;
    save();
    return Answer::json(
        { { QStringLiteral("sessionId"), session.id }, { QStringLiteral("accountId"), session.accountId },
            { QStringLiteral("profileId"), session.profileId } });
}

// --- sessions ----------------------------------------------------------------

ServiceState::Session &ServiceState::newSession(bool anonymous, const QJsonObject &device)
{
    Session session;
    session.id = newId();
    session.accountId = newId();
    session.profileId = newId();
    session.anonymous = anonymous;
    session.device = device;
    session.createdAtMs = m_clock();
    session.token = issueToken(session);
    return *m_sessions.insert(session.id, session);
}

QByteArray ServiceState::issueToken(const Session &session) const
{
    const qint64 now = m_clock() / 1000;
    // "jti" keeps two tokens issued within one second distinct.
    return m_jwt.sign({ { QStringLiteral("id"), session.accountId }, { QStringLiteral("sid"), session.id },
        { QStringLiteral("anon"), session.anonymous }, { QStringLiteral("iat"), now },
        { QStringLiteral("exp"), now + m_config.tokenTtl }, { QStringLiteral("jti"), newId(12) } });
}

QJsonObject ServiceState::sessionPayload(const Session &session) const
{
    return { { QStringLiteral("id"), session.id }, { QStringLiteral("profileId"), session.profileId },
        { QStringLiteral("token"), QString::fromLatin1(session.token) },
        { QStringLiteral("isAnonymous"), session.anonymous } };
}

Answer ServiceState::refreshSession(
    const QString &sessionId, const QByteArray &token, const QJsonObject &device, const QString &deviceError)
{
    const std::lock_guard lock(m_mutex);
    auto it = m_sessions.find(sessionId);
    if (it == m_sessions.end())
        return Answer::error(404, QStringLiteral("session_not_found"));
    if (token.isEmpty())
        return Answer::error(401, QStringLiteral("missing_token"));
    // An expired token may still renew its own session: that is what refresh is for.
    const auto claims = m_jwt.verify(token, std::numeric_limits<qint64>::min());
    if (!claims || claims->value(QStringLiteral("sid")).toString() != sessionId
        || claims->value(QStringLiteral("id")).toString() != it->accountId)
        return Answer::error(401, QStringLiteral("invalid_token"));
    if (!deviceError.isEmpty())
        return Answer::error(400, deviceError);
    it->device = device;
    it->token = issueToken(*it);
    save();
    return Answer::json(sessionPayload(*it));
}

Answer ServiceState::createSession(bool anonymous)
{
    const std::lock_guard lock(m_mutex);
    const Session &session = newSession(anonymous, {});
    save();
    QJsonObject payload = sessionPayload(session);
    payload.insert(QStringLiteral("accountId"), session.accountId);
    return Answer::json(payload);
}

bool ServiceState::deleteSession(const QString &sessionId)
{
    const std::lock_guard lock(m_mutex);
    const bool removed = m_sessions.remove(sessionId) > 0;
    if (removed)
        save();
    return removed;
}

std::optional<ServiceState::Session> ServiceState::authenticate(const QByteArray &token)
{
    const std::lock_guard lock(m_mutex);
    const auto claims = m_jwt.verify(token, m_clock() / 1000);
    if (!claims)
        return std::nullopt;
    const auto it = m_sessions.constFind(claims->value(QStringLiteral("sid")).toString());
    if (it == m_sessions.constEnd() || claims->value(QStringLiteral("id")).toString() != it->accountId)
        return std::nullopt;
    return *it;
}

// --- uploads -----------------------------------------------------------------

QByteArray ServiceState::uploadSignature(const QString &key, const QString &expires) const
{
    return Crypto::hmacSha256(m_secret, "upload\n" + key.toUtf8() + '\n' + expires.toUtf8()).toHex();
}

Answer ServiceState::uploadTarget(const Session &session, const QString &extension)
{
    const std::lock_guard lock(m_mutex);
    const QString key = newId(24) + QLatin1Char('.') + extension;
    const QString expires = QString::number(m_clock() / 1000 + m_config.uploadUrlTtl);
    m_issuedKeys.insert(key, session.accountId);
    save();
    const QString url = m_baseUrl + QStringLiteral("/uploads/") + key + QStringLiteral("?expires=") + expires
        + QStringLiteral("&signature=") + QString::fromLatin1(uploadSignature(key, expires));
    return Answer::json({ { QStringLiteral("url"), url }, { QStringLiteral("key"), key } });
}

QString ServiceState::checkUploadSignature(
    const QString &key, const QString &expires, const QString &signature)
{
    const std::lock_guard lock(m_mutex);
    if (expires.isEmpty() || signature.isEmpty()
        || !Crypto::equal(signature.toLatin1(), uploadSignature(key, expires)))
        return QStringLiteral("invalid_signature");
    bool ok = false;
    const qint64 expiresAt = expires.toLongLong(&ok);
    if (!ok || m_clock() / 1000 >= expiresAt)
        return QStringLiteral("url_expired");
    return {};
}

void ServiceState::storeUpload(const Upload &upload)
{
    const std::lock_guard lock(m_mutex);
    m_uploads.insert(upload.key, upload);
    save();
}

std::optional<ServiceState::Upload> ServiceState::upload(const QString &key)
{
    const std::lock_guard lock(m_mutex);
    const auto it = m_uploads.constFind(key);
    if (it == m_uploads.constEnd())
        return std::nullopt;
    return *it;
}

// --- notes -------------------------------------------------------------------

Answer ServiceState::createNote(const Session &session, const QJsonObject &body)
{
    const std::lock_guard lock(m_mutex);
    const NoteValidator validator(session.anonymous, session.accountId, [this, &session](const QString &key) {
        return m_uploads.contains(key) && m_issuedKeys.value(key) == session.accountId;
    });
    const QString error = validator.check(body);
    if (!error.isEmpty())
        return Answer::error(400, error);
    Note note;
    note.id = newId();
    note.body = body;
    note.recordingKey = body.value(QLatin1String("recordingKey")).toString();
    note.accountId = session.accountId;
    note.createdAtMs = m_clock();
    m_notes.append(note);
    save();
    return Answer::json({ { QStringLiteral("id"), note.id } });
}

// --- admin views -------------------------------------------------------------

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

QJsonArray ServiceState::pairings()
{
    const std::lock_guard lock(m_mutex);
    const qint64 now = m_clock();
    QJsonArray result;
    for (const Pairing &p : m_pairings) {
        result.append(QJsonObject { { QStringLiteral("userCode"), p.userCode },
            { QStringLiteral("deviceCode"), p.deviceCode }, { QStringLiteral("device"), p.device },
            { QStringLiteral("state"), stateName(static_cast<int>(p.state)) },
            { QStringLiteral("createdAt"), isoTime(p.createdAtMs) },
            { QStringLiteral("expiresAt"), isoTime(p.expiresAtMs) },
            { QStringLiteral("expired"), now >= p.expiresAtMs },
            { QStringLiteral("sessionId"), p.sessionId } });
    }
    return result;
}

QJsonArray ServiceState::sessions()
{
    const std::lock_guard lock(m_mutex);
    QList<Session> ordered = m_sessions.values();
    std::sort(ordered.begin(), ordered.end(),
        [](const Session &a, const Session &b) { return a.createdAtMs < b.createdAtMs; });
    QJsonArray result;
    for (const Session &s : ordered) {
        result.append(QJsonObject { { QStringLiteral("id"), s.id },
            { QStringLiteral("accountId"), s.accountId }, { QStringLiteral("profileId"), s.profileId },
            { QStringLiteral("isAnonymous"), s.anonymous },
            { QStringLiteral("token"), QString::fromLatin1(s.token) }, { QStringLiteral("device"), s.device },
            { QStringLiteral("createdAt"), isoTime(s.createdAtMs) } });
    }
    return result;
}

QJsonArray ServiceState::notes()
{
    const std::lock_guard lock(m_mutex);
    QJsonArray result;
    for (auto it = m_notes.crbegin(); it != m_notes.crend(); ++it) {
        const auto upload = m_uploads.constFind(it->recordingKey);
        result.append(QJsonObject { { QStringLiteral("id"), it->id }, { QStringLiteral("body"), it->body },
            { QStringLiteral("recordingKey"), it->recordingKey },
            { QStringLiteral("recordingUrl"), m_baseUrl + QStringLiteral("/files/") + it->recordingKey },
            { QStringLiteral("recordingSize"), upload == m_uploads.constEnd() ? qint64(0) : upload->size },
            { QStringLiteral("accountId"), it->accountId },
            { QStringLiteral("createdAt"), isoTime(it->createdAtMs) } });
    }
    return result;
}

QJsonArray ServiceState::uploads()
{
    const std::lock_guard lock(m_mutex);
    QList<Upload> ordered = m_uploads.values();
    std::sort(ordered.begin(), ordered.end(), [](const Upload &a, const Upload &b) { return a.key < b.key; });
    QJsonArray result;
    for (const Upload &u : ordered) {
        result.append(QJsonObject { { QStringLiteral("key"), u.key }, { QStringLiteral("size"), u.size },
            { QStringLiteral("contentType"), u.contentType } });
    }
    return result;
}

// --- persistence -------------------------------------------------------------

void ServiceState::save()
{
    if (m_stateFile.isEmpty())
        return;
    QSaveFile file(m_stateFile);
    if (file.open(QIODevice::WriteOnly)) {
        // It holds the signing secret and every session's token: the owner's only.
        file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        file.write(QJsonDocument(toJson()).toJson(QJsonDocument::Indented));
        file.commit();
    }
}

QJsonObject ServiceState::toJson() const
{
    QJsonArray pairings;
    for (const Pairing &p : m_pairings) {
        pairings.append(QJsonObject { { QStringLiteral("deviceCode"), p.deviceCode },
            { QStringLiteral("userCode"), p.userCode }, { QStringLiteral("device"), p.device },
            { QStringLiteral("state"), static_cast<int>(p.state) },
            { QStringLiteral("createdAtMs"), p.createdAtMs },
            { QStringLiteral("expiresAtMs"), p.expiresAtMs }, { QStringLiteral("sessionId"), p.sessionId } });
    }
    QJsonArray sessions;
    for (const Session &s : m_sessions) {
        sessions.append(
            QJsonObject { { QStringLiteral("id"), s.id }, { QStringLiteral("accountId"), s.accountId },
                { QStringLiteral("profileId"), s.profileId }, { QStringLiteral("anonymous"), s.anonymous },
                { QStringLiteral("token"), QString::fromLatin1(s.token) },
                { QStringLiteral("device"), s.device }, { QStringLiteral("createdAtMs"), s.createdAtMs } });
    }
    QJsonObject issued;
    for (auto it = m_issuedKeys.cbegin(); it != m_issuedKeys.cend(); ++it)
        issued.insert(it.key(), it.value());
    QJsonArray uploads;
    for (const Upload &u : m_uploads) {
        uploads.append(QJsonObject { { QStringLiteral("key"), u.key }, { QStringLiteral("size"), u.size },
            { QStringLiteral("contentType"), u.contentType } });
    }
    QJsonArray notes;
    for (const Note &n : m_notes) {
        notes.append(QJsonObject { { QStringLiteral("id"), n.id }, { QStringLiteral("body"), n.body },
            { QStringLiteral("recordingKey"), n.recordingKey }, { QStringLiteral("accountId"), n.accountId },
            { QStringLiteral("createdAtMs"), n.createdAtMs } });
    }
    return { { QStringLiteral("secret"), QString::fromLatin1(m_secret.toBase64()) },
        { QStringLiteral("pairings"), pairings }, { QStringLiteral("sessions"), sessions },
        { QStringLiteral("issuedKeys"), issued }, { QStringLiteral("uploads"), uploads },
        { QStringLiteral("notes"), notes } };
}

void ServiceState::fromJson(const QJsonObject &object)
{
    const QByteArray secret
        = QByteArray::fromBase64(object.value(QLatin1String("secret")).toString().toLatin1());
    if (secret.size() >= 32) {
        m_secret = secret;
        m_jwt = Jwt(m_secret);
    }
    const auto ms = [](const QJsonObject &o, QLatin1String name) {
        return static_cast<qint64>(o.value(name).toDouble());
    };
    for (const QJsonValue &value : object.value(QLatin1String("pairings")).toArray()) {
        const QJsonObject o = value.toObject();
        Pairing p;
        p.deviceCode = o.value(QLatin1String("deviceCode")).toString();
        p.userCode = o.value(QLatin1String("userCode")).toString();
        p.device = o.value(QLatin1String("device")).toObject();
        p.state = static_cast<PairingState>(std::clamp(o.value(QLatin1String("state")).toInt(), 0, 2));
        p.createdAtMs = ms(o, QLatin1String("createdAtMs"));
        p.expiresAtMs = ms(o, QLatin1String("expiresAtMs"));
        p.sessionId = o.value(QLatin1String("sessionId")).toString();
        m_pairings.append(p);
    }
    for (const QJsonValue &value : object.value(QLatin1String("sessions")).toArray()) {
        const QJsonObject o = value.toObject();
        Session s;
        s.id = o.value(QLatin1String("id")).toString();
        s.accountId = o.value(QLatin1String("accountId")).toString();
        s.profileId = o.value(QLatin1String("profileId")).toString();
        s.anonymous = o.value(QLatin1String("anonymous")).toBool();
        s.token = o.value(QLatin1String("token")).toString().toLatin1();
        s.device = o.value(QLatin1String("device")).toObject();
        s.createdAtMs = ms(o, QLatin1String("createdAtMs"));
        m_sessions.insert(s.id, s);
    }
    const QJsonObject issued = object.value(QLatin1String("issuedKeys")).toObject();
    for (auto it = issued.begin(); it != issued.end(); ++it)
        m_issuedKeys.insert(it.key(), it.value().toString());
    for (const QJsonValue &value : object.value(QLatin1String("uploads")).toArray()) {
        const QJsonObject o = value.toObject();
        Upload u { o.value(QLatin1String("key")).toString(), ms(o, QLatin1String("size")),
            o.value(QLatin1String("contentType")).toString() };
        // An object whose file went missing is forgotten rather than served as empty.
        if (ObjectStore::isValidKey(u.key) && QFile::exists(m_objects.pathOf(u.key)))
            m_uploads.insert(u.key, u);
    }
    for (const QJsonValue &value : object.value(QLatin1String("notes")).toArray()) {
        const QJsonObject o = value.toObject();
        Note n;
        n.id = o.value(QLatin1String("id")).toString();
        n.body = o.value(QLatin1String("body")).toObject();
        n.recordingKey = o.value(QLatin1String("recordingKey")).toString();
        n.accountId = o.value(QLatin1String("accountId")).toString();
        n.createdAtMs = ms(o, QLatin1String("createdAtMs"));
        m_notes.append(n);
    }
}
