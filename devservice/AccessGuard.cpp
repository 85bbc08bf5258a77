#include "AccessGuard.h"

#include "Answer.h"
#include "Crypto.h"
#include "ServiceState.h"

namespace {
void refuse(httplib::Response &response, int status, const QString &code)
{
    const Answer answer = Answer::error(status, code);
    response.status = answer.status;
    response.set_content(answer.body.toStdString(), answer.contentType.toStdString());
    // The body of a refused request is left unread; the connection cannot be reused.
    response.set_header("Connection", "close");
}

bool needsAdminToken(const std::string &path)
{
    return path == "/" || path.starts_with("/admin/") || path.starts_with("/files/");
}

bool changesState(const std::string &method)
{
    return method != "GET" && method != "HEAD" && method != "OPTIONS";
}

std::string lower(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}
} // namespace

AccessGuard::AccessGuard(QByteArray adminToken, ServiceState &state)
    : m_adminToken(std::move(adminToken))
    , m_state(state)
{ }

void AccessGuard::setPort(int port)
{
    m_port = port;
    // Browsers keep cookies per host, not per port: the port in the name keeps two
    // services on one machine from overwriting each other's.
    m_cookieName = "selvaro_admin_" + std::to_string(port);
}

bool AccessGuard::isOwnHost(const std::string &host) const
{
    const std::string port = ":" + std::to_string(m_port);
    const std::string wanted = lower(host);
    return wanted == "127.0.0.1" + port || wanted == "localhost" + port;
}

bool AccessGuard::isOwnOrigin(const std::string &origin) const
{
    return origin.starts_with("http://") && isOwnHost(origin.substr(7));
}

QByteArray AccessGuard::cookieToken(const httplib::Request &request) const
{
    const std::string prefix = m_cookieName + "=";
    for (size_t i = 0, count = request.get_header_value_count("Cookie"); i < count; ++i) {
        const QByteArray header = QByteArray::fromStdString(request.get_header_value("Cookie", i));
        for (const QByteArray &cookie : header.split(';')) {
            const QByteArray trimmed = cookie.trimmed();
            if (trimmed.startsWith(prefix.c_str()))
                return trimmed.mid(static_cast<qsizetype>(prefix.size()));
        }
    }
    return {};
}

bool AccessGuard::isAdminToken(const QByteArray &token) const
{
    return Crypto::equal(token, m_adminToken);
}

bool AccessGuard::admit(const httplib::Request &request, httplib::Response &response) const
{
    if (!isOwnHost(request.get_header_value("Host"))) {
        refuse(response, 421, QStringLiteral("wrong_host"));
        return false;
    }
    if (changesState(request.method) && request.has_header("Origin")
        && !isOwnOrigin(request.get_header_value("Origin"))) {
        refuse(response, 403, QStringLiteral("foreign_origin"));
        return false;
    }
    if (!needsAdminToken(request.path))
        return true;
    // The demo opens the phone page with the token in the address once; the cookie
    // then carries it for the page's links, its form posts and its audio players.
    if (request.path == "/" && request.has_param("token")) {
        const QByteArray token = QByteArray::fromStdString(request.get_param_value("token"));
        if (!isAdminToken(token)) {
            refuse(response, 403, QStringLiteral("invalid_admin_token"));
            return false;
        }
        response.set_header(
            "Set-Cookie", m_cookieName + "=" + token.toStdString() + "; Path=/; HttpOnly; SameSite=Strict");
        response.set_redirect("/", 303);
        return false;
    }
    QByteArray token = QByteArray::fromStdString(request.get_header_value("X-Admin-Token"));
    if (token.isEmpty())
        token = cookieToken(request);
    if (token.isEmpty()) {
        refuse(response, 401, QStringLiteral("missing_admin_token"));
        return false;
    }
    if (!isAdminToken(token)) {
        refuse(response, 403, QStringLiteral("invalid_admin_token"));
        return false;
    }
    return true;
}

QByteArray AccessGuard::sessionToken(const httplib::Request &request)
{
    return QByteArray::fromStdString(request.get_header_value("Authorization"));
}

Outcome<Session> AccessGuard::session(const httplib::Request &request) const
{
    const QByteArray token = sessionToken(request);
    if (token.isEmpty())
        return ServiceError { ServiceError::Kind::Unauthenticated, QStringLiteral("missing_token") };
    const auto session = m_state.authenticate(token);
    if (!session)
        return ServiceError { ServiceError::Kind::Unauthenticated, QStringLiteral("invalid_token") };
    return *session;
}
