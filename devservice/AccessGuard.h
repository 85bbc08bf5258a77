#pragma once

#include "Outcome.h"
#include "Session.h"

#include <QByteArray>
#include <QString>

#include <httplib.h>

class ServiceState;

// Who may talk to the service, judged before any route runs. The service listens
// on loopback, but any web page the user opens can reach loopback through the
// browser, so:
// - the Host header must name the address we listen on (a DNS-rebound name does not);
// - a state-changing request that carries an Origin must come from our own origin;
// - the admin API, the stored files and the phone page need the admin token, in
//   the X-Admin-Token header or in the cookie the phone page's sign-in link sets.
// The public routes that act for an account ask it for the session of the
// request's token. Unchanged after setPort(); safe from any pool thread.
class AccessGuard
{
public:
    AccessGuard(QByteArray adminToken, ServiceState &state);

    // The port we listen on; set once, before serving.
    void setPort(int port);

    // True when the request may be routed. Otherwise `response` holds the refusal
    // (421 "wrong_host", 403 "foreign_origin", 401 "missing_admin_token", 403
    // "invalid_admin_token") or, for "/?token=<admin token>", the redirect that
    // stores the token in a cookie.
    bool admit(const httplib::Request &request, httplib::Response &response) const;

    // The token in Authorization, taken bare as the recorder sends it: "Bearer …"
    // is no token of ours.
    [[nodiscard]] static QByteArray sessionToken(const httplib::Request &request);
    // The session the request's token belongs to, or "missing_token" / "invalid_token".
    [[nodiscard]] Outcome<Session> session(const httplib::Request &request) const;

private:
    [[nodiscard]] bool isOwnHost(const std::string &host) const;
    [[nodiscard]] bool isOwnOrigin(const std::string &origin) const;
    [[nodiscard]] QByteArray cookieToken(const httplib::Request &request) const;
    [[nodiscard]] bool isAdminToken(const QByteArray &token) const;

    const QByteArray m_adminToken;
    ServiceState &m_state;
    int m_port = 0;
    std::string m_cookieName;
};
