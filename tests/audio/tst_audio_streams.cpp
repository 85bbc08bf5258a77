#include "audio/pulse/PulseSoundServer.h"
#include "support/TaggedPlayer.h"
#include "support/TonePlayer.h"

#include <QProcess>
#include <QTest>

using namespace Qt::StringLiterals;

// The sound server's client streams as the watch reports them, from the server's own
// events: who plays and who records, from which kind of device.
class AudioStreams : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reportsWhoPlaysAndWhoRecords()
    {
        PulseSoundServer server;
        const std::unique_ptr<StreamWatch> watch = server.watchStreams();
        const auto seen = [&watch](qint64 pid) {
            for (const ClientStream &s : watch->streams()) {
                if (s.processId == pid)
                    return (s.kind == ClientStream::Kind::playback ? u"play "_s : u"record "_s)
                        + s.displayName() + u' ' + s.binary + (s.ours ? u" ours"_s : u""_s)
                        + (s.fromMonitor ? u" monitor"_s : u""_s) + (s.peakMeter ? u" meter"_s : u""_s);
            }
            return QString();
        };
        TonePlayer own(440, "speakers");
        auto call = std::make_unique<TaggedPlayer>(u"Firefox"_s, u"firefox"_s, 1000);
        const qint64 callId = call->processId();
        QTRY_COMPARE(seen(callId), u"play Firefox firefox"_s);
        QTRY_COMPARE(seen(QCoreApplication::applicationPid()), u"play Selvaro tests audio_streams ours"_s);

        // Recorders of the speakers' monitor, of the microphone, and a level meter on it.
        for (const auto &[device, expected] : { std::pair(u"-dspeakers.monitor"_s, u" monitor"_s),
                 std::pair(u"-dmic"_s, u""_s), std::pair(u"--rate=25"_s, u" meter"_s) }) {
            QProcess recorder;
            recorder.start(u"pacat"_s, { device, u"-r"_s, u"/dev/null"_s });
            QTRY_COMPARE(seen(recorder.processId()), u"record pacat pacat"_s + expected);
            recorder.kill();
            recorder.waitForFinished();
        }

        // A program that ends is gone from the list at its next change.
        call.reset();
        QTRY_VERIFY_WITH_TIMEOUT(seen(callId).isEmpty(), 1000);
    }
};

QTEST_GUILESS_MAIN(AudioStreams)
#include "tst_audio_streams.moc"
