#include "Jwt.h"

#include "Crypto.h"

#include <QJsonDocument>

namespace {
constexpr auto base64url = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;

QByteArray encodePart(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toBase64(base64url);
}
} // namespace

Jwt::Jwt(QByteArray secret)
    : m_secret(std::move(secret))
{ }

QByteArray Jwt::sign(const QJsonObject &claims) const
{
    const QJsonObject header { { QStringLiteral("alg"), QStringLiteral("HS256") },
        { QStringLiteral("typ"), QStringLiteral("JWT") } };
    const QByteArray signingInput = encodePart(header) + '.' + encodePart(claims);
    return signingInput + '.' + Crypto::hmacSha256(m_secret, signingInput).toBase64(base64url);
}

std::optional<QJsonObject> Jwt::verify(const QByteArray &token, qint64 nowSeconds) const
{
    const QList<QByteArray> parts = token.split('.');
    if (parts.size() != 3)
        return std::nullopt;
    const auto signature = QByteArray::fromBase64Encoding(
        parts[2], QByteArray::Base64UrlEncoding | QByteArray::AbortOnBase64DecodingErrors);
    if (!signature || !Crypto::equal(*signature, Crypto::hmacSha256(m_secret, parts[0] + '.' + parts[1])))
        return std::nullopt;
    const auto header = QByteArray::fromBase64Encoding(
        parts[0], QByteArray::Base64UrlEncoding | QByteArray::AbortOnBase64DecodingErrors);
    const auto payload = QByteArray::fromBase64Encoding(
        parts[1], QByteArray::Base64UrlEncoding | QByteArray::AbortOnBase64DecodingErrors);
    if (!header || !payload)
        return std::nullopt;
    // Pinning the algorithm keeps "alg": "none" and friends out.
    if (QJsonDocument::fromJson(*header).object().value(QStringLiteral("alg")).toString()
        != QLatin1String("HS256"))
        return std::nullopt;
    const QJsonDocument claims = QJsonDocument::fromJson(*payload);
    if (!claims.isObject())
        return std::nullopt;
    const QJsonValue exp = claims.object().value(QStringLiteral("exp"));
    if (exp.isDouble() && static_cast<qint64>(exp.toDouble()) <= nowSeconds)
        return std::nullopt;
    return claims.object();
}
