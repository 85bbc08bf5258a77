// The texts the screens show: the recorder's clock, the pairing countdown, this
// platform's wording of the product's texts, and balanced wrapping: the
// narrowest width that keeps the line count, so that lines come out even.
#include "common/ClockText.h"
#include "ui/Balanced.h"
#include "ui/BalancedLabel.h"
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
    // The clock, the countdown, and how this platform words the product's texts.
    void shownText_data()
    {
        QTest::addColumn<QString>("shown");
        QTest::addColumn<QString>("expected");
        const auto word = [](const char *key) { return PlatformWording::reword(QString::fromUtf8(key)); };
        QTest::newRow("clock pads minutes") << ClockText::format(83) << QStringLiteral("01:23");
        QTest::newRow("clock truncates") << ClockText::format(3599.99) << QStringLiteral("59:59");
        QTest::newRow("clock hours unpadded") << ClockText::format(3600) << QStringLiteral("1:00:00");
        QTest::newRow("clock minutes in the hour") << ClockText::format(3725) << QStringLiteral("1:02:05");
        QTest::newRow("clock past 99 hours") << ClockText::format(360000) << QStringLiteral("100:00:00");
        QTest::newRow("countdown, ten minutes") << ClockText::countdown(600) << QStringLiteral("10:00");
        QTest::newRow("countdown truncates") << ClockText::countdown(9.9) << QStringLiteral("0:09");
        QTest::newRow("countdown past expiry") << ClockText::countdown(-125) << QStringLiteral("0:00");
        QTest::newRow("wording") << word("Unlink this Mac?") << QStringLiteral("Unlink this computer?");
        QTest::newRow("capital") << word("This Mac is linked.") << QStringLiteral("This computer is linked.");
        // The phone app's own menu item keeps its name.
        QTest::newRow("phone's menu") << word("Record on my Mac") << QStringLiteral("Record on my Mac");
    }
    void shownText()
    {
        QFETCH(QString, shown);
        QTEST(shown, "expected");
    }

    void balancedLines_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("lineCount");
        QTest::newRow("one line") << QStringLiteral("Paused") << 1;
        QTest::newRow("two lines") << QStringLiteral(
            "The recording could not start. Check the microphone and system audio permissions.")
                                   << 2;
        QTest::newRow("no-break phrase") << QStringLiteral(
            "Type this code in Selvaro, under\u00a0Settings\u00a0>\u00a0Record\u00a0on\u00a0my\u00a0Mac:")
                                         << 2;
    }
    void balancedLines()
    {
        QFETCH(QString, text);
        BalancedLabel label(text);
        label.setFont(Typography::callout());
        const WrappedText wrapped(text, Typography::callout());
        const Balanced::Fit fit = label.fitFor(300);
        const QStringList lines = wrapped.lines(fit.width);
        QTEST(int(lines.size()), "lineCount");
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
