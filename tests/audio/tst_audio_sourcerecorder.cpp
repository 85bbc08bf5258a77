#include "audio/MicRecorder.h"
#include "audio/SystemRecorder.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/StandInSoundServer.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <sndfile.h>

using namespace Qt::StringLiterals;

// The rules both recorders share, over a sound server that delivers blocks on demand.
class AudioSourceRecorder : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::unique_ptr<StandInSoundServer> m_server;
    const QString m_path = m_dir.filePath(u"x.wav"_s);

    std::unique_ptr<SourceRecorder> make(const QString &recorder, const QString &path)
    {
        if (recorder == u"SystemRecorder"_s)
            return std::make_unique<SystemRecorder>(path, *m_server);
        return std::make_unique<MicRecorder>(path, *m_server);
    }

private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<StandInSoundServer>();
        QFile::remove(m_path);
    }

    // Misordered calls are logged and ignored; cancel deletes the file once, also after
    // stop. A start that fails says why, in the recorder's own words, and leaves no file.
    // Paused blocks stay out of the file, and stop() closes a paused recorder; each file
    // in its own format.
    void callsInOrder_data()
    {
        QTest::addColumn<QString>("recorder");
        QTest::addColumn<QString>(
            "calls"); // "deliver": 0.1 s of tone; "refuse", "no-output", "no-folder": faults
        QTest::addColumn<QStringList>("logged"); // its lines about misuse and files; %1 is the file
        QTest::addColumn<bool>("paused");
        QTest::addColumn<QString>("error"); // how the start's error begins
        for (const auto &[recorder, device] :
            { std::pair(u"SystemRecorder"_s, u"tap"_s), std::pair(u"MicRecorder"_s, u"microphone"_s) }) {
            const auto row = [&](const char *name, const QString &calls, const QStringList &logged,
                                 bool paused = false, const QString &error = {}) {
                QTest::addRow("%s, %s", qPrintable(recorder), name)
                    << recorder << calls << logged << paused << error;
            };
            row("pause twice", u"start pause pause"_s, { u"pause() called while already paused"_s }, true);
            row("resume while recording", u"start resume"_s, { u"resume() called while not paused"_s });
            row("start twice", u"start start"_s, { u"start() while already recording"_s });
            row("pause before start", u"pause"_s, { u"pause() called while %1 not active"_s.arg(device) });
            row("resume after stop", u"start stop resume"_s,
                { u"resume() called while %1 not active"_s.arg(device) });
            row("cancel twice", u"start cancel cancel"_s,
                { u"Deleted recording file: %1"_s, u"No file to delete at: %1"_s });
            row("cancel after stop", u"start stop cancel"_s, { u"Deleted recording file: %1"_s });
            row("paused blocks stay out", u"start deliver pause deliver resume deliver pause deliver stop"_s,
                {});
            row("refused", u"refuse start"_s, {}, false,
                device == u"tap"_s ? u"Failed to start audio device: Access denied"_s
                                   : u"Failed to start microphone recording"_s);
            row("no folder", u"no-folder start"_s, {}, false, u"Failed to open "_s);
            if (device == u"tap"_s)
                row("no output", u"no-output start"_s, {}, false, u"Tap stream description not available."_s);
        }
    }

    void callsInOrder()
    {
        QFETCH(QString, recorder);
        QFETCH(QString, calls);
        QFETCH(QStringList, logged);
        QFETCH(QString, error);
        const QString path = calls.startsWith(u"no-folder"_s) ? m_dir.filePath(u"gone/x.wav"_s) : m_path;
        const auto source = make(recorder, path);
        const bool system = recorder == u"SystemRecorder"_s;
        const CaptureSource which = system ? CaptureSource::systemOutput : CaptureSource::defaultInput;
        StandInSoundServer::Source &fake = m_server->sources[which];
        fake.frequency = 440;
        quint64 handled = 0; // written or dropped
        LogCapture log;
        for (const QString &call : calls.split(QLatin1Char(' '))) {
            if (call == u"start"_s) {
                const std::optional<CaptureError> failure = source->start();
                const QString said = failure ? describe(*failure) : QString();
                QVERIFY2(said.startsWith(error) && said.isEmpty() == error.isEmpty(), qPrintable(said));
            } else if (call == u"pause"_s) {
                source->pause();
                QCOMPARE(fake.suspended, !system && source->isPaused()); // the microphone's stream is corked
            } else if (call == u"deliver"_s) {
                handled += fake.suspended ? 0 : 4800;
                m_server->deliver(which, 4800);
                QVERIFY(QTest::qWaitFor([&] {
                    return source->statistics().framesWritten + source->statistics().framesDropped == handled;
                }));
            } else if (call == u"resume"_s)
                source->resume();
            else if (call == u"stop"_s)
                source->stop();
            else if (call == u"refuse"_s)
                for (auto &[each, refused] : m_server->sources)
                    refused.refuse = true;
            else if (call == u"no-output"_s)
                m_server->noOutput = true;
            else if (call == u"cancel"_s)
                source->cancel();
        }
        QCOMPARE(log.lines(recorder).filter(QRegularExpression(u" while | file"_s)),
            logged.replaceInStrings(u"%1"_s, m_path));
        QTEST(source->isPaused(), "paused");
        const bool running = calls.startsWith(u"start"_s) && !calls.contains(u"stop"_s);
        QCOMPARE(fake.live, running && !calls.contains(u"cancel"_s) ? 1 : 0);
        if (!calls.startsWith(u"start"_s) || calls.contains(u"cancel"_s)) {
            QVERIFY(!QFileInfo::exists(path));
        } else {
            const SoundFile file = SoundFile::read(path);
            QCOMPARE(QList<long long>(
                         { file.frames(), file.channels, file.rate, file.format & SF_FORMAT_SUBMASK }),
                QList<long long>({ 2 * 4800 * calls.contains(u"deliver"_s), system ? 2 : 1, 48000,
                    system ? SF_FORMAT_FLOAT : SF_FORMAT_PCM_16 }));
        }
        QCOMPARE(log.lines(u"GlobalTap"_s).contains(u"Error reading data for default sink: No such entity"_s),
            m_server->noOutput);
    }
};

QTEST_GUILESS_MAIN(AudioSourceRecorder)
#include "tst_audio_sourcerecorder.moc"
