#pragma once

#include <QFont>

// The text styles of the screens. Sizes are points in the layout's sense,
// which are Qt's device-independent pixels, so every font is sized with
// setPixelSize and renders at the same size at 1x and 2x.
class Typography
{
public:
    // The desktop's general font family at `pixelSize` and `weight`.
    static QFont system(int pixelSize, QFont::Weight weight = QFont::Normal);

    static QFont title() { return system(22, QFont::DemiBold); }
    static QFont body() { return system(13); }
    static QFont callout() { return system(12); }
    static QFont footnote() { return system(10); }

    // The recorder's clock: 52, light. A rounded family is used when one is
    // installed whose digits all have the same advance; otherwise the system
    // family, whose digits are checked the same way, so the clock's width
    // never jumps as the digits change.
    static QFont clock();

    // The typed pairing code: 32, bold, the desktop's fixed-pitch family.
    static QFont code();

    // True when every digit 0-9 has the same advance in `font`.
    static bool hasEqualWidthDigits(const QFont &font);
};
