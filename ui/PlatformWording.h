#pragma once

#include <QTranslator>

// The visible wording for this platform, through Qt's translation mechanism
// so that the texts in the code stay the product's own keys. Off macOS, the
// machine is "this computer", not "this Mac": every "this Mac" / "This Mac"
// (whole words) reads "this computer" / "This computer", in any context.
//
// "my Mac" is left alone on purpose: "Settings > Record on my Mac" names an
// item in the phone app, and the user must find it under that name.
//
// Install once at start-up, before any text is shown:
//   static PlatformWording wording;
//   QCoreApplication::installTranslator(&wording);
class PlatformWording : public QTranslator
{
    Q_OBJECT
public:
    using QTranslator::QTranslator;

    // The wording of `sourceText` here; a null string when it needs no
    // change, so that other installed translators still get their turn.
    [[nodiscard]] QString translate(const char *context, const char *sourceText,
        const char *disambiguation = nullptr, int n = -1) const override;
    [[nodiscard]] bool isEmpty() const override { return false; }

    // The rule on its own, for texts that do not pass through tr().
    [[nodiscard]] static QString reword(const QString &text);
};
