#pragma once

#include <QString>

// Text that came from the service (an error code, a reason phrase inside Qt's error
// sentence) goes into log lines and onto the screen. Before it does, it is cut to
// `maxLength` characters and every character that is not printable is replaced, so
// a line break in an error code cannot forge a second log line and a megabyte-long
// code cannot fill the screen.
namespace ServiceText {

inline constexpr int maxLength = 100;

// At most maxLength characters (a longer text keeps 99 and ends in "…"); control,
// format and unassigned characters become U+FFFD.
[[nodiscard]] QString bounded(const QString &text);

} // namespace ServiceText
