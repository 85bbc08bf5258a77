#include "account/JwtClaims.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

std::optional<QString> JwtClaims::subject(const QString &token)
{
    // Empty pieces are dropped before counting, so "a..b.c" reads as a, b, c.
    const QStringList pieces = token.split(QLatin1Char('.'), Qt::SkipEmptyParts);
    if (pieces.size() != 3)
        return std::nullopt;

    QByteArray payload = pieces.at(1).toLatin1();
    payload.replace('-', '+').replace('_', '/');
    while (payload.size() % 4 != 0)
        payload.append('=');

    // Strict decoding: a stray character or a 4n+1 length is a malformed token,
    // not something to guess around.
    const auto decoded = QByteArray::fromBase64Encoding(payload, QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return std::nullopt;

    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(*decoded, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const QJsonValue id = document.object().value(QStringLiteral("id"));
    if (!id.isString())
        return std::nullopt;
    return id.toString();
}
