// The building blocks as a user meets them: buttons reached and worked from the
// keyboard, with the button role for assistive technology (the screens' tests check
// every shown button's name), pressed with visible feedback; cross-fades that end on
// one page with no effect left behind; the pairing QR code drawn crisp, unmirrored
// and at level M (the pairing screen's test reads it back with zbarimg). Equal
// control columns are proven where they matter, in the recorder screen's tests.
#include "ui/FadingStack.h"
#include "ui/Palette.h"
#include "ui/PillButton.h"
#include "ui/QrCodeView.h"
#include "ui/Rendering.h"
#include "ui/TextButton.h"

#include <QAccessible>
#include <QApplication>
#include <QGraphicsOpacityEffect>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalSpy>
#include <QTest>

using Kind = PillButtonStyle::Kind;
using namespace Qt::StringLiterals;

class TestBlocks : public QObject
{
    Q_OBJECT
private slots:
    // Tab goes from button to button with a focus ring, Space, Return and Enter
    // activate, a click focuses without the ring, and each has the button role.
    // Pressed, a capsule eases to 0.7 opacity and 0.98 scale, and back on release.
    void keyboardNameAndPress()
    {
        QWidget row;
        auto *layout = new QHBoxLayout(&row);
        auto *save = new PillButton(QStringLiteral("Save"), { Kind::primary });
        const QList<FocusableButton *> buttons { new PillButton(
                                                     QStringLiteral("Discard"), { Kind::destructive }),
            new TextButton(QStringLiteral("Unlink")), save };
        for (FocusableButton *button : buttons)
            layout->addWidget(button);
        row.show();
        QVERIFY(QTest::qWaitForWindowExposed(&row));
        QApplication::setActiveWindow(&row);
        buttons[0]->setFocus(Qt::TabFocusReason);
        for (FocusableButton *button : buttons) {
            QVERIFY(button->hasFocus() && button->showsFocusRing());
            QSignalSpy clicked(button, &QAbstractButton::clicked);
            for (const Qt::Key key : { Qt::Key_Space, Qt::Key_Return, Qt::Key_Enter }) {
                QTest::keyClick(button, key);
                QTRY_COMPARE(clicked.size(), 1);
                clicked.clear();
            }
            QCOMPARE(QAccessible::queryAccessibleInterface(button)->role(), QAccessible::Button);
            QTest::keyClick(&row, Qt::Key_Tab);
        }
        QTest::mouseClick(buttons[1], Qt::LeftButton);
        QVERIFY(buttons[1]->hasFocus() && !buttons[1]->showsFocusRing());
        QTest::mousePress(save, Qt::LeftButton, {}, save->rect().center());
        QVERIFY(save->currentOpacity() > 0.7);
        QTRY_VERIFY(save->currentOpacity() == 0.7 && save->currentScale() == 0.98);
        QTest::mouseRelease(save, Qt::LeftButton, {}, save->rect().center());
        QTRY_VERIFY(save->currentOpacity() == 1.0 && save->currentScale() == 1.0);
    }

    // One change, two in a row, one inside a page that is itself fading in (Qt
    // cannot paint nested opacity effects), and one without animation (snapshots).
    void crossFadeEndState_data()
    {
        QTest::addColumn<QString>("change");
        for (const char *change :
            { "one change", "a change during a fade", "inside a fading page", "not animated" })
            QTest::newRow(change) << QString::fromLatin1(change);
    }
    void crossFadeEndState()
    {
        QFETCH(QString, change);
        const bool animated = change != u"not animated"_s, twice = change.contains(u"during"_s),
                   nested = change.contains(u"inside"_s);
        FadingStack outer;
        if (nested)
            outer.addPage(new QLabel(QStringLiteral("before")));
        auto *host = new QWidget;
        outer.addPage(host);
        auto *stack = new FadingStack(host);
        auto *a = new QLabel(QStringLiteral("a")), *b = new QLabel(QStringLiteral("b"));
        stack->addPage(a);
        stack->addPage(b);
        stack->setAnimated(animated);
        outer.show();
        QVERIFY(QTest::qWaitForWindowExposed(&outer));
        outer.setCurrentPage(host);
        for (QWidget *page : twice ? QList<QWidget *> { b, a, b } : QList<QWidget *> { b })
            stack->setCurrentPage(page);
        // Fading only where it can be seen fading; meanwhile both pages show.
        QCOMPARE(stack->isFading(), animated && !nested);
        if (stack->isFading())
            QVERIFY(a->isVisible() && qobject_cast<QGraphicsOpacityEffect *>(b->graphicsEffect()));
        QTRY_VERIFY_WITH_TIMEOUT(!outer.isFading() && !stack->isFading(), 2000);
        QVERIFY(!a->isVisible() && b->isVisible());
        // At rest no page keeps an effect, which would blur a 2x snapshot.
        QVERIFY(!a->graphicsEffect() && !b->graphicsEffect());
    }

    // As drawn at 2x: every pixel inside the card pure black or white (no blurred
    // module edge), and the format bits (ISO 18004, 7.9) the same in both copies
    // and at level M: the top two bits under the mask 101010000010010, M = 00.
    void crispAtLevelM()
    {
        QWidget page; // the card at (20, 20) on the application background
        page.resize(240, 240);
        auto *view = new QrCodeView(&page);
        view->setMessage(QByteArrayLiteral("selvaro://pair/R3XD8N5W"));
        view->move(20, 20);
        const QImage image
            = Rendering::toImage(page, 2, Palette::selvaroBackground()).convertToFormat(QImage::Format_RGB32);
        QSet<QRgb> colours;
        for (int y = 64; y < 416; ++y)
            for (int x = 64; x < 416; ++x)
                colours.insert(image.pixel(x, y));
        QCOMPARE(colours, (QSet<QRgb> { qRgb(0, 0, 0), qRgb(255, 255, 255) }));
        // 25 modules and a quiet zone of 2 on each side over the 400-pixel card.
        auto at = [](int module) { return static_cast<int>(40 + (module + 2.5) * 400 / 29); };
        auto dark = [&](int x, int y) { return qRed(image.pixel(at(x), at(y))) < 128 ? 1 : 0; };
        // Bit b of the first copy runs along row 8 and up column 8 beside the top-left finder;
        // of the second, up column 8 by the bottom-left finder and along row 8 by the top-right one.
        int first = 0, second = 0;
        for (int b = 14, k = 0; b >= 0; --b, ++k) {
            first = (first << 1) | (k < 8 ? dark(k < 6 ? k : k + 1, 8) : dark(8, k == 8 ? 7 : 14 - k));
            second = (second << 1) | (b >= 8 ? dark(8, 10 + b) : dark(24 - b, 8));
        }
        QCOMPARE(first, second); // not mirrored
        QCOMPARE((first ^ 0b101010000010010) >> 13, 0b00);
    }
};

QTEST_MAIN(TestBlocks)
#include "tst_ui_blocks.moc"
