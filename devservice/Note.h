#pragma once

#include <QJsonObject>
#include <QString>

// A note as the recorder posted it, filed under its account. toJson() is what the
// state file keeps and what /admin/notes shows (that view adds the recording's
// address and size).
struct Note
{
    QString id;
    QJsonObject body;
    QString recordingKey;
    QString accountId;
    qint64 createdAtMs = 0;

    [[nodiscard]] QJsonObject toJson() const;
    [[nodiscard]] static Note fromJson(const QJsonObject &object);
};
