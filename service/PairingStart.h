#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// The answer to "POST /pair": the codes of one device-code pairing.
struct PairingStart
{
    QString deviceCode; // polled with; never shown
    QString userCode; // shown to the user and carried by the QR code
    int expiresIn = 0; // seconds from receipt
    int interval = 0; // suggested polling interval, seconds

    // Every member is required and must have its JSON type; unknown members are ignored.
    [[nodiscard]] static std::optional<PairingStart> fromJson(const QJsonObject &json);
    [[nodiscard]] QJsonObject toJson() const;

    friend bool operator==(const PairingStart &, const PairingStart &) = default;
};
