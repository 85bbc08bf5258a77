#include "app/Appearance.h"

#include "ui/Palette.h"
#include "ui/PlatformWording.h"

#include <QApplication>
#include <QPalette>
#include <QStyle>
#include <QStyleFactory>

void Appearance::apply(QApplication &application)
{
    // A dark desktop theme would otherwise turn dialogs and text fields dark on
    // a light screen.
    application.setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QPalette palette = QApplication::style()->standardPalette();
    palette.setColor(QPalette::Window, Palette::selvaroBackground());
    palette.setColor(QPalette::WindowText, Palette::primaryText());
    palette.setColor(QPalette::Text, Palette::primaryText());
    palette.setColor(QPalette::ButtonText, Palette::primaryText());
    QApplication::setPalette(palette);

    // Texts are kept as the product's own keys; this shows them in this
    // platform's words ("this computer" where the key says "this Mac").
    static PlatformWording wording;
    QCoreApplication::installTranslator(&wording);
}
