#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// Where one recording goes: a pre-signed PUT URL and the storage key the note refers to.
struct UploadTarget
{
    QString url;
    QString key;

    [[nodiscard]] static std::optional<UploadTarget> fromJson(const QJsonObject &json);
    [[nodiscard]] QJsonObject toJson() const;

    friend bool operator==(const UploadTarget &, const UploadTarget &) = default;
};
