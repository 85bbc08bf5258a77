#include "ui/Palette.h"
#include "ui/QrCode.h"
#include "ui/QrCodeView.h"
#include "ui/Rendering.h"
#include "support/QrReader.h"

#include <QTest>

namespace {

const QByteArray pairingLink = QByteArrayLiteral("selvaro://pair/R3XD8N5W");

// A QR code view showing `message` at (20, 20) on the application
// background, as a screen shows it, rendered at `ratio`.
QImage renderCard(const QByteArray &message, qreal ratio)
{
    QWidget page;
    page.resize(240, 240);
    auto *view = new QrCodeView(&page);
    view->setMessage(message);
    view->move(20, 20);
    return Rendering::toImage(page, ratio, Palette::selvaroBackground());
}

} // namespace

class TestQrCode : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        if (!QrReader::available())
            QSKIP("zbarimg (zbar-tools) is not installed");
    }

    void pairingLinkEncodesAtLevelM()
    {
        const auto code = QrCode::encode(pairingLink);
        QVERIFY(code);
        // 23 bytes need version 2 at level M (version 1 holds 14).
        QCOMPARE(code->version(), 2);
        QCOMPARE(code->size(), 25);
        // The three finder patterns sit in their corners.
        QVERIFY(code->isDark(0, 0) && code->isDark(24, 0) && code->isDark(0, 24));
        QVERIFY(!code->isDark(7, 7));
    }

    void nothingToEncode_data()
    {
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("empty") << QByteArray();
        // Version 40 at level M holds 2331 bytes.
        QTest::newRow("too long") << QByteArray(2400, 'a');
    }
    void nothingToEncode()
    {
        QFETCH(QByteArray, message);
        QVERIFY(!QrCode::encode(message));
        QrCodeView view;
        view.setMessage(message);
        QVERIFY(!view.code());
        // The view keeps its place and draws nothing.
        QCOMPARE(view.sizeHint(), QSize(200, 200));
        const QImage image = renderCard(message, 1);
        QCOMPARE(image.pixel(120, 120), Palette::selvaroBackground().rgb());
    }

    void renderedViewDecodesBack_data()
    {
        QTest::addColumn<QByteArray>("message");
        QTest::addColumn<qreal>("ratio");
        QTest::newRow("pairing link 2x") << pairingLink << 2.0;
        QTest::newRow("pairing link 1x") << pairingLink << 1.0;
        QTest::newRow("long link 2x") << QByteArray("selvaro://pair/" + QByteArray(120, 'Q')) << 2.0;
    }
    void renderedViewDecodesBack()
    {
        QFETCH(QByteArray, message);
        QFETCH(qreal, ratio);
        const QImage image = renderCard(message, ratio);
        QCOMPARE(image.size(), QSize(240, 240) * ratio);
        QCOMPARE(QrReader::decode(image, QString::fromLatin1(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-'))),
                 message);
    }

    void modulesAreCrisp()
    {
        // Inside the card every pixel is pure black or pure white at 2x: no
        // module edge is blended, and modules are whole pixels wide.
        const QImage image = renderCard(pairingLink, 2).convertToFormat(QImage::Format_RGB32);
        const QRect card(40 + 24, 40 + 24, 400 - 48, 400 - 48); // clear of the rounded corners
        QSet<QRgb> colours;
        for (int y = card.top(); y <= card.bottom(); ++y) {
            for (int x = card.left(); x <= card.right(); ++x)
                colours.insert(image.pixel(x, y));
        }
        QCOMPARE(colours, (QSet<QRgb>{qRgb(0, 0, 0), qRgb(255, 255, 255)}));

        // 29 modules (25 + 2 × 2 quiet) over 400 pixels: each 13 or 14 pixels.
        int run = 0;
        QList<int> runs;
        const int row = 40 + 30; // through the top finder pattern's outer ring
        QRgb previous = image.pixel(40, row);
        for (int x = 40; x < 440; ++x) {
            const QRgb pixel = image.pixel(x, row);
            if (pixel != previous) {
                runs << run;
                run = 0;
                previous = pixel;
            }
            ++run;
        }
        // The finder's outer ring is 7 modules of black.
        QVERIFY2(runs.size() > 2, "no modules on the row");
        const int finder = runs[1];
        QVERIFY2(finder >= 7 * 13 && finder <= 7 * 14, qPrintable(QString::number(finder)));
    }

    void cardHasRoundedCorners()
    {
        const QImage image = renderCard(pairingLink, 2);
        // The card's very corner shows the background; a little inside, white.
        QCOMPARE(image.pixel(40, 40), Palette::selvaroBackground().rgb());
        QCOMPARE(image.pixel(40 + 12, 40 + 12), qRgb(255, 255, 255));
        QCOMPARE(image.pixel(40 + 200, 40 + 2), qRgb(255, 255, 255));
    }

    void imageDecodesBack()
    {
        const auto code = QrCode::encode(pairingLink);
        QVERIFY(code);
        const QImage image = code->toImage(220, 2);
        QCOMPARE(image.size(), QSize(440, 440));
        QCOMPARE(QrReader::decode(image, QStringLiteral("image")), pairingLink);
    }
};

QTEST_MAIN(TestQrCode)
#include "tst_QrCode.moc"
