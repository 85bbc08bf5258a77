#include "HttpFront.h"

#include "ConnectionDropper.h"
#include "FaultInjector.h"
#include "ServiceState.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonDocument>

#include <cstdio>
#include <thread>

namespace {
// Enough threads that a few delayed or slow requests never starve the others.
constexpr size_t poolThreads = 32;
// The admin API takes small JSON only; its limit does not follow the configurable one.
constexpr qint64 adminBodyLimit = 16LL * 1024 * 1024;

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
        const QString key = HttpFront::fromStd(name).toLower();
        // httplib files the peer's and our address among the headers; no client sent them.
        if (key == QLatin1String("remote_addr") || key == QLatin1String("remote_port")
            || key == QLatin1String("local_addr") || key == QLatin1String("local_port"))
            continue;
        const bool secret = key == QLatin1String("authorization") || key == QLatin1String("x-admin-token")
            || key == QLatin1String("cookie");
        const QString shown = secret ? redacted(value) : HttpFront::fromStd(value);
        const QString existing = headers.value(key).toString();
        headers.insert(key, existing.isEmpty() ? shown : existing + QStringLiteral(", ") + shown);
    }
    return headers;
}

QString queryOf(const httplib::Request &request)
{
    const auto mark = request.target.find('?');
    return mark == std::string::npos ? QString() : HttpFront::fromStd(request.target.substr(mark + 1));
}
} // namespace

HttpFront::HttpFront(
    ServiceState &state, FaultInjector &faults, const ObjectStore &objects, QByteArray adminToken)
    : m_state(state)
    , m_faults(faults)
    , m_guard(std::move(adminToken), state)
    , m_publicRoutes(*this, state)
    , m_uploadRoutes(*this, state, objects)
    , m_adminRoutes(*this, state, faults)
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
    // Last, so that every route above is tried first.
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

QString HttpFront::fromStd(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

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
    m_state.logRequest({ { QStringLiteral("method"), HttpFront::fromStd(request.method) },
        { QStringLiteral("path"), HttpFront::fromStd(request.path) },
        { QStringLiteral("query"), queryOf(request) }, { QStringLiteral("headers"), headersOf(request) },
        { QStringLiteral("bodySize"), bodySize },
        { QStringLiteral("time"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs) } });
}

bool HttpFront::applyFault(const httplib::Request &request, httplib::Response &response,
    const std::function<void(qint64 upTo)> &readBody)
{
    const auto fault = m_faults.take(HttpFront::fromStd(request.method), HttpFront::fromStd(request.path));
    if (!fault)
        return false;
    const bool midBody = fault->afterBytes >= 0 && readBody;
    if (midBody)
        readBody(fault->afterBytes);
    if (fault->delayMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(fault->delayMs));
    // Whatever of the body was read is lost: the request cannot go on normally.
    if (fault->drop || (midBody && fault->status == 0)) {
        ConnectionDropper::drop(request);
        response.status = 500;
        response.set_header("Connection", "close");
        return true;
    }
    if (fault->status == 0)
        return false;
    if (midBody)
        response.set_header("Connection", "close");
    else if (readBody)
        readBody(drainLimit);
    response.status = fault->status;
    for (const auto &[name, value] : fault->headers)
        response.set_header(name.toStdString(), value.toStdString());
    response.set_content(fault->body.toStdString(), fault->contentType.toStdString());
    return true;
}

void HttpFront::post(const std::string &pattern, Audience audience, BodyHandler handler)
{
    m_server.Post(pattern,
        [this, audience, handler = std::move(handler)](const httplib::Request &request,
            httplib::Response &response, const httplib::ContentReader &reader) {
            const bool admin = audience == Audience::Admin;
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
            handler(request, body.data, response);
        });
}

void HttpFront::postJson(const std::string &pattern, Audience audience, JsonHandler handler)
{
    post(pattern, audience,
        [handler = std::move(handler)](
            const httplib::Request &request, const QByteArray &body, httplib::Response &response) {
            send(response, withJson(body, [&](const QJsonObject &json) { return handler(request, json); }));
        });
}

Answer HttpFront::withJson(const QByteArray &body, const std::function<Answer(const QJsonObject &)> &handler)
{
    if (body.trimmed().isEmpty())
        return handler({});
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return Answer::error(400, QStringLiteral("invalid_json"));
    return handler(document.object());
}

void HttpFront::get(const std::string &pattern, Audience audience, Handler handler)
{
    m_server.Get(pattern,
        [this, audience, handler = std::move(handler)](
            const httplib::Request &request, httplib::Response &response) {
            if (audience == Audience::Public) {
                logRequest(request, 0);
                if (applyFault(request, response))
                    return;
            }
            send(response, handler(request));
        });
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
