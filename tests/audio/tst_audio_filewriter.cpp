#include "audio/AudioFileWriter.h"
#include "common/Logging.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sndfile.h>
#include <sys/resource.h>

namespace {

std::vector<float> ramp(qint64 frames, int channels)
{
    std::vector<float> samples(static_cast<std::size_t>(frames * channels));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(i % 1000) / 1000.0F;
    return samples;
}

} // namespace

class AudioFileWriterTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private Q_SLOTS:
    // What a killed process leaves: a private file whose header is current while it is open.
    void headerIsCurrentWhileOpen()
    {
        const QString path = m_dir.filePath(QStringLiteral("open.wav"));
        QFile earlier(path);
        QVERIFY(
            earlier.open(QIODevice::WriteOnly) && earlier.setPermissions(QFileDevice::Permissions(0x6644)));
        earlier.close();
        AudioFileWriter writer("test-writer", lcSystemRecorder());
        QVERIFY(!writer.open(path, { SampleSpec::Sample::float32, 48000, 2 }));
        QCOMPARE(QFile(path).permissions() & QFileDevice::Permissions(0x0077), QFileDevice::Permissions());
        const auto samples = ramp(1000, 2);
        for (int i = 0; i < 10; ++i)
            writer.push(samples.data(), 1000);
        writer.push(nullptr, 500); // silence
        QTRY_COMPARE(writer.framesWritten(), quint64(10500));
        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.error.isEmpty(), qPrintable(file.error));
        QCOMPARE(file.frames(), 10500);
        QCOMPARE(file.samples[2001], samples[1]);
        QCOMPARE(file.samples.back(), 0.0F);
    }

    void droppingKeepsOnlyTheKeptSpans()
    {
        const QString path = m_dir.filePath(QStringLiteral("dropping.wav"));
        AudioFileWriter writer("test-writer", lcMicRecorder());
        QVERIFY(!writer.open(path, { SampleSpec::Sample::int16, 48000, 1 }));
        const auto samples = ramp(480, 1);
        writer.push(samples.data(), 480);
        QTRY_COMPARE(writer.framesWritten(), quint64(480));
        writer.setDropping(true);
        writer.push(samples.data(), 480);
        QTRY_COMPARE(writer.framesDropped(), quint64(480));
        writer.setDropping(false);
        writer.push(samples.data(), 480);
        writer.close();
        writer.push(samples.data(), 480); // after close: ignored
        const SoundFile file = SoundFile::read(path);
        QCOMPARE(file.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
        QCOMPARE(file.frames(), 960);
    }

    // A full disk, played by a file size limit: logged once, writing stops, and the
    // file holds what was written before.
    void writeErrorStopsWritingAndKeepsTheFile()
    {
        const QString path = m_dir.filePath(QStringLiteral("full.wav"));
        LogCapture log;
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit saved {};
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &saved), 0);
        AudioFileWriter writer("test-writer", lcSystemRecorder());
        QVERIFY(!writer.open(path, { SampleSpec::Sample::float32, 48000, 2 }));
        rlimit limited = saved;
        limited.rlim_cur = 64 * 1024;
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &limited), 0);
        const auto samples = ramp(1024, 2);
        for (int i = 0; i < 20; ++i)
            writer.push(samples.data(), 1024);
        QTRY_VERIFY(writer.failed());
        writer.close();
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &saved), 0);
        QCOMPARE(log.lines(QStringLiteral("SystemRecorder"))
                     .filter(QStringLiteral("Failed to write audio file"))
                     .size(),
            1);
        QVERIFY(writer.framesWritten() > 0 && writer.framesWritten() < 20 * 1024);
        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.error.isEmpty(), qPrintable(file.error));
        QVERIFY(file.frames() >= static_cast<long long>(writer.framesWritten()) - 1024);
    }
};

QTEST_GUILESS_MAIN(AudioFileWriterTest)
#include "tst_audio_filewriter.moc"
