#pragma once

#include <QColor>

// Every colour the screens use, in one place. The values are the light
// appearance the screens are designed for (sRGB); translucent colours are
// black or red at an opacity so that they sit well on the warm background.
class Palette
{
public:
    // The application background behind both screens and behind snapshots.
    static QColor selvaroBackground() { return QColor::fromRgbF(0.988f, 0.98f, 0.973f); }

    // Text colours: primary for live content, secondary for dimmed and
    // explanatory text, tertiary for the footer.
    static QColor primaryText() { return QColor::fromRgbF(0.f, 0.f, 0.f, 0.85f); }
    static QColor secondaryText() { return QColor::fromRgbF(0.f, 0.f, 0.f, 0.5f); }
    static QColor tertiaryText() { return QColor::fromRgbF(0.f, 0.f, 0.f, 0.26f); }

    // Status colours: the failure message and the destructive button, the
    // "sent" line and the granted permission badge.
    static QColor systemRed() { return QColor::fromRgbF(1.f, 0.231f, 0.188f); }
    static QColor systemGreen() { return QColor::fromRgbF(0.157f, 0.804f, 0.255f); }

    // The Record button's own red, deliberately a little deeper than systemRed.
    static QColor recordRed() { return QColor::fromRgbF(0.93f, 0.23f, 0.2f); }

    // The permissions box: its 1-point border, the divider at half the
    // separator's strength, and the fill of a badge that is not granted.
    static QColor boxBorder() { return black(0.1f); }
    static QColor divider() { return black(0.05f); }
    static QColor badgeFill() { return black(0.08f); }

    // The keyboard focus ring drawn on custom controls.
    static QColor focusRing() { return QColor::fromRgbF(0.f, 0.478f, 1.f, 0.85f); }

    static QColor black(float opacity) { return QColor::fromRgbF(0.f, 0.f, 0.f, opacity); }
    static QColor white() { return QColor::fromRgbF(1.f, 1.f, 1.f); }

    // `colour` with its alpha multiplied by `opacity`, for fills such as
    // "system red at 0.1".
    static QColor withOpacity(QColor colour, float opacity)
    {
        colour.setAlphaF(colour.alphaF() * opacity);
        return colour;
    }
};
