#include "audio/GlobalTap.h"
#include "audio/MicRecorder.h"
#include "audio/pulse/PulseSoundServer.h"
#include "audio/SystemRecorder.h"
#include "support/LogCapture.h"
#include "support/Pactl.h"
#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>

namespace {

constexpr char childVariable[] = "SELVARO_TEST_RECORD_INTO";

// The child half of sigkilledRecorderLeavesReadableFiles: records both sources
// into the folder it is given until it is killed.
int recordUntilKilled(const QString &folder)
{
    PulseSoundServer server;
    SystemRecorder system(folder + QStringLiteral("/killed_system.wav"), server);
    MicRecorder microphone(folder + QStringLiteral("/killed_microphone.wav"), server);
    if (microphone.start() || system.start())
        return 1;
    std::puts("recording");
    std::fflush(stdout);
    return QCoreApplication::exec();
}

} // namespace

// Faults around capture: a recorder killed outright, and a server with no devices.
class TestCaptureFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void sigkilledRecorderLeavesReadableFiles()
    {
        TonePlayer system(440, "speakers");
        TonePlayer microphone(1000, "micfeed");
        QProcess child;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QLatin1String(childVariable), m_dir.path());
        child.setProcessEnvironment(environment);
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        child.start(QCoreApplication::applicationFilePath(), {});
        QVERIFY(child.waitForReadyRead(5000));
        const QString systemPath = m_dir.filePath(QStringLiteral("killed_system.wav"));
        const QString microphonePath = m_dir.filePath(QStringLiteral("killed_microphone.wav"));
        // Half a second of each, then no chance to close anything.
        QVERIFY(QTest::qWaitFor([&] { return QFileInfo(systemPath).size() > 48000 * 8 / 2
                                             && QFileInfo(microphonePath).size() > 48000 * 2 / 2; },
                                5000));
        child.kill();
        QVERIFY(child.waitForFinished(5000));
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);

        const SoundFile systemFile = SoundFile::read(systemPath);
        QVERIFY2(systemFile.ok, qPrintable(systemFile.error));
        QVERIFY(systemFile.seconds() >= 0.4);
        // The header counts what the data holds, up to the last whole block.
        QVERIFY(std::abs(QFileInfo(systemPath).size() - 80 - systemFile.frames() * 8) < 48000 * 8 / 10);
        QCOMPARE(ToneAnalysis::dominantFrequency(systemFile.channelSpan(0, 0.1, 0.3), 48000), 440.0);
        const SoundFile microphoneFile = SoundFile::read(microphonePath);
        QVERIFY2(microphoneFile.ok, qPrintable(microphoneFile.error));
        QVERIFY(microphoneFile.seconds() >= 0.4);
        QCOMPARE(ToneAnalysis::dominantFrequency(microphoneFile.channelSpan(0, 0.1, 0.3), 48000), 1000.0);
    }

    // Everything unloaded: no sink, no source (a computer without audio devices).
    void noDevicesGiveTheirErrors()
    {
        QVERIFY(unloadAllDevices());
        PulseSoundServer server;
        LogCapture log;
        GlobalTap tap(server, false);
        tap.activate();
        QCOMPARE(tap.errorMessage(), QStringLiteral("Error reading data for default sink: No such entity"));
        QVERIFY(log.lines(QStringLiteral("GlobalTap")).contains(tap.errorMessage()));

        SystemRecorder system(m_dir.filePath(QStringLiteral("nodevice_system.wav")), server);
        auto error = system.start();
        QVERIFY(error);
        QCOMPARE(describe(*error), QStringLiteral("Tap stream description not available."));

        MicRecorder microphone(m_dir.filePath(QStringLiteral("nodevice_microphone.wav")), server);
        error = microphone.start();
        QVERIFY(error);
        QCOMPARE(describe(*error), QStringLiteral("Failed to start microphone recording"));
        QVERIFY(!microphone.isRecording());
    }

private:
    QTemporaryDir m_dir;
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QString folder = qEnvironmentVariable(childVariable);
    if (!folder.isEmpty())
        return recordUntilKilled(folder);
    TestCaptureFaults test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_capturefaults.moc"
