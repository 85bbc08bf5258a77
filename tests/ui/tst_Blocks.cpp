#include "ui/BalancedLabel.h"
#include "ui/ClockText.h"
#include "ui/EqualColumnsLayout.h"
#include "ui/FadingStack.h"
#include "ui/OutlinedBox.h"
#include "ui/StepBadge.h"
#include "ui/Palette.h"
#include "ui/PillButton.h"
#include "ui/QrCodeView.h"
#include "ui/Rendering.h"
#include "ui/Spinner.h"
#include "ui/SymbolIcon.h"
#include "ui/SymbolView.h"
#include "ui/TextButton.h"
#include "ui/Typography.h"
#include "ui/WaveformIndicator.h"

#include <QDir>
#include <QFileInfo>
#include <QGraphicsOpacityEffect>
#include <QSignalSpy>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QTemporaryDir>
#include <QTest>
#include <QVBoxLayout>

using Kind = PillButtonStyle::Kind;
using Size = PillButtonStyle::Size;

Q_DECLARE_METATYPE(Symbol)

namespace {

constexpr Symbol allSymbols[] = {Symbol::recordCircle, Symbol::pauseFill, Symbol::playFill, Symbol::trash,
                                 Symbol::checkmark, Symbol::checkmarkCircleFill, Symbol::waveform};

QLabel *text(const QString &content, const QFont &font, const QColor &colour)
{
    auto *label = new QLabel(content);
    label->setFont(font);
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, colour);
    label->setPalette(palette);
    label->setAlignment(Qt::AlignCenter);
    return label;
}

// Three equal columns with spacing 10, as the recorder's control rows.
QWidget *row(QWidget *a, QWidget *b, QWidget *c)
{
    auto *widget = new QWidget;
    auto *layout = new EqualColumnsLayout(3, widget);
    QWidget *cells[] = {a, b, c};
    for (int i = 0; i < 3; ++i)
        layout->setWidget(i, cells[i]);
    return widget;
}

QWidget *line(std::initializer_list<QWidget *> widgets, int spacing = 6)
{
    auto *widget = new QWidget;
    auto *layout = new QHBoxLayout(widget);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(spacing);
    layout->addStretch();
    for (QWidget *w : widgets)
        layout->addWidget(w);
    layout->addStretch();
    return widget;
}

// A 380-point page with 24 points of padding, like the window's content.
struct Page
{
    QWidget widget;
    QVBoxLayout *layout = new QVBoxLayout(&widget);
    Page()
    {
        layout->setContentsMargins(24, 24, 24, 24);
        layout->setSpacing(16);
    }
    void save(const QString &name, const QString &dir)
    {
        widget.resize(380, std::max(widget.sizeHint().height(), 120));
        const QImage image = Rendering::toImage(widget, 2, Palette::selvaroBackground());
        QCOMPARE(image.width(), 760);
        QVERIFY(image.save(QDir(dir).filePath(name + QStringLiteral(".png"))));
        const QImage single = Rendering::toImage(widget, 1, Palette::selvaroBackground());
        QVERIFY(single.save(QDir(dir).filePath(name + QStringLiteral("@1x.png"))));
    }
};

} // namespace

class TestBlocks : public QObject
{
    Q_OBJECT
private:
    QTemporaryDir m_temporary;
    QString m_dir;

private slots:
    void initTestCase()
    {
        // SELVARO_UI_RENDER_DIR keeps the rendered pages for looking at them.
        m_dir = qEnvironmentVariable("SELVARO_UI_RENDER_DIR", m_temporary.path());
        QDir().mkpath(m_dir);
    }

