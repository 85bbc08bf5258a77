#include "audio/AudioFileWriter.h"
#include "audio/RecordingsFolder.h"
#include "common/Logging.h"
#include "support/FileMode.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <csignal>
#include <sys/resource.h>
#include <sys/statvfs.h>

namespace { } // namespace

// What the recordings folder holds on disk: private folders and files, and WAVs that
// stay readable whatever happens to the process or the disk.
class AudioFiles : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    const std::vector<float> m_block = std::vector<float>(2048, 0.25F);

private Q_SLOTS:
    void foldersArePrivate()
    {
        QCOMPARE(RecordingsFolder::defaultPath(),
            qEnvironmentVariable("XDG_STATE_HOME", QDir::homePath() + QStringLiteral("/.local/state"))
                + QStringLiteral("/selvaro-recorder/Recordings"));
        const QString parent = m_dir.filePath(QStringLiteral("selvaro-test"));
        const QString path = parent + QStringLiteral("/Recordings");
        QVERIFY(!RecordingsFolder::create(path));
        QCOMPARE(modeOf(parent), mode_t(0700));
        QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions(0x7755)));
        QVERIFY(!RecordingsFolder::create(path)); // an existing folder open to others is tightened
        QCOMPARE(modeOf(path), mode_t(0700));
        const QString linked = m_dir.filePath(QStringLiteral("selvaro-linked"));
        QVERIFY(QDir().mkpath(linked) && QFile::link(parent, linked + QStringLiteral("/Recordings")));
        const auto error = RecordingsFolder::create(linked + QStringLiteral("/Recordings"));
        QVERIFY(error && error->contains(QStringLiteral("not a folder of this user")));
        // The room the flow checks before it records: the file system's own answer.
        struct statvfs disk = {};
        QVERIFY(statvfs(QFile::encodeName(path).constData(), &disk) == 0);
        const qint64 free = qint64(disk.f_bavail) * qint64(disk.f_frsize);
        QVERIFY(std::abs(RecordingsFolder::freeSpace(path).value_or(-1) - free) < 64 * 1024 * 1024);
        QVERIFY(!RecordingsFolder::freeSpace(m_dir.filePath(QStringLiteral("none"))));
    }

    // What a killed process leaves: a private file whose header is current while it is
    // open, at every half second of audio; flushed (before a sleep), all that was pushed.
    void headerIsCurrentWhileOpen()
    {
        const QString path = m_dir.filePath(QStringLiteral("open.wav"));
        QFile earlier(path);
        QVERIFY(
            earlier.open(QIODevice::WriteOnly) && earlier.setPermissions(QFileDevice::Permissions(0x6644)));
        earlier.close();
        AudioFileWriter writer("test-writer", lcSystemRecorder());
        QVERIFY(!writer.open(path, { SampleSpec::Sample::float32, 48000, 2 }));
        QCOMPARE(modeOf(path), mode_t(0600));
        writer.push(m_block.data(), 1000);
        writer.push(nullptr, 23000); // silence
        QTRY_COMPARE(writer.framesWritten(), quint64(24000));
        QFile raw(path);
        QVERIFY(raw.open(QIODevice::ReadOnly));
        QCOMPARE(
            qFromLittleEndian<quint32>(raw.read(8).constData() + 4), quint32(raw.size() - 8)); // RIFF size
        const SoundFile file = SoundFile::read(path);
        QCOMPARE(file.frames(), 24000);
        QCOMPARE(file.samples[1], 0.25F);
        QCOMPARE(file.samples.back(), 0.0F);
        writer.push(nullptr, 100);
        QVERIFY(writer.flush(std::chrono::seconds(5)));
        QCOMPARE(SoundFile::read(path).frames(), 24100);
    }

    // A full disk, played by a file size limit: logged once, writing stops, and the file
    // holds what was written before.
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
        for (int i = 0; i < 20; ++i)
            writer.push(m_block.data(), 1024);
        QTRY_VERIFY(writer.failed());
        QCOMPARE(writer.failure(), WriteFailure::fileTooLarge);
        writer.close();
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &saved), 0);
        QCOMPARE(log.lines(QStringLiteral("SystemRecorder"))
                     .filter(QStringLiteral("Failed to write audio file"))
                     .size(),
            1);
        QVERIFY(writer.framesWritten() > 0 && writer.framesWritten() < 20 * 1024);
        QVERIFY(SoundFile::read(path).frames() >= static_cast<long long>(writer.framesWritten()) - 1024);
    }
};

QTEST_GUILESS_MAIN(AudioFiles)
#include "tst_audio_files.moc"
