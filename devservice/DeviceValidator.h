#pragma once

#include <QJsonValue>
#include <QString>

// The device description /pair and refresh want: an object of exactly the seven
// string members the recorder sends. A violation is named by its error code
// ("missing_device", "invalid_device", "missing_device.<name>",
// "invalid_device.<name>", "unexpected_device.<name>").
class DeviceValidator
{
public:
    // An empty string when `device` is acceptable, otherwise the error code.
    [[nodiscard]] static QString check(const QJsonValue &device);
};
