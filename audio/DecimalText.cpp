#include "audio/DecimalText.h"

#include <array>
#include <charconv>
#include <cmath>

namespace DecimalText {

QString shortest(double value)
{
    if (std::isnan(value))
        return QStringLiteral("nan");
    if (std::isinf(value))
        return value < 0 ? QStringLiteral("-inf") : QStringLiteral("inf");
    // Fixed notation of the largest double has 309 integer digits.
    std::array<char, 400> buffer {};
    const auto [end, error]
        = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::fixed);
    if (error != std::errc())
        return QString::number(value);
    QString text = QString::fromLatin1(buffer.data(), end - buffer.data());
    if (!text.contains(QLatin1Char('.')))
        text += QStringLiteral(".0");
    return text;
}

} // namespace DecimalText
