// The send's rules on their own: which failures are tried again and after how long,
// and how often the share sent may change on screen.
#include "recording/ProgressThrottle.h"
#include "recording/SendRetry.h"

#include <QTest>

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
Q_DECLARE_METATYPE(ApiError)

class TestRecordingRetry : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void retryRule_data()
    {
        QTest::addColumn<ApiError>("error");
        QTest::addColumn<double>("jitter");
        QTest::addColumn<QString>("waits"); // before the 2nd, 3rd and 4th try, in seconds
        const auto below = [](QNetworkReply::NetworkError code) {
            return ApiError::transport({ code, u"x"_s });
        };
        QTest::newRow("timed out, shortest")
            << below(QNetworkReply::OperationCanceledError) << 0.0 << u"4 24 96"_s;
        QTest::newRow("500, longest") << ApiError::http(500, u"x"_s) << 1.0 << u"6 36 144"_s;
        QTest::newRow("408") << ApiError::http(408, u"x"_s) << 0.5 << u"5 30 120"_s;
        QTest::newRow("429, Retry-After 2") << ApiError::http(429, u"x"_s, 2s) << 0.5 << u"2 2 2"_s;
        QTest::newRow("503, Retry-After 1 h") << ApiError::http(503, u"x"_s, 1h) << 0.5 << u"300 300 300"_s;
        QTest::newRow("401") << ApiError::http(401, u"x"_s) << 0.5 << u"never"_s;
        QTest::newRow("404") << ApiError::http(404, u"x"_s) << 0.5 << u"never"_s;
        QTest::newRow("unexpected response") << ApiError::badResponse() << 0.5 << u"never"_s;
        QTest::newRow("file gone") << below(QNetworkReply::ContentNotFoundError) << 0.5 << u"never"_s;
    }
    void retryRule()
    {
        QFETCH(ApiError, error);
        QFETCH(double, jitter);
        const SendRetry retry([jitter] { return jitter; });
        QStringList waits;
        for (int next = 2; next <= SendRetry::tries; ++next)
            waits << QString::number(std::chrono::duration<double>(retry.waitBefore(next, error)).count());
        QTEST(SendRetry::canFix(error) ? waits.join(u' ') : u"never"_s, "waits");
    }

    // A report every 10 ms for a second, one of them going back: ten changes, each higher.
    void progressPace()
    {
        ProgressThrottle throttle;
        const std::chrono::steady_clock::time_point start;
        QList<int> shown;
        for (int ms = 0; ms < 1000; ms += 10) {
            const auto at = start + std::chrono::milliseconds(ms);
            if (const auto share = throttle.take(ms == 500 ? 10 : ms / 10 + 1, 100, at))
                shown << *share;
        }
        QCOMPARE(shown, (QList<int> { 1, 11, 21, 31, 41, 52, 62, 72, 82, 92 }));
        QCOMPARE(throttle.untilNext(start + 990ms), 20ms); // the end waits that long
    }
};

QTEST_GUILESS_MAIN(TestRecordingRetry)
#include "tst_recording_retry.moc"
