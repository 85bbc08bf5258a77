#pragma once

class QApplication;

// The product's look, the same on every desktop: the Fusion style with a light
// palette whatever the desktop's theme (the screens are designed on the warm
// off-white background only), and the platform's wording of the texts.
class Appearance
{
public:
    // Call once, right after the QApplication is made and before any widget.
    static void apply(QApplication &application);
};
