#pragma once

#include <QJsonObject>
#include <QString>

// The knobs tests turn: code lifetimes, polling interval, body and upload limits,
// upload URL and token lifetimes. All durations are in seconds, sizes in bytes.
struct ServiceConfig
{
    qint64 expiresIn = 600;
    qint64 interval = 5;
    qint64 maxBodyBytes = 1024 * 1024;
    qint64 maxUploadBytes = 2LL * 1024 * 1024 * 1024;
    // May be zero or negative: the URLs handed out are then already expired,
    // which lets a test see the 403 without waiting.
    qint64 uploadUrlTtl = 900;
    qint64 tokenTtl = 30 * 24 * 3600;

    [[nodiscard]] QJsonObject toJson() const;
    // Applies the members present in `changes`; on a bad member returns its error
    // code (e.g. "invalid_interval") and leaves the config untouched.
    [[nodiscard]] QString apply(const QJsonObject &changes);
};
