#include "ui/Motion.h"
#include "ui/Palette.h"
#include "ui/PillButton.h"
#include "ui/Rendering.h"
#include "ui/TextButton.h"
#include "ui/Typography.h"

#include <QAccessible>
#include <QHBoxLayout>
#include <QSignalSpy>
#include <QTest>

#include <cmath>

using Kind = PillButtonStyle::Kind;
using Size = PillButtonStyle::Size;

Q_DECLARE_METATYPE(PillButtonStyle::Kind)
Q_DECLARE_METATYPE(PillButtonStyle::Size)

namespace {

QImage render(QWidget &widget)
{
    return Rendering::toImage(widget, 2, Palette::selvaroBackground());
}

// Colours as stored in an 8-bit image, for comparing with rendered pixels.
QRgb over(const QColor &fill, const QColor &background)
{
    const qreal a = fill.alphaF();
    auto mix = [a](qreal f, qreal b) { return static_cast<int>(std::lround((f * a + b * (1 - a)) * 255)); };
    return qRgb(mix(fill.redF(), background.redF()), mix(fill.greenF(), background.greenF()),
                mix(fill.blueF(), background.blueF()));
}

bool near(QRgb a, QRgb b, int tolerance = 2)
{
    return std::abs(qRed(a) - qRed(b)) <= tolerance && std::abs(qGreen(a) - qGreen(b)) <= tolerance
        && std::abs(qBlue(a) - qBlue(b)) <= tolerance;
}

} // namespace

class TestPillButton : public QObject
{
    Q_OBJECT
private slots:
    void metrics_data()
    {
        QTest::addColumn<Size>("size");
        QTest::addColumn<bool>("fillsWidth");
        QTest::addColumn<int>("pixelSize");
        QTest::addColumn<qreal>("horizontal");
        QTest::addColumn<qreal>("vertical");
        QTest::addColumn<qreal>("minimumScale");
        QTest::newRow("regular") << Size::regular << false << 14 << 18.0 << 12.0 << 1.0;
        QTest::newRow("small") << Size::small << false << 13 << 14.0 << 7.0 << 1.0;
        QTest::newRow("regular filling") << Size::regular << true << 14 << 12.0 << 12.0 << 0.75;
        QTest::newRow("small filling") << Size::small << true << 13 << 12.0 << 7.0 << 0.75;
    }
    void metrics()
    {
        QFETCH(Size, size);
        QFETCH(bool, fillsWidth);
        QFETCH(int, pixelSize);
        QFETCH(qreal, horizontal);
        QFETCH(qreal, vertical);
        QFETCH(qreal, minimumScale);
        const PillButtonStyle style{Kind::primary, size, fillsWidth, false};
        QCOMPARE(style.font().pixelSize(), pixelSize);
        QCOMPARE(style.font().weight(), QFont::DemiBold);
        QCOMPARE(style.horizontalPadding(), horizontal);
        QCOMPARE(style.verticalPadding(), vertical);
        QCOMPARE(style.minimumScaleFactor(), minimumScale);
        QCOMPARE(style.minimumWidth(), 0.0);

        // The capsule is the padded one-line label, nothing more.
        PillButton button(QStringLiteral("Resume"), style);
        const QFontMetricsF metrics(style.font());
        QCOMPARE(button.sizeHint().height(), static_cast<int>(std::ceil(metrics.height() + 2 * vertical)));
        QCOMPARE(button.sizeHint().width(),
                 static_cast<int>(std::ceil(metrics.horizontalAdvance(QStringLiteral("Resume")) + 2 * horizontal)));
        QCOMPARE(button.sizePolicy().horizontalPolicy(), fillsWidth ? QSizePolicy::Expanding : QSizePolicy::Fixed);
    }

