#include "PublicRoutes.h"

#include "HttpFront.h"
#include "ServiceState.h"

#include <QRegularExpression>

PublicRoutes::PublicRoutes(HttpFront &front, ServiceState &state)
    : m_front(front)
    , m_state(state)
{
    using Audience = HttpFront::Audience;
    front.postJson("/pair", Audience::Public, [this](const httplib::Request &, const QJsonObject &body) {
        return Answer::of(
            m_state.startPairing(body.value(QLatin1String("device"))), [this](const Pairing &p) {
                return QJsonObject { { QStringLiteral("deviceCode"), p.deviceCode },
                    { QStringLiteral("userCode"), p.userCode },
                    { QStringLiteral("expiresIn"), (p.expiresAtMs - p.createdAtMs) / 1000 },
                    { QStringLiteral("interval"), m_state.config().interval } };
            });
    });

    front.postJson(
        "/pair/token", Audience::Public, [this](const httplib::Request &, const QJsonObject &body) {
            const QJsonValue code = body.value(QLatin1String("deviceCode"));
            if (code.isUndefined())
                return Answer::error(400, QStringLiteral("missing_deviceCode"));
            if (!code.isString())
                return Answer::error(400, QStringLiteral("invalid_deviceCode"));
            return Answer::of(m_state.redeemPairing(code.toString()), &Session::payload);
        });

    front.postJson(R"(/sessions/([^/]+)/refresh)", Audience::Public,
        [this](const httplib::Request &request, const QJsonObject &body) {
            return Answer::of(m_state.refreshSession(HttpFront::fromStd(request.matches[1]),
                                  AccessGuard::sessionToken(request), body.value(QLatin1String("device"))),
                &Session::payload);
        });

    front.get("/upload-recording-url", Audience::Public, [this](const httplib::Request &request) {
        const auto session = m_front.guard().session(request);
        if (!session)
            return Answer::refusal(session.error());
        if (!request.has_param("ext"))
            return Answer::error(400, QStringLiteral("missing_ext"));
        static const QRegularExpression extension(QStringLiteral("^[a-z0-9]{1,8}$"));
        const QString ext = HttpFront::fromStd(request.get_param_value("ext"));
        if (!extension.match(ext).hasMatch())
            return Answer::error(400, QStringLiteral("invalid_ext"));
        const ServiceState::UploadTarget target = m_state.uploadTarget(*session, ext);
        return Answer::json({ { QStringLiteral("url"), target.url }, { QStringLiteral("key"), target.key } });
    });

    front.postJson("/api/collections/notes/records", Audience::Public,
        [this](const httplib::Request &request, const QJsonObject &body) {
            const auto session = m_front.guard().session(request);
            if (!session)
                return Answer::refusal(session.error());
            return Answer::of(m_state.createNote(*session, body), [](const Note &note) {
                return QJsonObject { { QStringLiteral("id"), note.id } };
            });
        });
}
