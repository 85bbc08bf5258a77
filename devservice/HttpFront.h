#pragma once

#include "AccessGuard.h"
#include "AdminRoutes.h"
#include "Answer.h"
#include "PublicRoutes.h"
#include "UploadRoutes.h"

#include <httplib.h>

#include <QByteArray>
#include <QJsonObject>

#include <functional>
#include <string>

class FaultInjector;
class ObjectStore;
class ServiceState;

// The service's HTTP plumbing: the server and its threads, the AccessGuard before
// every route, reading bodies within their limits, the request log, scripted
// faults, and the answers to what no route serves. The routes themselves are in
// PublicRoutes, UploadRoutes and AdminRoutes, which register through the methods
// below. Handlers run on httplib's pool threads; everything shared lives in
// ServiceState and FaultInjector, which lock for themselves.
class HttpFront
{
public:
    HttpFront(ServiceState &state, FaultInjector &faults, const ObjectStore &objects, QByteArray adminToken);

    // Binds to host:port (port 0 picks a free one); returns the port or -1.
    int bind(const std::string &host, int port);
    // Serves until stop(); false if the server could not run.
    bool listen();
    // Safe from any thread.
    void stop();

    // Public requests are logged and take faults. Admin requests are neither, and
    // their JSON bodies have a limit of their own, so that a test that shrinks
    // maxBodyBytes can still talk to the admin API.
    enum class Audience { Public, Admin };
    // A refused body is still read up to here, so that the answer reaches the client
    // instead of a reset; beyond this the connection is simply closed.
    static constexpr qint64 drainLimit = 256LL * 1024 * 1024;

    using BodyHandler
        = std::function<void(const httplib::Request &, const QByteArray &body, httplib::Response &)>;
    using JsonHandler = std::function<Answer(const httplib::Request &, const QJsonObject &body)>;
    using Handler = std::function<Answer(const httplib::Request &)>;

    // A POST whose body is read whole; one over the limit answers 413 "body_too_large".
    void post(const std::string &pattern, Audience audience, BodyHandler handler);
    // A POST of a JSON object, an empty body counting as {}.
    void postJson(const std::string &pattern, Audience audience, JsonHandler handler);
    void get(const std::string &pattern, Audience audience, Handler handler);
    // The handler's answer to `body` read as a JSON object, or 400 "invalid_json".
    [[nodiscard]] static Answer withJson(
        const QByteArray &body, const std::function<Answer(const QJsonObject &)> &handler);

    // For routes that read or serve their bodies themselves.
    [[nodiscard]] httplib::Server &server() { return m_server; }
    [[nodiscard]] const AccessGuard &guard() const { return m_guard; }
    void logRequest(const httplib::Request &request, qint64 bodySize);
    // Applies the next scripted fault for this request, if any: waits, then answers
    // or drops. True when the fault took the request over. `readBody(upTo)` reads up
    // to that many bytes of a body not read yet: all of it (up to drainLimit) before
    // an answer, so that the connection stays usable, or a fault's `afterBytes`.
    bool applyFault(const httplib::Request &request, httplib::Response &response,
        const std::function<void(qint64 upTo)> &readBody = {});
    static void send(httplib::Response &response, const Answer &answer);
    [[nodiscard]] static QString fromStd(const std::string &text);

private:
    struct Body
    {
        QByteArray data;
        qint64 size = 0;
        bool tooLarge = false;
    };

    [[nodiscard]] Body readBody(const httplib::ContentReader &reader, qint64 limit) const;
    void addFallbackRoutes();

    ServiceState &m_state;
    FaultInjector &m_faults;
    AccessGuard m_guard;
    httplib::Server m_server;
    // Declared after the server: constructing each registers its routes on it.
    PublicRoutes m_publicRoutes;
    UploadRoutes m_uploadRoutes;
    AdminRoutes m_adminRoutes;
};
