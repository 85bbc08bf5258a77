#include "service/NoteRecord.h"

#include "service/JsonFields.h"

std::optional<NoteRecord> NoteRecord::fromJson(const QJsonObject &json)
{
    const auto id = JsonFields::string(json, QLatin1String("id"));
    if (!id)
        return std::nullopt;
    return NoteRecord { *id };
}

QJsonObject NoteRecord::toJson() const
{
    return { { QStringLiteral("id"), id } };
}
