#pragma once

#include <QJsonObject>
#include <QString>

// One complete upload: its object's key, size and declared type. toJson() is what
// the state file keeps and what /admin/uploads shows.
struct Upload
{
    QString key;
    qint64 size = 0;
    QString contentType;

    [[nodiscard]] QJsonObject toJson() const;
    [[nodiscard]] static Upload fromJson(const QJsonObject &object);
};
