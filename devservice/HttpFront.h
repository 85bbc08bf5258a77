#pragma once

#include "AccessGuard.h"
#include "Answer.h"
#include "ServiceState.h"

#include <httplib.h>

#include <QByteArray>
#include <QJsonObject>

#include <functional>
#include <string>

class FaultInjector;
class ObjectStore;

// The service's HTTP face: routes the public API, the pre-signed uploads, the
// files, the phone page and the admin API onto the state, behind the AccessGuard.
// Handlers run on httplib's pool threads; everything shared lives in ServiceState
// and FaultInjector, which lock for themselves.
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

private:
    using JsonHandler = std::function<Answer(const httplib::Request &, const QJsonObject &body)>;
    using Handler = std::function<Answer(const httplib::Request &)>;

    struct Body
    {
        QByteArray data;
        qint64 size = 0;
        bool tooLarge = false;
    };

    void addPublicRoutes();
    void addUploadRoutes();
    void addAdminRoutes();
    void addFallbackRoutes();

    void postJson(const std::string &pattern, bool admin, JsonHandler handler);
    void get(const std::string &pattern, bool admin, Handler handler);

    Body readBody(const httplib::ContentReader &reader, qint64 limit) const;
    void logRequest(const httplib::Request &request, qint64 bodySize);
    // Applies the next scripted fault for this request, if any: waits, then answers
    // or drops. True when the fault took the request over. `drainBody` reads what
    // is left of the body first so that the connection stays usable.
    bool applyFault(const httplib::Request &request, httplib::Response &response,
        const std::function<void()> &drainBody = {});
    // Runs `handler` with the session the request's bare token belongs to, or
    // answers 401 "missing_token" / "invalid_token".
    Answer withSession(
        const httplib::Request &request, const std::function<Answer(const ServiceState::Session &)> &handler);
    Answer uploadTarget(const httplib::Request &request, const ServiceState::Session &session);
    void handleUpload(
        const httplib::Request &request, httplib::Response &response, const httplib::ContentReader &reader);
    void serveFile(const httplib::Request &request, httplib::Response &response);
    // Confirms the code a phone-page form posted; returns "linked" or the error code.
    QString confirmFromPhone(const QByteArray &body);

    static void send(httplib::Response &response, const Answer &answer);

    ServiceState &m_state;
    FaultInjector &m_faults;
    const ObjectStore &m_objects;
    AccessGuard m_guard;
    httplib::Server m_server;
};
