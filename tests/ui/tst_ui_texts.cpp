// The texts the screens show: the recorder's clock, the pairing countdown, this
// platform's wording of the description's texts, and balanced wrapping: the
// narrowest width that keeps the line count, so that lines come out even.
#include "ui/Balanced.h"
#include "ui/BalancedLabel.h"
#include "ui/ClockText.h"
#include "ui/PlatformWording.h"
#include "ui/Typography.h"
#include "ui/WrappedText.h"

#include <QFontMetricsF>
#include <QTest>

#include <cmath>

class TestTexts : public QObject
{
    Q_OBJECT
private slots:
    void clockAndCountdown_data()
    {
        QTest::addColumn<bool>("countdown");
        QTest::addColumn<double>("seconds");
        QTest::addColumn<QString>("text");
        QTest::newRow("clock truncates") << false << 59.9 << QStringLiteral("00:59");
        QTest::newRow("clock pads minutes") << false << 83.0 << QStringLiteral("01:23");
        QTest::newRow("clock before an hour") << false << 3599.99 << QStringLiteral("59:59");
        QTest::newRow("clock, minutes within the hour") << false << 3725.0 << QStringLiteral("1:02:05");
        QTest::newRow("clock past 99 hours") << false << 360000.0 << QStringLiteral("100:00:00");
        QTest::newRow("countdown, ten minutes") << true << 600.0 << QStringLiteral("10:00");
        QTest::newRow("countdown truncates") << true << 9.9 << QStringLiteral("0:09");
        QTest::newRow("countdown past expiry") << true << -125.0 << QStringLiteral("0:00");
    }
    void clockAndCountdown()
    {
        QFETCH(bool, countdown);
        QFETCH(double, seconds);
        QFETCH(QString, text);
        QCOMPARE(countdown ? ClockText::countdown(seconds) : ClockText::format(seconds), text);
    }

    // Through Qt's translation mechanism, keyed by the text in the code.
    void wording_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("shown");
        QTest::newRow("lower case") << QStringLiteral("Unlink this Mac?") << QStringLiteral("Unlink this computer?");
        QTest::newRow("sentence start") << QStringLiteral("This Mac is linked.") << QStringLiteral("This computer is linked.");
        // The phone app's own menu item keeps its name.
        QTest::newRow("phone setting") << QStringLiteral("Record on my Mac") << QStringLiteral("Record on my Mac");
    }
    void wording()
    {
        QFETCH(QString, key);
        QFETCH(QString, shown);
        PlatformWording wording;
        QVERIFY(QCoreApplication::installTranslator(&wording));
        QCOMPARE(QCoreApplication::translate("RecorderView", key.toUtf8().constData()), shown);
    }

    void balancedLines_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("lineCount");
        QTest::newRow("one line") << QStringLiteral("Paused") << 1;
        QTest::newRow("two lines") << QStringLiteral("The recording could not start. Check the microphone and system audio permissions.") << 2;
        QTest::newRow("no-break phrase")
            << QStringLiteral("Type this code in Selvaro, under\u00a0Settings\u00a0>\u00a0Record\u00a0on\u00a0my\u00a0Mac:") << 2;
    }
    void balancedLines()
    {
        QFETCH(QString, text);
        QFETCH(int, lineCount);
        BalancedLabel label(text);
        label.setFont(Typography::callout());
        const WrappedText wrapped(text, Typography::callout());
        const Balanced::Fit fit = label.fitFor(300);
        const QStringList lines = wrapped.lines(fit.width);
        QCOMPARE(lines.size(), lineCount);
        // As tall as at the proposed width, the narrowest such width, and the label asks for that height.
        QCOMPARE(fit.size.height(), wrapped.measure(300).height());
        QVERIFY(wrapped.measure(fit.width - 1).height() > fit.size.height());
        QCOMPARE(label.heightForWidth(300), static_cast<int>(std::ceil(fit.size.height())));
        // Even: the lines differ by less than the longest word (a no-break phrase is one word).
        const QFontMetricsF metrics(Typography::callout());
        qreal longestWord = 0, shortest = 1e6, longest = 0;
        for (const QString &word : text.split(QLatin1Char(' ')))
            longestWord = std::max(longestWord, metrics.horizontalAdvance(word));
        for (const QString &line : lines) {
            shortest = std::min(shortest, metrics.horizontalAdvance(line.trimmed()));
            longest = std::max(longest, metrics.horizontalAdvance(line.trimmed()));
            QVERIFY(!line.contains(QChar(0xa0)) || line.contains(text.section(QLatin1Char(' '), -1)));
        }
        QVERIFY2(longest - shortest < longestWord, qPrintable(lines.join(QLatin1Char('|'))));
    }
};

QTEST_MAIN(TestTexts)
#include "tst_ui_texts.moc"