    void themeSymbolsAreFoundAndRecoloured_data()
    {
        QTest::addColumn<Symbol>("symbol");
        for (Symbol symbol : allSymbols) {
            if (!SymbolIcon::themeName(symbol).isEmpty())
                QTest::newRow(qPrintable(SymbolIcon::themeName(symbol))) << symbol;
        }
    }
    void themeSymbolsAreFoundAndRecoloured()
    {
        QFETCH(Symbol, symbol);
        if (!QFileInfo::exists(QStringLiteral("/usr/share/icons/Adwaita/index.theme")))
            QSKIP("adwaita-icon-theme is not installed");
        QVERIFY(!SymbolIcon::themeImage(SymbolIcon::themeName(symbol), 28).isNull());

        const QColor colour = Palette::recordRed();
        const QPixmap pixmap = SymbolIcon::pixmap(symbol, 14, colour, 2);
        QCOMPARE(pixmap.size(), QSize(28, 28));
        QCOMPARE(pixmap.deviceIndependentSize(), QSizeF(14, 14));
        const QImage image = pixmap.toImage().convertToFormat(QImage::Format_ARGB32);
        int opaque = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                const QRgb pixel = image.pixel(x, y);
                if (qAlpha(pixel) < 250)
                    continue;
                ++opaque;
                QCOMPARE(qRgb(qRed(pixel), qGreen(pixel), qBlue(pixel)), colour.rgb());
            }
        }
        QVERIFY(opaque > 20);
    }

    void paintedFallbacksDrawEverySymbol_data()
    {
        QTest::addColumn<Symbol>("symbol");
        for (Symbol symbol : allSymbols)
            QTest::newRow(qPrintable(QString::number(static_cast<int>(symbol)))) << symbol;
    }
    void paintedFallbacksDrawEverySymbol()
    {
        QFETCH(Symbol, symbol);
        const QImage image = SymbolIcon::pixmap(symbol, 16, Qt::black, 2, SymbolIcon::Source::painted).toImage();
        // Something is drawn, centred: ink on both halves of the box.
        qreal left = 0, right = 0;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x)
                (x < image.width() / 2 ? left : right) += qAlpha(image.pixel(x, y));
        }
        QVERIFY(left > 0 && right > 0);
        QVERIFY2(std::abs(left - right) / (left + right) < 0.3, qPrintable(QString::number(left / right)));
    }

    void waveformLightsOneBarAtATime()
    {
        WaveformIndicator waveform;
        for (int i = 0; i < WaveformIndicator::barCount; ++i)
            QCOMPARE(waveform.barOpacity(i), 1.0);
        waveform.setRunning(true);
        waveform.setPhase(2.0);
        QCOMPARE(waveform.barOpacity(2), 1.0);
        QCOMPARE(waveform.barOpacity(3), WaveformIndicator::dimmedOpacity);
        QVERIFY(waveform.barOpacity(1) > WaveformIndicator::dimmedOpacity && waveform.barOpacity(1) < 1.0);
        waveform.setPhase(WaveformIndicator::barCount + 0.5);
        QCOMPARE(waveform.phase(), 0.5);
    }

    void waveformAndSpinnerMoveOnlyWhileShown()
    {
        QWidget window;
        auto *layout = new QHBoxLayout(&window);
        auto *waveform = new WaveformIndicator;
        auto *spinner = new Spinner(Spinner::ControlSize::large);
        layout->addWidget(waveform);
        layout->addWidget(spinner);
        waveform->setRunning(true);
        QVERIFY(!spinner->isSpinning());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QVERIFY(spinner->isSpinning());
        const qreal phase = waveform->phase();
        const int head = spinner->head();
        QTRY_VERIFY_WITH_TIMEOUT(waveform->phase() != phase && spinner->head() != head, 2000);
        window.hide();
        QVERIFY(!spinner->isSpinning());
        const qreal stopped = waveform->phase();
        QTest::qWait(200);
        QCOMPARE(waveform->phase(), stopped);
        QCOMPARE(spinner->sizeHint(), QSize(40, 40));
    }

    void pauseSitsWhereResumeSits()
    {
        const PillButtonStyle filling{Kind::secondary, Size::regular, true};
        auto *pause = new PillButton(QStringLiteral("Pause"), Symbol::pauseFill, filling);
        auto *discard = new PillButton(QStringLiteral("Discard"), Symbol::trash, {Kind::destructive, Size::regular, true});
        auto *resume = new PillButton(QStringLiteral("Resume"), Symbol::playFill, filling);
        auto *save = new PillButton(QStringLiteral("Save"), Symbol::checkmark, {Kind::primary, Size::regular, true});
        auto *label = new QLabel(QStringLiteral("x"));
        QWidget page;
        auto *layout = new QVBoxLayout(&page);
        layout->setContentsMargins(24, 0, 24, 0);
        layout->setSpacing(0);
        QWidget *recording = row(nullptr, pause, nullptr);
        QWidget *paused = row(discard, resume, save);
        layout->addWidget(recording);
        layout->addWidget(paused);
        QWidget *third = row(nullptr, label, nullptr);
        layout->addWidget(third);
        page.resize(380, 200);
        for (QLayout *each : {static_cast<QLayout *>(layout), recording->layout(), paused->layout(), third->layout()})
            each->activate();
        QCOMPARE(pause->x(), resume->x());
        QCOMPARE(pause->size(), resume->size());
        QCOMPARE(discard->width(), resume->width());
        QCOMPARE(save->width(), resume->width());
        QCOMPARE(resume->x() - discard->geometry().right() - 1, 10);
        QCOMPARE(discard->x(), 0);
        QCOMPARE(save->geometry().right(), 331);
        // A widget that does not expand keeps its size, centred in its column.
        QCOMPARE(label->width(), label->sizeHint().width());
        QCOMPARE(label->geometry().center().x(), resume->geometry().center().x());

        auto *columns = static_cast<EqualColumnsLayout *>(recording->layout());
        QCOMPARE(columns->count(), 1);
        QCOMPARE(columns->itemAt(0)->widget(), pause);
        QCOMPARE(columns->widgetAt(0), nullptr);
        columns->setWidget(1, nullptr);
        QCOMPARE(columns->count(), 0);
    }

    void symbolViewIsCrispAt2x()
    {
        // Rendered into a 2x image, the view draws the symbol from a 2x
        // pixmap, the same pixels SymbolIcon makes for ratio 2.
        QWidget page;
        auto *view = new SymbolView(Symbol::checkmarkCircleFill, 12, Palette::systemGreen(), &page);
        page.resize(12, 12);
        view->resize(12, 12);
        QCOMPARE(view->sizeHint(), QSize(12, 12));
        const QImage rendered = Rendering::toImage(page, 2, Qt::transparent).convertToFormat(QImage::Format_ARGB32);
        const QImage expected = SymbolIcon::pixmap(Symbol::checkmarkCircleFill, 12, Palette::systemGreen(), 2)
                                    .toImage()
                                    .convertToFormat(QImage::Format_ARGB32);
        QCOMPARE(rendered.size(), QSize(24, 24));
        QCOMPARE(rendered, expected);
    }

    void stackCrossFadesAndRestsWithoutEffects()
    {
        FadingStack stack;
        auto *record = new PillButton(QStringLiteral("Record"), Symbol::recordCircle,
                                      {Kind::record, Size::regular, false, true});
        auto *spinner = new Spinner(Spinner::ControlSize::large);
        stack.addPage(record);
        stack.addPage(spinner);
        QCOMPARE(stack.count(), 2);
        QCOMPARE(stack.currentPage(), record);
        // As large as the largest page, so swapping pages does not move the layout around it.
        QCOMPARE(stack.sizeHint(), record->sizeHint().expandedTo(spinner->sizeHint()));

        stack.show();
        QVERIFY(QTest::qWaitForWindowExposed(&stack));
        QVERIFY(record->isVisible() && !spinner->isVisible());
        QSignalSpy changed(&stack, &FadingStack::currentPageChanged);
        stack.setCurrentPage(spinner);
        QCOMPARE(changed.size(), 1);
        QVERIFY(stack.isFading());
        // Both show during the fade, the incoming one starting transparent.
        QVERIFY(record->isVisible() && spinner->isVisible());
        auto *incoming = qobject_cast<QGraphicsOpacityEffect *>(spinner->graphicsEffect());
        QVERIFY(incoming);
        QVERIFY(incoming->opacity() < 0.5);
        QTRY_VERIFY_WITH_TIMEOUT(!stack.isFading(), 2000);
        QVERIFY(!record->isVisible() && spinner->isVisible());
        QCOMPARE(spinner->graphicsEffect(), nullptr);
        QCOMPARE(record->graphicsEffect(), nullptr);

        // A change during a fade finishes the first one at once.
        stack.setCurrentPage(record);
        stack.setCurrentPage(spinner);
        QVERIFY(stack.isFading());
        QVERIFY(record->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(!stack.isFading(), 2000);
        QVERIFY(!record->isVisible());

        // Without animation (snapshots), the change is immediate.
        stack.setAnimated(false);
        stack.setCurrentPage(record);
        QVERIFY(!stack.isFading());
        QVERIFY(record->isVisible() && !spinner->isVisible());
        QCOMPARE(record->graphicsEffect(), nullptr);
        // Unknown pages and the current page change nothing.
        QWidget stranger;
        stack.setCurrentPage(&stranger);
        stack.setCurrentPage(record);
        QCOMPARE(changed.size(), 4);
    }

    // Qt cannot paint an opacity effect inside another: nested stacks never fade at once.
    void nestedStacksNeverFadeTogether()
    {
        FadingStack outer;
        auto *first = new QWidget;
        auto *second = new QWidget;
        outer.addPage(first);
        outer.addPage(second);
        auto *inner = new FadingStack(second);
        auto *idle = new QLabel(QStringLiteral("idle"));
        auto *busy = new QLabel(QStringLiteral("busy"));
        inner->addPage(idle);
        inner->addPage(busy);
        outer.show();
        QVERIFY(QTest::qWaitForWindowExposed(&outer));

        // A change inside a page that is fading in shows at once.
        outer.setCurrentPage(second);
        QVERIFY(outer.isFading());
        inner->setCurrentPage(busy);
        QVERIFY(!inner->isFading());
        QCOMPARE(busy->graphicsEffect(), nullptr);
        QVERIFY(busy->isVisible() && !idle->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(!outer.isFading(), 2000);

        // At rest the inner stack fades as usual; an outer fade ends it first.
        inner->setCurrentPage(idle);
        QVERIFY(inner->isFading());
        outer.setCurrentPage(first);
        QVERIFY(outer.isFading());
        QVERIFY(!inner->isFading());
        QCOMPARE(idle->graphicsEffect(), nullptr);
        QCOMPARE(busy->graphicsEffect(), nullptr);
    }

    void badgeAndBox()
    {
        StepBadge badge(2);
        QCOMPARE(badge.size(), QSize(24, 24));
        const QImage open = Rendering::toImage(badge, 2, Palette::selvaroBackground());
        badge.setDone(true);
        const QImage done = Rendering::toImage(badge, 2, Palette::selvaroBackground());
        // Open: a faint disc; done: green, with the white check in the middle.
        const QColor faint = Palette::badgeFill();
        const QRgb expectedOpen = qRgb(qRound(Palette::selvaroBackground().red() * (1 - faint.alphaF())),
                                       qRound(Palette::selvaroBackground().green() * (1 - faint.alphaF())),
                                       qRound(Palette::selvaroBackground().blue() * (1 - faint.alphaF())));
        QVERIFY(std::abs(qRed(open.pixel(8, 24)) - qRed(expectedOpen)) <= 2);
        QCOMPARE(done.pixel(8, 24), Palette::systemGreen().rgb());
        QCOMPARE(done.pixel(0, 0), Palette::selvaroBackground().rgb());

        OutlinedBox box;
        box.resize(100, 60);
        const QImage framed = Rendering::toImage(box, 2, Qt::white);
        // The stroke lies inside the bounds: the edge's middle row is grey at
        // the outermost pixels, the corner is cut by the radius, the inside is clear.
        QVERIFY(qRed(framed.pixel(0, 60)) < 250);
        QCOMPARE(framed.pixel(0, 0), qRgb(255, 255, 255));
        QCOMPARE(framed.pixel(100, 60), qRgb(255, 255, 255));
    }

    void renderButtons()
    {
        Page page;
        page.layout->addWidget(line({new PillButton(QStringLiteral("Record"), Symbol::recordCircle,
                                                    {Kind::record, Size::regular, false, true})}));
        page.layout->addWidget(row(nullptr,
                                   new PillButton(QStringLiteral("Pause"), Symbol::pauseFill,
                                                  {Kind::secondary, Size::regular, true}),
                                   nullptr));
        page.layout->addWidget(
            row(new PillButton(QStringLiteral("Discard"), Symbol::trash, {Kind::destructive, Size::regular, true}),
                new PillButton(QStringLiteral("Resume"), Symbol::playFill, {Kind::secondary, Size::regular, true}),
                new PillButton(QStringLiteral("Save"), Symbol::checkmark, {Kind::primary, Size::regular, true})));
        page.layout->addWidget(line({new PillButton(QStringLiteral("Allow"), {Kind::primary, Size::small}),
                                     new PillButton(QStringLiteral("Settings"), {Kind::secondary, Size::small})}));
        page.layout->addWidget(line({new PillButton(QStringLiteral("Send again"), {Kind::secondary, Size::regular}),
                                     new PillButton(QStringLiteral("New code"), {Kind::primary, Size::regular})}));
        // Pressed and keyboard-focused looks.
        auto *pressed = new PillButton(QStringLiteral("Pressed"), Symbol::checkmark, {Kind::primary, Size::regular});
        auto *focused = new PillButton(QStringLiteral("Focused"), {Kind::secondary, Size::regular});
        page.layout->addWidget(line({pressed, focused}));
        page.widget.show();
        QVERIFY(QTest::qWaitForWindowExposed(&page.widget));
        QApplication::setActiveWindow(&page.widget);
        QTest::mousePress(pressed, Qt::LeftButton, {}, pressed->rect().center());
        QTRY_COMPARE(pressed->pressProgress(), 1.0);
        focused->setFocus(Qt::TabFocusReason);
        page.save(QStringLiteral("buttons"), m_dir);
        QTest::mouseRelease(pressed, Qt::LeftButton, {}, pressed->rect().center());
    }

    void renderTextAndStatus()
    {
        Page page;
        page.layout->addWidget(text(ClockText::format(83), Typography::clock(), Palette::primaryText()));
        page.layout->addWidget(text(ClockText::format(3725), Typography::clock(), Palette::secondaryText()));

        auto *waveform = new WaveformIndicator;
        waveform->setFont(Typography::footnote());
        waveform->setRunning(true);
        waveform->setPhase(2);
        page.layout->addWidget(line({waveform, text(QStringLiteral("Recording the system audio and the microphone"),
                                                     Typography::footnote(), Palette::secondaryText())},
                                    4));
        auto *sent = new SymbolView(Symbol::checkmarkCircleFill, 12, Palette::systemGreen());
        page.layout->addWidget(line({sent, text(QStringLiteral("Sent. The note is being written on your phone."),
                                                Typography::footnote(), Palette::systemGreen())},
                                    4));

        const QString failure = QStringLiteral(
            "The recording could not start. Check the microphone and system audio permissions.");
        auto *balanced = new BalancedLabel(failure);
        balanced->setFont(Typography::footnote());
        balanced->setColor(Palette::systemRed());
        page.layout->addWidget(balanced);
        // The same text wrapped plainly, for comparison.
        auto *plain = text(failure, Typography::footnote(), Palette::systemRed());
        plain->setWordWrap(true);
        page.layout->addWidget(plain);

        QString phrase = QStringLiteral("under Settings > Record on my Mac");
        phrase.replace(QLatin1Char(' '), QChar(0x00A0));
        auto *instruction = new BalancedLabel(QStringLiteral("Type this code in Selvaro, ") + phrase + QLatin1Char(':'));
        instruction->setFont(Typography::callout());
        page.layout->addWidget(instruction);
        page.layout->addWidget(text(QStringLiteral("R3XD-8N5W"), Typography::code(), Palette::primaryText()));
        auto *swap = new TextButton(QStringLiteral("Show the QR code"));
        swap->setUnderlined(true);
        page.layout->addWidget(line({new TextButton(QStringLiteral("Unlink")), swap}, 24));
        page.layout->addWidget(line({new Spinner(Spinner::ControlSize::large), new Spinner(Spinner::ControlSize::regular),
                                     new Spinner(Spinner::ControlSize::small)},
                                    24));
        page.layout->addWidget(text(QStringLiteral("Record a call, a meeting or a video playing on this computer.\n"
                                                   "The note appears in Selvaro on your phone."),
                                    Typography::footnote(), Palette::tertiaryText()));
        page.save(QStringLiteral("text-and-status"), m_dir);
    }

    void renderQrCodeAndSymbols()
    {
        Page page;
        auto *qr = new QrCodeView;
        qr->setMessage(QByteArrayLiteral("selvaro://pair/R3XD8N5W"));
        page.layout->addWidget(line({qr}));
        for (const auto source : {SymbolIcon::Source::themeOrPainted, SymbolIcon::Source::painted}) {
            QList<QWidget *> symbols;
            auto *strip = new QWidget;
            auto *layout = new QHBoxLayout(strip);
            layout->addStretch();
            for (Symbol symbol : allSymbols) {
                auto *label = new QLabel;
                label->setPixmap(SymbolIcon::pixmap(symbol, 20, Palette::primaryText(), 2, source));
                layout->addWidget(label);
            }
            layout->addStretch();
            page.layout->addWidget(strip);
        }
        auto *box = new OutlinedBox;
        box->setMaximumWidth(320);
        auto *rows = new QVBoxLayout(box);
        rows->setContentsMargins(16, 12, 16, 12);
        for (const bool done : {true, false}) {
            auto *row = new QHBoxLayout;
            row->setSpacing(12);
            auto *badge = new StepBadge(done ? 1 : 2);
            badge->setDone(done);
            row->addWidget(badge);
            row->addWidget(text(done ? QStringLiteral("Microphone") : QStringLiteral("System audio"), Typography::body(),
                                Palette::primaryText()));
            row->addStretch();
            if (!done)
                row->addWidget(new PillButton(QStringLiteral("Allow"), {Kind::primary, Size::small}));
            rows->addLayout(row);
        }
        page.layout->addWidget(box, 0, Qt::AlignHCenter);
        page.save(QStringLiteral("qr-and-symbols"), m_dir);
    }
};

QTEST_MAIN(TestBlocks)
#include "tst_Blocks.moc"
