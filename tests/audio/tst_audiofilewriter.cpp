#include "audio/AudioFileWriter.h"
#include "common/Logging.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <cstring>
#include <sndfile.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

std::vector<float> ramp(qint64 frames, int channels)
{
    std::vector<float> samples(static_cast<std::size_t>(frames * channels));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<float>(i % 1000) / 1000.0F;
    return samples;
}

} // namespace

class TestAudioFileWriter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    // What a killed process leaves: the header is current while the file is open.
    void headerIsCurrentWhileOpen()
    {
        const QString path = m_dir.filePath(QStringLiteral("open.wav"));
        AudioFileWriter writer("test-writer", lcSystemRecorder());
        QVERIFY(!writer.open(path, { SampleSpec::Sample::float32, 48000, 2 }));
        const auto samples = ramp(1000, 2);
        for (int i = 0; i < 10; ++i)
            writer.push(samples.data(), 1000);
        writer.push(nullptr, 500); // silence
        QTRY_COMPARE(writer.framesWritten(), quint64(10500));
        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.ok, qPrintable(file.error));
        QCOMPARE(file.frames(), 10500);
        QCOMPARE(file.samples[2001], samples[1]);
        QCOMPARE(file.samples.back(), 0.0F);
        writer.close();
        QCOMPARE(QFile(path).permissions() & (QFile::ReadOther | QFile::ReadGroup), QFileDevice::Permissions());
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
        QVERIFY(file.ok);
        QCOMPARE(file.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
        QCOMPARE(file.frames(), 960);
    }

    // A full disk, played by a file size limit: logged once, writing stops, and
    // the file holds what was written before.
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
        QCOMPARE(log.lines(QStringLiteral("SystemRecorder")).filter(QStringLiteral("Failed to write audio file")).size(), 1);
        QVERIFY(writer.framesWritten() > 0 && writer.framesWritten() < 20 * 1024);
        const SoundFile file = SoundFile::read(path);
        QVERIFY2(file.ok, qPrintable(file.error));
        QVERIFY(file.frames() >= static_cast<long long>(writer.framesWritten()) - 1024);
    }

    // Past 4 GiB a WAV cannot count its data; RF64 can. A sparse file stands in
    // for three hours of recording so that reading it costs nothing.
    void readsAnRf64PastFourGigabytes()
    {
        const QString path = m_dir.filePath(QStringLiteral("long.wav"));
        SF_INFO info {};
        info.samplerate = 48000;
        info.channels = 2;
        info.format = SF_FORMAT_RF64 | SF_FORMAT_FLOAT;
        SNDFILE *file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
        QVERIFY(file);
        const auto samples = ramp(16, 2);
        sf_writef_float(file, samples.data(), 16);
        sf_close(file);

        QFile raw(path);
        QVERIFY(raw.open(QIODevice::ReadWrite));
        const QByteArray head = raw.read(4096);
        QVERIFY(head.startsWith("RF64"));
        const qint64 dataStart = head.indexOf("data") + 8;
        QVERIFY(dataStart > 8 && head.indexOf("ds64") == 12);
        const qint64 frames = (qint64(5) << 30) / 8; // 5 GiB of stereo float
        const qint64 size = dataStart + frames * 8;
        auto put64 = [&](qint64 offset, quint64 value) {
            raw.seek(offset);
            raw.write(reinterpret_cast<const char *>(&value), 8); // RF64 is little-endian, as is this host
        };
        put64(20, static_cast<quint64>(size - 8));
        put64(28, static_cast<quint64>(frames * 8));
        put64(36, static_cast<quint64>(frames));
        QVERIFY(raw.resize(size));
        raw.close();

        SF_INFO readInfo {};
        file = sf_open(QFile::encodeName(path).constData(), SFM_READ, &readInfo);
        QVERIFY2(file, sf_strerror(nullptr));
        QCOMPARE(readInfo.frames, frames);
        float first[32] {};
        QCOMPARE(sf_readf_float(file, first, 16), 16);
        QCOMPARE(first[3], samples[3]);
        QCOMPARE(sf_seek(file, frames - 4, SEEK_SET), frames - 4);
        float last[8] { 1, 1, 1, 1, 1, 1, 1, 1 };
        QCOMPARE(sf_readf_float(file, last, 4), 4);
        QCOMPARE(last[7], 0.0F);
        sf_close(file);
        QFile::remove(path);
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TestAudioFileWriter)
#include "tst_audiofilewriter.moc"
