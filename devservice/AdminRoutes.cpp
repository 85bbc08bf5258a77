#include "AdminRoutes.h"

#include "FaultInjector.h"
#include "HttpFront.h"
#include "PhonePage.h"
#include "ServiceState.h"

#include <QUrlQuery>

namespace {
template <typename Record> Answer listOf(const QList<Record> &records)
{
    QJsonArray array;
    for (const Record &record : records)
        array.append(record.toJson());
    return Answer::list(array);
}

QJsonObject linked(const Session &session)
{
    return { { QStringLiteral("sessionId"), session.id }, { QStringLiteral("accountId"), session.accountId },
        { QStringLiteral("profileId"), session.profileId } };
}

// "anonymous" may be left out (false) but is a bool when given.
Outcome<bool> anonymousOf(const QJsonObject &body)
{
    const QJsonValue anonymous = body.value(QLatin1String("anonymous"));
    if (!anonymous.isUndefined() && !anonymous.isBool())
        return ServiceError { ServiceError::Kind::Rejected, QStringLiteral("invalid_anonymous") };
    return anonymous.toBool();
}
} // namespace

AdminRoutes::AdminRoutes(HttpFront &front, ServiceState &state, FaultInjector &faults)
    : m_state(state)
    , m_faults(faults)
{
    using Audience = HttpFront::Audience;
    using Request = httplib::Request;
    front.get("/", Audience::Admin, [this](const Request &request) {
        return Answer { 200,
            PhonePage::render(
                pairingsView(), notesView(), HttpFront::fromStd(request.get_param_value("result"))),
            QByteArrayLiteral("text/html; charset=utf-8") };
    });
    front.postJson("/admin/reset", Audience::Admin, [this](const Request &, const QJsonObject &) {
        m_faults.clear();
        m_state.reset();
        return Answer::json(m_state.config().toJson());
    });
    front.postJson("/admin/config", Audience::Admin, [this](const Request &, const QJsonObject &body) {
        return Answer::of(m_state.setConfig(body), &ServiceConfig::toJson);
    });
    front.postJson("/admin/faults", Audience::Admin, [this](const Request &, const QJsonObject &body) {
        const QString error = m_faults.add(body);
        return error.isEmpty() ? Answer::json(QJsonObject { { QStringLiteral("added"), true } })
                               : Answer::error(400, error);
    });
    // A form post comes from the phone page's buttons; the page shows the outcome,
    // so a plain form needs no script.
    front.post("/admin/pairings/confirm", Audience::Admin,
        [this](const Request &request, const QByteArray &body, httplib::Response &response) {
            if (!body.trimmed().startsWith('{')
                && request.get_header_value("Content-Type").starts_with("application/x-www-form-urlencoded"))
                return response.set_redirect("/?result=" + confirmFromPhone(body).toStdString(), 303);
            HttpFront::send(response, HttpFront::withJson(body, [this](const QJsonObject &json) {
                const QJsonValue userCode = json.value(QLatin1String("userCode"));
                if (!userCode.isString())
                    return Answer::error(400,
                        userCode.isUndefined() ? QStringLiteral("missing_userCode")
                                               : QStringLiteral("invalid_userCode"));
                const auto anonymous = anonymousOf(json);
                if (!anonymous)
                    return Answer::refusal(anonymous.error());
                return Answer::of(m_state.confirmPairing(userCode.toString(), *anonymous), linked);
            }));
        });
    front.postJson("/admin/sessions", Audience::Admin, [this](const Request &, const QJsonObject &body) {
        const auto anonymous = anonymousOf(body);
        if (!anonymous)
            return Answer::refusal(anonymous.error());
        const Session session = m_state.createSession(*anonymous);
        QJsonObject payload = session.payload();
        payload.insert(QStringLiteral("accountId"), session.accountId);
        return Answer::json(payload);
    });
    front.server().Delete(
        R"(/admin/sessions/([^/]+))", [this](const Request &request, httplib::Response &response) {
            HttpFront::send(response,
                m_state.deleteSession(HttpFront::fromStd(request.matches[1]))
                    ? Answer::json(QJsonObject { { QStringLiteral("deleted"), true } })
                    : Answer::error(404, QStringLiteral("session_not_found")));
        });
    front.get("/admin/config", Audience::Admin,
        [this](const Request &) { return Answer::json(m_state.config().toJson()); });
    front.get("/admin/requests", Audience::Admin,
        [this](const Request &) { return Answer::list(m_state.requests()); });
    front.get(
        "/admin/pairings", Audience::Admin, [this](const Request &) { return Answer::list(pairingsView()); });
    front.get(
        "/admin/sessions", Audience::Admin, [this](const Request &) { return listOf(m_state.sessions()); });
    front.get("/admin/notes", Audience::Admin, [this](const Request &) { return Answer::list(notesView()); });
    front.get(
        "/admin/uploads", Audience::Admin, [this](const Request &) { return listOf(m_state.uploads()); });
}

QJsonArray AdminRoutes::pairingsView()
{
    const qint64 now = m_state.now();
    QJsonArray view;
    for (const Pairing &pairing : m_state.pairings()) {
        QJsonObject shown = pairing.toJson();
        shown.insert(QStringLiteral("expired"), pairing.expiredAt(now));
        view.append(shown);
    }
    return view;
}

QJsonArray AdminRoutes::notesView()
{
    const QString files = m_state.baseUrl() + QStringLiteral("/files/");
    QJsonArray view;
    for (const Note &note : m_state.notes()) {
        const auto upload = m_state.upload(note.recordingKey);
        QJsonObject shown = note.toJson();
        shown.insert(QStringLiteral("recordingUrl"), files + note.recordingKey);
        shown.insert(QStringLiteral("recordingSize"), upload ? upload->size : qint64(0));
        view.append(shown);
    }
    return view;
}

QString AdminRoutes::confirmFromPhone(const QByteArray &body)
{
    const QUrlQuery form(QString::fromUtf8(body).replace(QLatin1Char('+'), QLatin1Char(' ')));
    const QString anonymous = form.queryItemValue(QStringLiteral("anonymous"));
    const auto confirmed
        = m_state.confirmPairing(form.queryItemValue(QStringLiteral("userCode"), QUrl::FullyDecoded),
            anonymous == QLatin1String("1") || anonymous == QLatin1String("true"));
    return confirmed ? QStringLiteral("linked") : confirmed.error().code;
}