    void colours_data()
    {
        QTest::addColumn<Kind>("kind");
        QTest::addColumn<QColor>("label");
        QTest::addColumn<QColor>("fill");
        QTest::newRow("primary") << Kind::primary << QColor(Qt::white) << QColor(Qt::black);
        QTest::newRow("secondary") << Kind::secondary << QColor(Qt::black) << QColor::fromRgbF(0, 0, 0, 0.06f);
        QTest::newRow("record") << Kind::record << QColor(Qt::white) << QColor::fromRgbF(0.93f, 0.23f, 0.2f);
        QTest::newRow("destructive") << Kind::destructive << Palette::systemRed()
                                     << Palette::withOpacity(Palette::systemRed(), 0.1f);
    }
    void colours()
    {
        QFETCH(Kind, kind);
        QFETCH(QColor, label);
        QFETCH(QColor, fill);
        const PillButtonStyle style{kind, Size::regular, false, false};
        QCOMPARE(style.labelColor().rgba(), label.rgba());
        QCOMPARE(style.fillColor().rgba(), fill.rgba());

        // Painted as a capsule: the fill near the rounded ends' centres, the
        // background at the corners the radius cuts away.
        PillButton button(QStringLiteral("Go"), style);
        button.resize(button.sizeHint().width() + 60, button.sizeHint().height());
        const QImage image = render(button);
        const int h = image.height();
        const QRgb background = Palette::selvaroBackground().rgb();
        QVERIFY(near(image.pixel(h / 4, h / 2), over(fill, Palette::selvaroBackground())));
        QVERIFY(near(image.pixel(image.width() - h / 4, h / 2), over(fill, Palette::selvaroBackground())));
        QCOMPARE(image.pixel(1, 1), background);
        QCOMPARE(image.pixel(image.width() - 2, h - 2), background);
        // Antialiased: the curved edge has blended pixels, not just two colours.
        QSet<QRgb> edge;
        for (int y = 0; y < h / 2; ++y)
            edge.insert(image.pixel(h / 4, y));
        QVERIFY(edge.size() > 2);
    }

    void soloIsAtLeast180Wide()
    {
        PillButton solo(QStringLiteral("Record"), Symbol::recordCircle, {Kind::record, Size::regular, false, true});
        QCOMPARE(solo.sizeHint().width(), 180);
        QCOMPARE(solo.minimumSizeHint().width(), 180);

        // solo and fillsWidth: at least 180, and still stretching in a row.
        QWidget row;
        auto *layout = new QHBoxLayout(&row);
        layout->setContentsMargins(0, 0, 0, 0);
        auto *both = new PillButton(QStringLiteral("OK"), {Kind::primary, Size::regular, true, true});
        layout->addWidget(both);
        QCOMPARE(both->minimumSizeHint().width(), 180);
        row.resize(300, 60);
        layout->activate();
        QCOMPARE(both->width(), 300);
    }

    void titleShrinksToThreeQuartersInANarrowColumn()
    {
        PillButton button(QStringLiteral("Discard"), Symbol::trash, {Kind::destructive, Size::regular, true, false});
        const int full = button.sizeHint().width();
        button.resize(full, button.sizeHint().height());
        QCOMPARE(button.labelScale(), 1.0);
        button.resize(full - 10, button.sizeHint().height());
        QVERIFY(button.labelScale() < 1.0 && button.labelScale() > 0.75);
        button.resize(full / 3, button.sizeHint().height());
        QCOMPARE(button.labelScale(), 0.75);
        QVERIFY(button.minimumSizeHint().width() < full);

        // Without fillsWidth the title never shrinks.
        PillButton fixed(QStringLiteral("Discard"), {Kind::destructive, Size::regular, false, false});
        fixed.resize(40, fixed.sizeHint().height());
        QCOMPARE(fixed.labelScale(), 1.0);
    }

    void pressedFeedbackEasesIn()
    {
        PillButton button(QStringLiteral("Pause"), Symbol::pauseFill, {Kind::primary, Size::regular, true, false});
        button.resize(120, button.sizeHint().height());
        button.show();
        QVERIFY(QTest::qWaitForWindowExposed(&button));
        QCOMPARE(button.currentOpacity(), 1.0);
        QCOMPARE(button.currentScale(), 1.0);

        QTest::mousePress(&button, Qt::LeftButton, {}, button.rect().center());
        // Animated, not instant: the look starts on its way to pressed.
        QVERIFY(button.pressProgress() < 1.0);
        QTRY_COMPARE_WITH_TIMEOUT(button.pressProgress(), 1.0, 1000);
        QCOMPARE(button.currentOpacity(), 0.7);
        QCOMPARE(button.currentScale(), 0.98);

        // The pressed look is what gets painted: the black capsule is dimmed
        // to 0.7, and its ends are pulled in by 1% of the width (1.2 points)
        // on each side, so the leftmost pixels of the middle row turn to background.
        const QImage released = [&] {
            PillButton twin(QStringLiteral("Pause"), Symbol::pauseFill, {Kind::primary, Size::regular, true, false});
            twin.resize(button.size());
            return render(twin);
        }();
        const QImage pressed = render(button);
        const int middle = pressed.height() / 2;
        const QRgb background = Palette::selvaroBackground().rgb();
        QVERIFY(near(released.pixel(40, 8), qRgb(0, 0, 0)));
        QVERIFY(near(pressed.pixel(40, 8), over(Palette::black(0.7f), Palette::selvaroBackground())));
        QVERIFY(released.pixel(1, middle) != background);
        QCOMPARE(pressed.pixel(1, middle), background);

        QTest::mouseRelease(&button, Qt::LeftButton, {}, button.rect().center());
        QTRY_COMPARE_WITH_TIMEOUT(button.pressProgress(), 0.0, 1000);
        QCOMPARE(button.currentOpacity(), 1.0);
    }

