#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// The answer to note creation: the new record's id.
struct NoteRecord
{
    QString id;

    [[nodiscard]] static std::optional<NoteRecord> fromJson(const QJsonObject &json);
    [[nodiscard]] QJsonObject toJson() const;

    friend bool operator==(const NoteRecord &, const NoteRecord &) = default;
};
