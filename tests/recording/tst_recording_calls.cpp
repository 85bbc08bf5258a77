// Calls told from the real sound server's streams: tagged players and recorders as
// "call programs" on the private server, in real time.
#include "audio/pulse/PulseSoundServer.h"
#include "common/SystemClock.h"
#include "recording/CallWatch.h"
#include "support/TaggedPlayer.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

class RecordingCalls : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Firefox plays and holds the microphone: a call, over once it hangs up (the times
    // are recording_handsoff's). Beside it a level meter on the microphone that plays
    // too: no call.
    void aCallStartsAndEnds()
    {
        PulseSoundServer server;
        CallWatch calls(std::make_shared<SystemClock>());
        QStringList said;
        connect(&calls, &CallWatch::callStarted, this, [&](const QString &p) { said << u"started "_s + p; });
        connect(&calls, &CallWatch::callEnded, this, [&](const QString &p) { said << u"ended "_s + p; });
        calls.watch(server.watchStreams());
        // Recorders of the microphone, tagged; "--rate=25" makes one a level meter.
        const auto recorder = [](const QString &name, QStringList options) {
            auto process = std::make_unique<QProcess>();
            process->start(u"parec"_s,
                options << u"-dmic"_s << u"--property=application.name="_s + name << u"/dev/null"_s);
            return process;
        };
        auto firefox = std::make_unique<TaggedPlayer>(u"Firefox"_s, u"firefox"_s, 440);
        auto firefoxMicrophone = recorder(u"Firefox"_s, {});
        const TaggedPlayer meterSound(u"Meter"_s, u"meter"_s, 880);
        const auto meter = recorder(u"Meter"_s, { u"--rate=25"_s });
        QTRY_COMPARE_WITH_TIMEOUT(said, QStringList { u"started Firefox"_s }, 12000);
        firefox.reset();
        firefoxMicrophone.reset();
        QTRY_COMPARE_WITH_TIMEOUT(said, (QStringList { u"started Firefox"_s, u"ended Firefox"_s }), 14000);
    }
};

QTEST_GUILESS_MAIN(RecordingCalls)
#include "tst_recording_calls.moc"
