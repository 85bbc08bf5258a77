#include "service/ApiError.h"

ApiError::ApiError(Kind kind)
    : m_kind(kind)
{ }

ApiError ApiError::http(int status, QString code, std::optional<std::chrono::seconds> retryAfter)
{
    ApiError error(Kind::http);
    error.m_status = status;
    error.m_code = std::move(code);
    error.m_retryAfter = retryAfter;
    error.m_what = error.description().toUtf8();
    return error;
}

ApiError ApiError::transport(TransportError transportError)
{
    ApiError error(Kind::transport);
    error.m_transport = std::move(transportError);
    error.m_what = error.description().toUtf8();
    return error;
}

ApiError ApiError::badResponse()
{
    ApiError error(Kind::badResponse);
    error.m_what = error.description().toUtf8();
    return error;
}

QNetworkReply::NetworkError ApiError::networkError() const
{
    return m_transport ? m_transport->error() : QNetworkReply::NoError;
}

QString ApiError::description() const
{
    switch (m_kind) {
    case Kind::http:
        return m_code + QStringLiteral(" (") + QString::number(m_status) + QLatin1Char(')');
    case Kind::transport:
        return m_transport->description();
    case Kind::badResponse:
        return QStringLiteral("unexpected response");
    }
    return {};
}
