#include "audio/DualRecorderError.h"
#include "audio/M4aWriter.h"
#include "support/MixerAnalysis.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <numbers>
#include <vector>

using namespace MixerAnalysis;

class M4aWriterTest : public QObject
{
    Q_OBJECT

private slots:
    // Chunks of every size, none a multiple of the encoder's 1024-sample frame, must
    // come out as one unbroken tone of exactly the length that went in.
    void oddChunksMakeOneUnbrokenStream()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("odd.m4a"));
        M4aWriter writer(path);
        QCOMPARE(writer.status(), M4aWriter::Status::unknown);
        QVERIFY(writer.startWriting());
        QCOMPARE(writer.status(), M4aWriter::Status::writing);

        const int sizes[] = {1000, 333, 4096, 7, 2500, 1023, 1025};
        std::vector<float> left(4096);
        std::vector<float> right(4096);
        long long written = 0;
        for (int round = 0; written < 2 * 48000; ++round) {
            const int n = sizes[round % std::size(sizes)];
            for (int i = 0; i < n; ++i) {
                const double t = static_cast<double>(written + i) / 48000;
                left[static_cast<size_t>(i)] = static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 500 * t));
                right[static_cast<size_t>(i)] = static_cast<float>(0.25 * std::sin(2 * std::numbers::pi * 750 * t));
            }
            QVERIFY(writer.enqueue(left.data(), right.data(), n));
            QVERIFY(writer.encodeQueued());
            written += n;
        }
        writer.finishWriting();
        QCOMPARE(writer.status(), M4aWriter::Status::completed);
        QCOMPARE(writer.errorText(), QString());

        const Decoded out = decode(path);
        QCOMPARE(out.error, QString());
        // The decoder hands out whole frames; the container's duration is the exact one.
        QVERIFY(static_cast<long long>(out.left.size()) >= written);
        QVERIFY(static_cast<long long>(out.left.size()) < written + 1024);
        QVERIFY(std::abs(out.duration - static_cast<double>(written) / 48000) < 0.001);
        const double steady = 0.5 / std::sqrt(2.0);
        for (long long at = 2048; at + 512 < written - 2048; at += 512) {
            const double level = rms(out.left, at, at + 512);
            QVERIFY2(std::abs(level - steady) < 0.1 * steady,
                     qPrintable(QStringLiteral("level %1 at frame %2").arg(level).arg(at)));
        }
        QVERIFY(std::abs(toneAmplitude(out.right, 4800, written - 4800, 750, 48000) - 0.25) < 0.02);
    }

    void startsOnlyOnce()
    {
        QTemporaryDir dir;
        M4aWriter writer(dir.filePath(QStringLiteral("once.m4a")));
        QVERIFY(writer.startWriting());
        QVERIFY(!writer.startWriting());
        QCOMPARE(writer.status(), M4aWriter::Status::writing);
    }

    // A file that cannot be created fails at start, with FFmpeg's reason, not before.
    void unwritablePathFailsAtStart()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("missing/x.m4a"));
        M4aWriter writer(path);
        QVERIFY(!writer.startWriting());
        QCOMPARE(writer.status(), M4aWriter::Status::failed);
        QVERIFY2(writer.errorText().contains(QStringLiteral("No such file or directory")),
                 qPrintable(writer.errorText()));
        QVERIFY(!writer.encodeQueued());
        writer.finishWriting();
        QCOMPARE(writer.status(), M4aWriter::Status::failed);
        QVERIFY(!QFileInfo::exists(path));
    }

    // Nothing appended: still a valid, empty-stream file.
    void finishingUntouchedWriterCompletes()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("empty.m4a"));
        M4aWriter writer(path);
        QVERIFY(writer.startWriting());
        writer.finishWriting();
        QCOMPARE(writer.status(), M4aWriter::Status::completed);
        QVERIFY(QFileInfo(path).size() > 0);
    }
};

QTEST_GUILESS_MAIN(M4aWriterTest)
#include "M4aWriterTest.moc"
