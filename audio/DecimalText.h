#pragma once

#include <QString>

namespace DecimalText {

// A double as the shortest decimal text that reads back as the same double, in plain
// (never exponent) notation, with ".0" when it has no fraction: 48000 → "48000.0",
// 1763890949.123456 → "1763890949.123456". It is how the transcript writes a sample
// rate and how recording file names spell their time stamp.
[[nodiscard]] QString shortest(double value);

} // namespace DecimalText
