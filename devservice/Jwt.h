#pragma once

#include <QByteArray>
#include <QJsonObject>

#include <optional>

// HS256 JSON Web Tokens: the service's session tokens. The payload carries the
// account id in the claim "id" (not "sub"), as the note service does.
class Jwt
{
public:
    explicit Jwt(QByteArray secret);

    [[nodiscard]] QByteArray sign(const QJsonObject &claims) const;
    // The claims of a well-formed HS256 token signed with our secret whose "exp"
    // (when present) lies in the future; nothing otherwise.
    [[nodiscard]] std::optional<QJsonObject> verify(const QByteArray &token, qint64 nowSeconds) const;

private:
    QByteArray m_secret;
};
