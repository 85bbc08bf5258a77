#include "HttpFront.h"

#include "ConnectionDropper.h"
#include "FaultInjector.h"
#include "ObjectStore.h"
#include "PhonePage.h"
#include "ServiceState.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrlQuery>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

namespace {
// Enough threads that a few delayed or slow requests never starve the others.
constexpr size_t poolThreads = 32;
// An oversized body is still read to its end so that the 413 reaches the client
// instead of a reset; beyond this the connection is simply closed.
constexpr qint64 drainLimit = 256LL * 1024 * 1024;
// The admin API takes small JSON only; its limit does not follow the configurable one,
// so a test that shrinks maxBodyBytes can still talk to it.
constexpr qint64 adminBodyLimit = 16LL * 1024 * 1024;

QString fromStd(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// Secrets never enter the request log. A test still tells which token was sent by
// comparing digests: "sha256:" and the first 16 hex digits of the value's SHA-256.
QString redacted(const std::string &value)
{
    const QByteArray digest
        = QCryptographicHash::hash(QByteArray::fromStdString(value), QCryptographicHash::Sha256);
    return QStringLiteral("sha256:") + QString::fromLatin1(digest.toHex().left(16));
}

QJsonObject headersOf(const httplib::Request &request)
{
    QJsonObject headers;
    for (const auto &[name, value] : request.headers) {
        const QString key = fromStd(name).toLower();
        // httplib files the peer's and our address among the headers; no client sent them.
        if (key == QLatin1String("remote_addr") || key == QLatin1String("remote_port")
            || key == QLatin1String("local_addr") || key == QLatin1String("local_port"))
            continue;
        const bool secret = key == QLatin1String("authorization") || key == QLatin1String("x-admin-token")
            || key == QLatin1String("cookie");
        const QString shown = secret ? redacted(value) : fromStd(value);
        const QString existing = headers.value(key).toString();
        headers.insert(key, existing.isEmpty() ? shown : existing + QStringLiteral(", ") + shown);
    }
    return headers;
}

QString queryOf(const httplib::Request &request)
{
    const auto mark = request.target.find('?');
    return mark == std::string::npos ? QString() : fromStd(request.target.substr(mark + 1));
}

// The device description as the recorder sends it: exactly seven string members.
QString checkDevice(const QJsonObject &body)
{
    const QJsonValue device = body.value(QLatin1String("device"));
    if (device.isUndefined())
        return QStringLiteral("missing_device");
    if (!device.isObject())
        return QStringLiteral("invalid_device");
    const QLatin1String members[] = { QLatin1String("vendorUuid"), QLatin1String("appVersion"),
        QLatin1String("osVersion"), QLatin1String("type"), QLatin1String("brand"), QLatin1String("model"),
        QLatin1String("locale") };
    const QJsonObject object = device.toObject();
    for (const QLatin1String member : members) {
        const QJsonValue value = object.value(member);
        if (value.isUndefined())
            return QStringLiteral("missing_device.") + member;
        if (!value.isString())
            return QStringLiteral("invalid_device.") + member;
    }
    for (const QString &name : object.keys()) {
        if (std::find(std::begin(members), std::end(members), name) == std::end(members))
            return QStringLiteral("unexpected_device.") + name;
    }
    return {};
}

QByteArray tokenOf(const httplib::Request &request)
{
    return QByteArray::fromStdString(request.get_header_value("Authorization"));
}
} // namespace

HttpFront::HttpFront(
    ServiceState &state, FaultInjector &faults, const ObjectStore &objects, QByteArray adminToken)
    : m_state(state)
    , m_faults(faults)
    , m_objects(objects)
    , m_guard(std::move(adminToken))
{
    m_server.new_task_queue = [] { return new httplib::ThreadPool(poolThreads); };
    // httplib writes headers and body in separate sends; without this, Nagle and the
    // client's delayed ACK add 40 ms to every answer. Accepted sockets inherit it.
    m_server.set_tcp_nodelay(true);
    // httplib's default also sets SO_REUSEPORT, which would let a second service
    // share a busy port silently; a fixed port must fail loudly instead.
    m_server.set_socket_options([](socket_t socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    // Uploads may be any size; JSON bodies are limited by the service's own config.
    m_server.set_payload_max_length(std::numeric_limits<size_t>::max());
    // One line per answered request on standard error (the fixtures keep it in
    // stderr.log): method, path and status, never headers or bodies.
    m_server.set_logger([](const httplib::Request &request, const httplib::Response &response) {
        std::fprintf(stderr, "%s %s -> %d\n", request.method.c_str(), request.path.c_str(), response.status);
    });
    // Before any route: refused requests are neither routed nor logged nor faulted.
    m_server.set_pre_routing_handler([this](const httplib::Request &request, httplib::Response &response) {
        return m_guard.admit(request, response) ? httplib::Server::HandlerResponse::Unhandled
                                                : httplib::Server::HandlerResponse::Handled;
    });
    m_server.set_exception_handler(
        [](const httplib::Request &, httplib::Response &response, std::exception_ptr) {
            send(response, Answer::error(500, QStringLiteral("internal_error")));
        });
    m_server.set_error_handler([](const httplib::Request &, httplib::Response &response) {
        // Only httplib's own errors arrive here bare; a scripted fault's empty body is kept.
        if (response.body.empty() && !response.has_header("Content-Type"))
            send(response,
                Answer::error(response.status,
                    response.status == 404 ? QStringLiteral("not_found")
                                           : QStringLiteral("http_%1").arg(response.status)));
    });
    addPublicRoutes();
    addUploadRoutes();
    addAdminRoutes();
    addFallbackRoutes();
}

int HttpFront::bind(const std::string &host, int port)
{
    const int bound
        = port == 0 ? m_server.bind_to_any_port(host) : (m_server.bind_to_port(host, port) ? port : -1);
    m_guard.setPort(bound);
    return bound;
}

bool HttpFront::listen()
{
    return m_server.listen_after_bind();
}

void HttpFront::stop()
{
    m_server.stop();
}

void HttpFront::send(httplib::Response &response, const Answer &answer)
{
    response.status = answer.status;
    response.set_content(answer.body.toStdString(), answer.contentType.toStdString());
}

// --- plumbing ----------------------------------------------------------------

HttpFront::Body HttpFront::readBody(const httplib::ContentReader &reader, qint64 limit) const
{
    Body body;
    reader([&body, limit](const char *data, size_t length) {
        body.size += static_cast<qint64>(length);
        if (body.size > limit) {
            body.tooLarge = true;
            body.data.clear();
            return body.size <= drainLimit;
        }
        body.data.append(data, static_cast<qsizetype>(length));
        return true;
    });
    return body;
}

void HttpFront::logRequest(const httplib::Request &request, qint64 bodySize)
{
    m_state.logRequest({ { QStringLiteral("method"), fromStd(request.method) },
        { QStringLiteral("path"), fromStd(request.path) }, { QStringLiteral("query"), queryOf(request) },
        { QStringLiteral("headers"), headersOf(request) }, { QStringLiteral("bodySize"), bodySize },
        { QStringLiteral("time"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs) } });
}

bool HttpFront::applyFault(
    const httplib::Request &request, httplib::Response &response, const std::function<void()> &drainBody)
{
    const auto fault = m_faults.take(fromStd(request.method), fromStd(request.path));
    if (!fault)
        return false;
    if (fault->delayMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(fault->delayMs));
    if (fault->drop) {
        ConnectionDropper::drop(request);
        response.status = 500;
        response.set_header("Connection", "close");
        return true;
    }
    if (fault->status == 0)
        return false;
    if (drainBody)
        drainBody();
    response.status = fault->status;
    for (const auto &[name, value] : fault->headers)
        response.set_header(name.toStdString(), value.toStdString());
    response.set_content(fault->body.toStdString(), fault->contentType.toStdString());
    return true;
}

void HttpFront::postJson(const std::string &pattern, bool admin, JsonHandler handler)
{
    m_server.Post(pattern,
        [this, admin, handler = std::move(handler)](const httplib::Request &request,
            httplib::Response &response, const httplib::ContentReader &reader) {
            const Body body = readBody(reader, admin ? adminBodyLimit : m_state.config().maxBodyBytes);
            if (!admin) {
                logRequest(request, body.size);
                if (applyFault(request, response))
                    return;
            }
            if (body.tooLarge) {
                if (body.size > drainLimit)
                    response.set_header("Connection", "close");
                return send(response, Answer::error(413, QStringLiteral("body_too_large")));
            }
            // A form post comes from the phone page's buttons; the page shows the outcome,
            // so a plain form needs no script.
            if (admin && request.path == "/admin/pairings/confirm" && !body.data.trimmed().startsWith('{')
                && request.get_header_value("Content-Type")
                       .starts_with("application/x-www-form-urlencoded")) {
                response.set_redirect("/?result=" + confirmFromPhone(body.data).toStdString(), 303);
                return;
            }
            QJsonObject json;
            if (!body.data.trimmed().isEmpty()) {
                const QJsonDocument document = QJsonDocument::fromJson(body.data);
                if (!document.isObject())
                    return send(response, Answer::error(400, QStringLiteral("invalid_json")));
                json = document.object();
            }
            send(response, handler(request, json));
        });
}

void HttpFront::get(const std::string &pattern, bool admin, Handler handler)
{
    m_server.Get(pattern,
        [this, admin, handler = std::move(handler)](
            const httplib::Request &request, httplib::Response &response) {
            if (!admin) {
                logRequest(request, 0);
                if (applyFault(request, response))
                    return;
            }
            send(response, handler(request));
        });
}

// --- public API --------------------------------------------------------------

void HttpFront::addPublicRoutes()
{
    postJson("/pair", false, [this](const httplib::Request &, const QJsonObject &body) {
        const QString error = checkDevice(body);
        if (!error.isEmpty())
            return Answer::error(400, error);
        return m_state.startPairing(body.value(QLatin1String("device")).toObject());
    });

    postJson("/pair/token", false, [this](const httplib::Request &, const QJsonObject &body) {
        const QJsonValue code = body.value(QLatin1String("deviceCode"));
        if (code.isUndefined())
            return Answer::error(400, QStringLiteral("missing_deviceCode"));
        if (!code.isString())
            return Answer::error(400, QStringLiteral("invalid_deviceCode"));
        return m_state.redeemPairing(code.toString());
    });

    postJson(R"(/sessions/([^/]+)/refresh)", false,
        [this](const httplib::Request &request, const QJsonObject &body) {
            return m_state.refreshSession(fromStd(request.matches[1]), tokenOf(request),
                body.value(QLatin1String("device")).toObject(), checkDevice(body));
        });

    get("/upload-recording-url", false, [this](const httplib::Request &request) {
        return withSession(request, [this, &request](const ServiceState::Session &session) {
            return uploadTarget(request, session);
        });
    });

    postJson("/api/collections/notes/records", false,
        [this](const httplib::Request &request, const QJsonObject &body) {
            return withSession(request, [this, &body](const ServiceState::Session &session) {
                return m_state.createNote(session, body);
            });
        });

    // Admin: it lists the pending codes and the notes, and the AccessGuard wants the token for it.
    get("/", true, [this](const httplib::Request &request) {
        return Answer { 200,
            PhonePage::render(
                m_state.pairings(), m_state.notes(), fromStd(request.get_param_value("result"))),
            QByteArrayLiteral("text/html; charset=utf-8") };
    });
}

Answer HttpFront::withSession(
    const httplib::Request &request, const std::function<Answer(const ServiceState::Session &)> &handler)
{
    const QByteArray token = tokenOf(request);
    if (token.isEmpty())
        return Answer::error(401, QStringLiteral("missing_token"));
    const auto session = m_state.authenticate(token);
    if (!session)
        return Answer::error(401, QStringLiteral("invalid_token"));
    return handler(*session);
}

Answer HttpFront::uploadTarget(const httplib::Request &request, const ServiceState::Session &session)
{
    if (!request.has_param("ext"))
        return Answer::error(400, QStringLiteral("missing_ext"));
    static const QRegularExpression extension(QStringLiteral("^[a-z0-9]{1,8}$"));
    const QString ext = fromStd(request.get_param_value("ext"));
    if (!extension.match(ext).hasMatch())
        return Answer::error(400, QStringLiteral("invalid_ext"));
    return m_state.uploadTarget(session, ext);
}

// --- uploads and files -------------------------------------------------------

void HttpFront::addUploadRoutes()
{
    m_server.Put(R"(/uploads/([^/]+))",
        [this](const httplib::Request &request, httplib::Response &response,
            const httplib::ContentReader &reader) { handleUpload(request, response, reader); });
    m_server.Get(R"(/files/([^/]+))", [this](const httplib::Request &request, httplib::Response &response) {
        logRequest(request, 0);
        if (!applyFault(request, response))
            serveFile(request, response);
    });
}

void HttpFront::handleUpload(
    const httplib::Request &request, httplib::Response &response, const httplib::ContentReader &reader)
{
    qint64 drained = 0;
    const auto drain = [&reader, &drained] {
        reader([&drained](const char *, size_t length) {
            drained += static_cast<qint64>(length);
            return drained <= drainLimit;
        });
    };
    const auto reject = [&](int status, const QString &code) {
        drain();
        logRequest(request, drained);
        if (drained > drainLimit)
            response.set_header("Connection", "close");
        send(response, Answer::error(status, code));
    };
    if (applyFault(request, response, drain)) {
        logRequest(request, drained);
        return;
    }
    const QString key = fromStd(request.matches[1]);
    const QString signatureError = m_state.checkUploadSignature(
        key, fromStd(request.get_param_value("expires")), fromStd(request.get_param_value("signature")));
    if (!signatureError.isEmpty())
        return reject(403, signatureError);
    const std::string contentType = request.get_header_value("Content-Type");
    if (contentType != "audio/m4a")
        return reject(403, QStringLiteral("wrong_content_type"));
    const qint64 limit = m_state.config().maxUploadBytes;
    if (request.get_header_value<uint64_t>("Content-Length") > static_cast<uint64_t>(limit))
        return reject(413, QStringLiteral("upload_too_large"));
    auto writer = m_objects.create(key);
    if (!writer)
        return reject(500, QStringLiteral("storage_failed"));
    // Streamed straight to disk: the body is never held in memory whole. A body
    // without a length that grows past the limit is drained from there on.
    bool tooLarge = false;
    const bool received = reader([&](const char *data, size_t length) {
        tooLarge = tooLarge || writer->size() + static_cast<qint64>(length) > limit;
        if (!tooLarge)
            return writer->write(data, length);
        drained += static_cast<qint64>(length);
        return drained <= drainLimit;
    });
    logRequest(request, writer->size() + drained);
    if (tooLarge) {
        writer.reset();
        if (drained > drainLimit)
            response.set_header("Connection", "close");
        return send(response, Answer::error(413, QStringLiteral("upload_too_large")));
    }
    if (!received || !writer->commit())
        return send(response, Answer::error(500, QStringLiteral("storage_failed")));
    m_state.storeUpload({ key, writer->size(), fromStd(contentType) });
    response.status = 200;
}

void HttpFront::serveFile(const httplib::Request &request, httplib::Response &response)
{
    const QString key = fromStd(request.matches[1]);
    const auto upload = m_state.upload(key);
    const int fd
        = upload ? ::open(QFile::encodeName(m_objects.pathOf(key)).constData(), O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0)
        return send(response, Answer::error(404, QStringLiteral("not_found")));
    // Browsers play "audio/mp4"; the type the uploader declared is kept in the admin view.
    const std::string type
        = key.endsWith(QLatin1String(".m4a")) ? "audio/mp4" : upload->contentType.toStdString();
    response.set_content_provider(
        static_cast<size_t>(upload->size), type,
        [fd](size_t offset, size_t length, httplib::DataSink &sink) {
            std::vector<char> buffer(std::min<size_t>(length, 1024 * 1024));
            const ssize_t got = ::pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(offset));
            if (got <= 0)
                return false;
            return sink.write(buffer.data(), static_cast<size_t>(got));
        },
        [fd](bool) { ::close(fd); });
}

// --- admin API ---------------------------------------------------------------

QString HttpFront::confirmFromPhone(const QByteArray &body)
{
    const QUrlQuery form(QString::fromUtf8(body).replace(QLatin1Char('+'), QLatin1Char(' ')));
    const QString anonymous = form.queryItemValue(QStringLiteral("anonymous"));
    const Answer answer
        = m_state.confirmPairing(form.queryItemValue(QStringLiteral("userCode"), QUrl::FullyDecoded),
            anonymous == QLatin1String("1") || anonymous == QLatin1String("true"));
    if (answer.status == 200)
        return QStringLiteral("linked");
    return QJsonDocument::fromJson(answer.body).object().value(QLatin1String("error")).toString();
}

void HttpFront::addAdminRoutes()
{
    postJson("/admin/reset", true, [this](const httplib::Request &, const QJsonObject &) {
        m_faults.clear();
        m_state.reset();
        return Answer::json(m_state.config().toJson());
    });
    postJson("/admin/config", true,
        [this](const httplib::Request &, const QJsonObject &body) { return m_state.setConfig(body); });
    postJson("/admin/faults", true, [this](const httplib::Request &, const QJsonObject &body) {
        const QString error = m_faults.add(body);
        return error.isEmpty() ? Answer::json(QJsonObject { { QStringLiteral("added"), true } })
                               : Answer::error(400, error);
    });
    postJson("/admin/pairings/confirm", true, [this](const httplib::Request &, const QJsonObject &body) {
        const QJsonValue userCode = body.value(QLatin1String("userCode"));
        if (!userCode.isString())
            return Answer::error(400,
                userCode.isUndefined() ? QStringLiteral("missing_userCode")
                                       : QStringLiteral("invalid_userCode"));
        const QJsonValue anonymous = body.value(QLatin1String("anonymous"));
        if (!anonymous.isUndefined() && !anonymous.isBool())
            return Answer::error(400, QStringLiteral("invalid_anonymous"));
        return m_state.confirmPairing(userCode.toString(), anonymous.toBool());
    });
    postJson("/admin/sessions", true, [this](const httplib::Request &, const QJsonObject &body) {
        const QJsonValue anonymous = body.value(QLatin1String("anonymous"));
        if (!anonymous.isUndefined() && !anonymous.isBool())
            return Answer::error(400, QStringLiteral("invalid_anonymous"));
        return m_state.createSession(anonymous.toBool());
    });
    m_server.Delete(
        R"(/admin/sessions/([^/]+))", [this](const httplib::Request &request, httplib::Response &response) {
            send(response,
                m_state.deleteSession(fromStd(request.matches[1]))
                    ? Answer::json(QJsonObject { { QStringLiteral("deleted"), true } })
                    : Answer::error(404, QStringLiteral("session_not_found")));
        });
    get("/admin/config", true,
        [this](const httplib::Request &) { return Answer::json(m_state.config().toJson()); });
    get("/admin/requests", true,
        [this](const httplib::Request &) { return Answer::list(m_state.requests()); });
    get("/admin/pairings", true,
        [this](const httplib::Request &) { return Answer::list(m_state.pairings()); });
    get("/admin/sessions", true,
        [this](const httplib::Request &) { return Answer::list(m_state.sessions()); });
    get("/admin/notes", true, [this](const httplib::Request &) { return Answer::list(m_state.notes()); });
    get("/admin/uploads", true, [this](const httplib::Request &) { return Answer::list(m_state.uploads()); });
}

// Anything unknown still shows up in the request log and can carry a fault, so a
// test can script a path the service does not otherwise serve.
void HttpFront::addFallbackRoutes()
{
    const auto unknownWithBody = [this](const httplib::Request &request, httplib::Response &response,
                                     const httplib::ContentReader &reader) {
        const Body body = readBody(reader, 0);
        if (!request.path.starts_with("/admin/")) {
            logRequest(request, body.size);
            if (applyFault(request, response))
                return;
        }
        send(response, Answer::error(404, QStringLiteral("not_found")));
    };
    m_server.Post(".*", unknownWithBody);
    m_server.Put(".*", unknownWithBody);
    m_server.Get(".*", [this](const httplib::Request &request, httplib::Response &response) {
        if (!request.path.starts_with("/admin/")) {
            logRequest(request, 0);
            if (applyFault(request, response))
                return;
        }
        send(response, Answer::error(404, QStringLiteral("not_found")));
    });
}
