#pragma once

#include <QString>

#include <variant>

// The errors of the capture components. Each carries one message, which is also
// its description; the recorders hand them on unchanged, so a caller that only
// shows text can use describe() whatever the source.
struct AudioObjectError
{
    QString message;
};

struct GlobalTapError
{
    QString message;
};

struct SystemRecorderError
{
    QString message;
};

struct MicRecorderError
{
    QString message;
};

// What starting a recorder can fail with: its own error or one it passes up from below.
using CaptureError = std::variant<AudioObjectError, GlobalTapError, SystemRecorderError, MicRecorderError>;

[[nodiscard]] inline QString describe(const CaptureError &error)
{
    return std::visit([](const auto &e) { return e.message; }, error);
}
