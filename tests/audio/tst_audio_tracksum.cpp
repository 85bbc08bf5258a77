#include "audio/TrackSum.h"

#include <QTest>

#include <vector>

// The sum of an application's streams: on one clock whatever the order they write in,
// and never past full scale.
class AudioTrackSum : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void sumsTracksOnOneClock()
    {
        std::vector<float> out;
        TrackSum sum(
            100, 1, [&out](const float *data, qint64 frames) { out.insert(out.end(), data, data + frames); });
        const auto place = [&sum](int track, std::vector<float> frames) {
            sum.place(track, frames.data(), static_cast<qint64>(frames.size()));
        };
        const int first = sum.add();
        place(first, { 0.25F, 0.5F, 0.125F, 0.5F });
        sum.flush();
        QVERIFY(out.empty()); // the base track (nothing playing) has not reached it yet
        sum.place(TrackSum::base, nullptr, 3);
        sum.flush();
        QCOMPARE(out, (std::vector<float> { 0.25F, 0.5F, 0.125F })); // one stream passes as it is
        const int late = sum.add(); // its first frames are already handed on
        place(late, { 9, 9, 9, 0.25F, 0.25F });
        sum.place(TrackSum::base, nullptr, 3);
        sum.flush();
        QCOMPARE(out.size(), 4U); // the first track holds the sum back…
        sum.end(first);
        sum.flush();
        QCOMPARE(out, (std::vector<float> { 0.25F, 0.5F, 0.125F, 0.75F, 0.25F })); // …until it ends
        // Two loud streams: scaled down to full scale at once, then 6 dB a second back.
        place(late, { 0.75F, 0.75F, 0.25F });
        const int loud = sum.add();
        place(loud, { 0, 0, 0, 0, 0, 0.75F, 0.75F, 0.25F });
        sum.place(TrackSum::base, nullptr, 3);
        sum.flush();
        QCOMPARE(out.back(), 0.5F / 1.5F);
        QCOMPARE(*(out.end() - 2), 1.0F);
    }
};

QTEST_GUILESS_MAIN(AudioTrackSum)
#include "tst_audio_tracksum.moc"
