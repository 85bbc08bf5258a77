#include "audio/MicrophonePermission.h"
#include "audio/pulse/PulseSoundServer.h"
#include "audio/SystemAudioPermission.h"
#include "support/LogCapture.h"
#include "support/Pactl.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

using Status = Permission;

// The permissions read as probes of the sound server: granted where capture
// works, denied where the server refuses or has no device, unknown with no server.
class TestCapturePermission : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void grantedWhereCaptureWorks()
    {
        PulseSoundServer server;
        LogCapture log;
        SystemAudioPermission system(server);
        MicrophonePermission microphone(server);
        QCOMPARE(system.status(), Status::unknown); // the answer arrives later, on this thread
        QSignalSpy changed(&system, &CapturePermission::statusChanged);
        QTRY_COMPARE(system.status(), Status::granted);
        QTRY_COMPARE(microphone.status(), Status::granted);
        QCOMPARE(changed.count(), 1);
        QVERIFY(log.lines(QStringLiteral("SystemAudioPermission")).contains(QStringLiteral("updateStatus()")));

        QSignalSpy finished(&system, &CapturePermission::requestFinished);
        QObject *mainThread = QThread::currentThread();
        connect(&system, &CapturePermission::requestFinished, this,
                [mainThread] { QCOMPARE(QThread::currentThread(), mainThread); });
        system.request();
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toBool(), true);
        QCOMPARE(changed.count(), 1); // a repeated answer changes nothing
        QVERIFY(log.lines(QStringLiteral("SystemAudioPermission")).contains(QStringLiteral("request()")));
        QVERIFY(log.lines(QStringLiteral("SystemAudioPermission")).contains(QStringLiteral("Request finished with result: true")));
    }

    void unknownWithoutServer()
    {
        PulseSoundServer server("unix:/nonexistent/selvaro-test-socket");
        SystemAudioPermission system(server);
        QSignalSpy finished(&system, &CapturePermission::requestFinished);
        system.request();
        QTRY_COMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toBool(), false);
        QCOMPARE(system.status(), Status::unknown);
    }

    void deniedWithoutDevices()
    {
        QVERIFY(unloadAllDevices());
        PulseSoundServer server;
        SystemAudioPermission system(server);
        MicrophonePermission microphone(server);
        QTRY_COMPARE(system.status(), Status::denied);
        QTRY_COMPARE(microphone.status(), Status::denied);
    }
};

QTEST_GUILESS_MAIN(TestCapturePermission)
#include "tst_capturepermission.moc"