    void pressedFeedbackCanBeSwitchedOff()
    {
        PillButton button(QStringLiteral("Save"), Symbol::checkmark, {Kind::primary, Size::regular, true, false});
        button.setPressedFeedback(false);
        button.resize(120, button.sizeHint().height());
        button.show();
        QVERIFY(QTest::qWaitForWindowExposed(&button));
        QSignalSpy clicked(&button, &QAbstractButton::clicked);
        QTest::mousePress(&button, Qt::LeftButton, {}, button.rect().center());
        QTest::qWait(Motion::pressMs + 80);
        QCOMPARE(button.pressProgress(), 0.0);
        QCOMPARE(button.currentOpacity(), 1.0);
        QCOMPARE(button.currentScale(), 1.0);
        QTest::mouseRelease(&button, Qt::LeftButton, {}, button.rect().center());
        QCOMPARE(clicked.size(), 1);
    }

    void keyboardAndAccessibility()
    {
        QWidget row;
        auto *layout = new QHBoxLayout(&row);
        auto *discard = new PillButton(QStringLiteral("Discard"), Symbol::trash, {Kind::destructive, Size::regular, true});
        auto *save = new PillButton(QStringLiteral("Save"), Symbol::checkmark, {Kind::primary, Size::regular, true});
        layout->addWidget(discard);
        layout->addWidget(save);
        row.show();
        QVERIFY(QTest::qWaitForWindowExposed(&row));
        QApplication::setActiveWindow(&row);
        discard->setFocus(Qt::TabFocusReason);
        QVERIFY(discard->hasFocus());
        QTest::keyClick(&row, Qt::Key_Tab);
        QVERIFY(save->hasFocus());

        QSignalSpy clicked(save, &QAbstractButton::clicked);
        QTest::keyClick(save, Qt::Key_Space);
        QCOMPARE(clicked.size(), 1);
        QTest::keyClick(save, Qt::Key_Return);
        QTRY_COMPARE(clicked.size(), 2);

        // Focused from the keyboard, it carries a ring the mouse-focused one does not.
        const QImage ringed = render(*save);
        save->clearFocus();
        save->setFocus(Qt::MouseFocusReason);
        const QImage plain = render(*save);
        QVERIFY(ringed != plain);

        QAccessibleInterface *accessible = QAccessible::queryAccessibleInterface(save);
        QVERIFY(accessible);
        QCOMPARE(accessible->role(), QAccessible::Button);
        QCOMPARE(accessible->text(QAccessible::Name), QStringLiteral("Save"));
    }

    void textButtonIsAPlainTitle()
    {
        QWidget window;
        auto *layout = new QHBoxLayout(&window);
        auto *unlink = new TextButton(QStringLiteral("Unlink"));
        auto *swap = new TextButton(QStringLiteral("Can't scan?"));
        swap->setUnderlined(true);
        swap->setCursor(Qt::PointingHandCursor);
        layout->addWidget(unlink);
        layout->addWidget(swap);
        QCOMPARE(unlink->font().pixelSize(), Typography::footnote().pixelSize());
        QCOMPARE(unlink->color(), Palette::secondaryText());
        QVERIFY(!unlink->isUnderlined());
        QVERIFY(swap->isUnderlined());
        QCOMPARE(swap->cursor().shape(), Qt::PointingHandCursor);
        QCOMPARE(unlink->sizeHint().height(),
                 static_cast<int>(std::ceil(QFontMetricsF(Typography::footnote()).height())) + 2 * TextButton::margin);

        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QApplication::setActiveWindow(&window);
        unlink->setFocus(Qt::TabFocusReason);
        QTest::keyClick(&window, Qt::Key_Tab);
        QVERIFY(swap->hasFocus());
        QVERIFY(swap->showsFocusRing());
        QSignalSpy clicked(swap, &QAbstractButton::clicked);
        QTest::keyClick(swap, Qt::Key_Return);
        QTRY_COMPARE(clicked.size(), 1);
        QTest::mouseClick(unlink, Qt::LeftButton);
        QVERIFY(unlink->hasFocus());
        QVERIFY(!unlink->showsFocusRing());

        // No chrome: away from the title, only the background shows.
        const QImage image = render(*unlink);
        QCOMPARE(image.pixel(1, 1), Palette::selvaroBackground().rgb());
        QCOMPARE(QAccessible::queryAccessibleInterface(swap)->text(QAccessible::Name), QStringLiteral("Can't scan?"));
    }
};

QTEST_MAIN(TestPillButton)
#include "tst_PillButton.moc"
