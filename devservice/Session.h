#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

// A signed-in (or anonymous) session of one account, with its newest token.
// toJson() is the one shape of it: what the state file keeps and what
// /admin/sessions shows; payload() is what the public API hands the recorder.
struct Session
{
    QString id;
    QString accountId;
    QString profileId;
    bool anonymous = false;
    QByteArray token;
    QJsonObject device;
    qint64 createdAtMs = 0;

    [[nodiscard]] QJsonObject toJson() const;
    [[nodiscard]] QJsonObject payload() const;
    // Also reads a state file from before, which kept "anonymous" for "isAnonymous".
    [[nodiscard]] static Session fromJson(const QJsonObject &object);
};
