#include "audio/GlobalTap.h"
#include "audio/MicRecorder.h"
#include "audio/SystemRecorder.h"
#include "support/FakeSoundServer.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

// The rules both recorders share, over a sound server that delivers blocks on demand.
class AudioSourceRecorder : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    FakeSoundServer m_fake;

    std::unique_ptr<SourceRecorder> make(const QString &which, const QString &path)
    {
        if (which == QLatin1String("SystemRecorder"))
            return std::make_unique<SystemRecorder>(path, m_fake);
        return std::make_unique<MicRecorder>(path, m_fake);
    }
    static void recorders()
    {
        QTest::addColumn<QString>("recorder");
        QTest::newRow("system") << QStringLiteral("SystemRecorder");
        QTest::newRow("microphone") << QStringLiteral("MicRecorder");
    }

private Q_SLOTS:
    void init()
    {
        m_fake.sources = { { CaptureSource::systemOutput, {} }, { CaptureSource::defaultInput, {} } };
        m_fake.noOutput = false;
        m_fake.outputReads = 0;
    }

    void misorderedCallsAreLoggedAndIgnored_data()
    {
        QTest::addColumn<QString>("recorder");
        QTest::addColumn<QString>("calls");
        QTest::addColumn<QString>("logged");
        QTest::addColumn<bool>("paused");
        const std::pair<const char *, const char *> kinds[]
            = { { "SystemRecorder", "tap" }, { "MicRecorder", "microphone" } };
        for (const auto &[recorder, device] : kinds) {
            const auto row = [&](const char *name, const char *calls, const QString &logged, bool paused) {
                QTest::addRow("%s, %s", recorder, name)
                    << QString::fromLatin1(recorder) << QString::fromLatin1(calls) << logged << paused;
            };
            row("pause twice", "start pause pause", QStringLiteral("pause() called while already paused"),
                true);
            row("resume while recording", "start resume", QStringLiteral("resume() called while not paused"),
                false);
            row("start twice", "start start", QStringLiteral("start() while already recording"), false);
            row("pause before start", "pause",
                QStringLiteral("pause() called while %1 not active").arg(QLatin1String(device)), false);
            row("resume after stop", "start stop resume",
                QStringLiteral("resume() called while %1 not active").arg(QLatin1String(device)), false);
        }
    }

    void misorderedCallsAreLoggedAndIgnored()
    {
        QFETCH(QString, recorder);
        QFETCH(QString, calls);
        QFETCH(QString, logged);
        QFETCH(bool, paused);
        const auto source = make(recorder, m_dir.filePath(QStringLiteral("guards.wav")));
        LogCapture log;
        for (const QString &call : calls.split(QLatin1Char(' '))) {
            if (call == QLatin1String("start"))
                QVERIFY(!source->start());
            else if (call == QLatin1String("pause"))
                source->pause();
            else if (call == QLatin1String("resume"))
                source->resume();
            else
                source->stop();
        }
        QCOMPARE(log.lines(recorder).filter(QStringLiteral(" while ")), QStringList { logged });
        QCOMPARE(source->isPaused(), paused);
    }

    // Paused blocks stay out of the file, and stop() closes a paused recorder.
    void pausedBlocksStayOut_data() { recorders(); }

    void pausedBlocksStayOut()
    {
        QFETCH(QString, recorder);
        const bool system = recorder == QLatin1String("SystemRecorder");
        const CaptureSource which = system ? CaptureSource::systemOutput : CaptureSource::defaultInput;
        const QString path = m_dir.filePath(QStringLiteral("pause.wav"));
        const auto source = make(recorder, path);
        m_fake.sources[which].frequency = 440;
        m_fake.sources[which].frames = 4800;
        QVERIFY(!source->start());
        QTRY_COMPARE(source->statistics().framesWritten, quint64(4800));
        quint64 handled = 4800;
        const auto deliver = [&] {
            if (!m_fake.sources[which].suspended)
                handled += 4800;
            m_fake.deliver(which, 4800);
            QTRY_COMPARE(source->statistics().framesWritten + source->statistics().framesDropped, handled);
        };
        source->pause();
        QCOMPARE(m_fake.sources[which].suspended, !system); // the microphone's stream is corked
        deliver();
        source->resume();
        deliver();
        source->pause();
        deliver();
        source->stop();
        QCOMPARE(m_fake.sources[which].live, 0);
        const SoundFile file = SoundFile::read(path);
        QCOMPARE(file.frames(), 9600);
        QCOMPARE(file.channels, system ? 2 : 1);
    }

    void cancelDeletesTheFile_data() { recorders(); }

    void cancelDeletesTheFile()
    {
        QFETCH(QString, recorder);
        const QString path = m_dir.filePath(QStringLiteral("cancel.wav"));
        const auto source = make(recorder, path);
        LogCapture log;
        QVERIFY(!source->start());
        source->cancel();
        source->cancel();
        QVERIFY(!QFileInfo::exists(path));
        QCOMPARE(log.lines(recorder).filter(QStringLiteral(" file")),
            (QStringList { QStringLiteral("Deleted recording file: ") + path,
                QStringLiteral("No file to delete at: ") + path }));
    }

    // A start that fails says why, in the recorder's own words, and leaves no file.
    void failedStartLeavesNoFile_data()
    {
        QTest::addColumn<QString>("recorder");
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("error");
        QTest::newRow("system, no output")
            << u"SystemRecorder"_s << u"no output"_s << u"Tap stream description not available."_s;
        QTest::newRow("system, refused")
            << u"SystemRecorder"_s << u"refused"_s << u"Failed to start audio device: Access denied"_s;
        QTest::newRow("system, no folder") << u"SystemRecorder"_s << u"no folder"_s << u"Failed to open "_s;
        QTest::newRow("microphone, refused")
            << u"MicRecorder"_s << u"refused"_s << u"Failed to start microphone recording"_s;
        QTest::newRow("microphone, no folder") << u"MicRecorder"_s << u"no folder"_s << u"Failed to open "_s;
    }

    void failedStartLeavesNoFile()
    {
        QFETCH(QString, recorder);
        QFETCH(QString, fault);
        QFETCH(QString, error);
        m_fake.noOutput = fault == QLatin1String("no output");
        for (auto &[which, source] : m_fake.sources)
            source.refuse = fault == QLatin1String("refused");
        const QString path = m_dir.filePath(
            fault == QLatin1String("no folder") ? QStringLiteral("gone/x.wav") : QStringLiteral("x.wav"));
        LogCapture log;
        const auto source = make(recorder, path);
        const std::optional<CaptureError> failure = source->start();
        QVERIFY(failure && describe(*failure).startsWith(error));
        QVERIFY(!source->isRecording() && !QFileInfo::exists(path));
        if (m_fake.noOutput)
            QVERIFY(log.lines(QStringLiteral("GlobalTap"))
                        .contains(QStringLiteral("Error reading data for default sink: No such entity")));
    }

    // Activated once, torn down once; the output read once.
    void tapActivatesOnceAndInvalidatesOnce()
    {
        GlobalTap tap(m_fake);
        tap.invalidate(); // never activated: nothing happens
        tap.activate();
        tap.activate();
        QCOMPARE(m_fake.outputReads, 1);
        QCOMPARE(tap.tapStreamDescription(), (SampleSpec { SampleSpec::Sample::float32, 48000, 2 }));
        QVERIFY(!tap.run([](const void *, qint64) {}));
        QCOMPARE(m_fake.sources[CaptureSource::systemOutput].live, 1);
        tap.invalidate();
        tap.invalidate();
        QCOMPARE(m_fake.sources[CaptureSource::systemOutput].live, 0);
    }
};

QTEST_GUILESS_MAIN(AudioSourceRecorder)
#include "tst_audio_sourcerecorder.moc"
