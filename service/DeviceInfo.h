#pragma once

#include <QJsonObject>
#include <QString>

// How this computer describes itself to the service, inside pairing start and
// session refresh under "device". Made fresh for each request; only ever encoded.
struct DeviceInfo
{
    QString vendorUuid; // the caller's per-installation id
    QString appVersion; // the short version compiled in, "0" when empty
    QString osVersion; // the distribution's version as three numbers, "12.0.0"
    QString type; // "linux"
    QString brand; // /sys/class/dmi/id/sys_vendor, empty when absent
    QString model; // /sys/class/dmi/id/product_name, empty when absent
    QString locale; // the current locale's name, "en_US"

    [[nodiscard]] static DeviceInfo current(const QString &vendorUuid);

    // Exactly the seven members above, keys as named.
    [[nodiscard]] QJsonObject toJson() const;

    // "12" -> "12.0.0", "24.04" -> "24.4.0", "3.19.1_alpha" -> "3.19.1"; missing or
    // non-numeric parts are 0, so the answer always has three parts.
    [[nodiscard]] static QString threePartVersion(const QString &version);

    friend bool operator==(const DeviceInfo &, const DeviceInfo &) = default;
};
