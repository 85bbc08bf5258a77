#include "ui/Balanced.h"
#include "ui/BalancedLabel.h"
#include "ui/Typography.h"
#include "ui/WrappedText.h"

#include <QFontMetricsF>
#include <QTest>
#include <QVBoxLayout>
#include <QWidget>

#include <cmath>

namespace {

const QString failure = QStringLiteral(
    "The recording could not start. Check the microphone and system audio permissions.");

// A measurer over QFontMetricsF, independent of the label's own QTextLayout one.
Balanced::Measure metricsMeasure(const QString &text, const QFont &font, int *calls = nullptr)
{
    return [text, font, calls](qreal width) {
        if (calls)
            ++*calls;
        return QFontMetricsF(font)
            .boundingRect(QRectF(0, 0, width, 1e6), Qt::TextWordWrap | Qt::TextWrapAnywhere | Qt::AlignHCenter, text)
            .size();
    };
}

qreal longestWord(const QString &text, const QFont &font)
{
    qreal longest = 0;
    for (const QString &word : text.split(QLatin1Char(' ')))
        longest = std::max(longest, QFontMetricsF(font).horizontalAdvance(word));
    return longest;
}

} // namespace

class TestBalanced : public QObject
{
    Q_OBJECT
private slots:
    void oneLineKeepsItsHeight()
    {
        const QFont font = Typography::footnote();
        const QString text = QStringLiteral("Paused");
        const QSizeF natural = metricsMeasure(text, font)(300);
        const Balanced::Fit fit = Balanced::fit(300, metricsMeasure(text, font));
        QCOMPARE(fit.size.height(), natural.height());
        // The narrowest width that keeps one line is about the text's own width, rounded up.
        QVERIFY(fit.width >= natural.width());
        QVERIFY(fit.width <= std::ceil(natural.width()) + 1);
    }

    void twoLinesComeBackNearlyEven()
    {
        const QFont font = Typography::footnote();
        const auto measure = metricsMeasure(failure, font);
        const QSizeF atProposal = measure(300);
        const qreal oneLine = metricsMeasure(failure, font)(1e6).width();
        QCOMPARE(qRound(atProposal.height() / QFontMetricsF(font).height()), 2);

        const Balanced::Fit fit = Balanced::fit(300, measure);
        QCOMPARE(fit.size.height(), atProposal.height());
        // Two lines can be no narrower than half the text, and an even split
        // is never more than one word (and its space) wider than that.
        QVERIFY2(fit.width >= oneLine / 2, qPrintable(QString::number(fit.width)));
        QVERIFY2(fit.width <= oneLine / 2 + longestWord(failure, font) + 4, qPrintable(QString::number(fit.width)));
        QVERIFY(fit.width < atProposal.width());
        // And it is the narrowest: one point less adds a line.
        QVERIFY(measure(fit.width - 1).height() > atProposal.height());
    }

    void labelLinesAreEven()
    {
        // The same through the label's own layout routine: the two lines differ
        // by less than the longest word, where the unbalanced layout leaves a
        // short last line.
        const WrappedText wrapped(failure, Typography::footnote());
        const Balanced::Fit fit
            = Balanced::fit(300, [&wrapped](qreal width) { return wrapped.measure(width); });
        const QStringList lines = wrapped.lines(fit.width);
        QCOMPARE(lines.size(), 2);
        const QFontMetricsF metrics(Typography::footnote());
        const qreal difference = std::abs(metrics.horizontalAdvance(lines[0].trimmed())
                                          - metrics.horizontalAdvance(lines[1].trimmed()));
        QVERIFY2(difference < longestWord(failure, Typography::footnote()), qPrintable(lines.join(QLatin1Char('|'))));
        const QStringList unbalanced = wrapped.lines(300);
        QVERIFY(metrics.horizontalAdvance(unbalanced[1]) < metrics.horizontalAdvance(lines[1]));
    }

    void tinyWidthIsNotSearched_data()
    {
        QTest::addColumn<qreal>("natural");
        QTest::addColumn<qreal>("expectedWidth");
        QTest::newRow("empty") << 0.0 << 0.0;
        QTest::newRow("0.4") << 0.4 << 1.0;
        QTest::newRow("exactly 0.5") << 0.5 << 1.0;
    }
    void tinyWidthIsNotSearched()
    {
        QFETCH(qreal, natural);
        QFETCH(qreal, expectedWidth);
        QList<qreal> asked;
        const Balanced::Fit fit = Balanced::fit(200, [&](qreal width) {
            asked << width;
            return QSizeF(std::min(width, natural), 10);
        });
        // Once at the proposal, once at the width rounded up; nothing between.
        QCOMPARE(asked, (QList<qreal>{200, expectedWidth}));
        QCOMPARE(fit.measurements, 2);
        QCOMPARE(fit.width, expectedWidth);
    }

    void searchStopsAtHalfAPoint()
    {
        int calls = 0;
        const QFont font = Typography::footnote();
        const QString text = QStringLiteral("Recording the system audio and the microphone");
        const qreal w0 = metricsMeasure(text, font)(300).width();
        const Balanced::Fit fit = Balanced::fit(300, metricsMeasure(text, font, &calls));
        // One proposal, about log2(w0 / 0.5) halvings, one final measurement.
        const int halvings = static_cast<int>(std::ceil(std::log2(w0 / Balanced::tolerance)));
        QCOMPARE(fit.measurements, calls);
        QCOMPARE(calls, halvings + 2);
        QCOMPARE(fit.width, std::ceil(fit.width));
    }

    void labelTakesBalancedHeightInALayout()
    {
        QWidget page;
        auto *layout = new QVBoxLayout(&page);
        layout->setContentsMargins(0, 0, 0, 0);
        auto *label = new BalancedLabel(failure);
        label->setFont(Typography::footnote());
        layout->addWidget(label);
        page.resize(300, 200);
        layout->activate();
        const qreal lineHeight = WrappedText(QStringLiteral("x"), Typography::footnote()).measure(100).height();
        QCOMPARE(label->heightForWidth(300), static_cast<int>(std::ceil(2 * lineHeight)));
        QCOMPARE(label->fitFor(300).size.height(), 2 * lineHeight);
        QVERIFY(label->fitFor(300).width < 300);
        // Narrower pages give it more lines, never a clipped one.
        QVERIFY(label->heightForWidth(120) > label->heightForWidth(300));
    }

    void noBreakSpacesKeepThePhraseTogether()
    {
        QString phrase = QStringLiteral("under Settings > Record on my Mac");
        phrase.replace(QLatin1Char(' '), QChar(0x00A0));
        const QString text = QStringLiteral("Type this code in Selvaro, ") + phrase + QLatin1Char(':');
        const WrappedText wrapped(text, Typography::callout());
        // At any width that can hold the phrase, it stays on one line.
        const qreal phraseWidth = wrapped.measure(1e6).width() - QFontMetricsF(Typography::callout()).horizontalAdvance(text.left(27));
        for (const qreal width : {phraseWidth + 8, phraseWidth + 40, phraseWidth + 90}) {
            const QStringList lines = wrapped.lines(width);
            QVERIFY(lines.size() >= 2);
            QVERIFY2(lines.last().startsWith(phrase), qPrintable(lines.join(QLatin1Char('|'))));
        }
    }
};

QTEST_MAIN(TestBalanced)
#include "tst_Balanced.moc"
