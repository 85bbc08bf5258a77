#include "audio/GlobalTap.h"
#include "audio/MicRecorder.h"
#include "audio/MicrophonePermission.h"
#include "audio/SystemAudioPermission.h"
#include "audio/SystemRecorder.h"
#include "audio/pulse/PulseSoundServer.h"
#include "support/LogCapture.h"
#include "support/TonePlayer.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

// The permissions read as probes of the sound server: granted where capture works,
// denied where the server has no device, unknown with no server; and what the
// recorders say in the last two cases.
class AudioPermission : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void grantedWhereCaptureWorks()
    {
        PulseSoundServer server;
        LogCapture log;
        SystemAudioPermission system(server);
        MicrophonePermission microphone(server);
        QCOMPARE(system.status(), Permission::unknown); // the answer arrives later, on this thread
        QSignalSpy changed(&system, &CapturePermission::statusChanged);
        QTRY_COMPARE(system.status(), Permission::granted);
        QTRY_COMPARE(microphone.status(), Permission::granted);
        QSignalSpy finished(&system, &CapturePermission::requestFinished);
        QThread *mainThread = QThread::currentThread();
        bool onMainThread = false;
        connect(&system, &CapturePermission::requestFinished, this,
            [&] { onMainThread = QThread::currentThread() == mainThread; });
        system.request();
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toBool(), true);
        QVERIFY(onMainThread);
        QCOMPARE(changed.count(), 1); // a repeated answer changes nothing
        QVERIFY(log.lines(QStringLiteral("SystemAudioPermission"))
                    .contains(QStringLiteral("Request finished with result: true")));
    }

    // The rows run in order: the last one unloads every device of the fixture.
    void withoutServerOrDevices_data()
    {
        QTest::addColumn<QByteArray>("address");
        QTest::addColumn<Permission>("status");
        QTest::addColumn<QString>("tapError");
        QTest::newRow("no server") << QByteArray("unix:/nonexistent/selvaro-test-socket")
                                   << Permission::unknown
                                   << QStringLiteral("Error reading data for default sink: ");
        QTest::newRow("no devices") << QByteArray() << Permission::denied
                                    << QStringLiteral("Error reading data for default sink: No such entity");
    }

    void withoutServerOrDevices()
    {
        QFETCH(QByteArray, address);
        QFETCH(Permission, status);
        QFETCH(QString, tapError);
        if (address.isEmpty())
            QVERIFY(unloadAllDevices());
        PulseSoundServer server(address);
        SystemAudioPermission system(server);
        MicrophonePermission microphone(server);
        system.request();
        QTRY_COMPARE(system.status(), status);
        QTRY_COMPARE(microphone.status(), status);

        GlobalTap tap(server);
        tap.activate();
        QVERIFY2(tap.errorMessage().startsWith(tapError), qPrintable(tap.errorMessage()));
        QTemporaryDir dir;
        auto error = SystemRecorder(dir.filePath(QStringLiteral("x_system.wav")), server).start();
        QCOMPARE(
            error ? describe(*error) : QString(), QStringLiteral("Tap stream description not available."));
        error = MicRecorder(dir.filePath(QStringLiteral("x_microphone.wav")), server).start();
        QCOMPARE(
            error ? describe(*error) : QString(), QStringLiteral("Failed to start microphone recording"));
    }
};

QTEST_GUILESS_MAIN(AudioPermission)
#include "tst_audio_permission.moc"
