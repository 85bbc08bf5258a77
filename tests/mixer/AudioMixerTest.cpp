#include "StdoutCapture.h"

#include "audio/AudioMixer.h"
#include "audio/DecimalText.h"
#include "audio/DualRecorderError.h"
#include "support/MixerAnalysis.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>

#include <qcoro/qcorotask.h>

#include <memory>
#include <optional>

using namespace MixerAnalysis;

namespace {

constexpr int rate = 48000;

struct Run
{
    QString transcript;
    std::optional<DualRecorderError> error;
    QStringList printed;
    bool transcriptOnAwaitingThread = true;
};

// QCoro::waitFor never returns from a task that throws, so the error is caught inside.
QCoro::Task<> catching(QCoro::Task<> task, std::optional<DualRecorderError> &error)
{
    try {
        co_await std::move(task);
    } catch (const DualRecorderError &thrown) {
        error = thrown;
    }
}

Run mix(const AudioMixer::Files &files)
{
    Run run;
    StdoutCapture capture;
    QThread *awaiting = QThread::currentThread();
    QCoro::waitFor(catching(AudioMixer::mixAudioFiles(files,
                                                      [&run, awaiting](const QString &line) {
                                                          run.transcript += line;
                                                          run.transcriptOnAwaitingThread &=
                                                              QThread::currentThread() == awaiting;
                                                      }),
                            run.error));
    run.printed = capture.finish();
    return run;
}

QStringList lines(const QString &transcript)
{
    QStringList result = transcript.split(QLatin1Char('\n'));
    if (!result.isEmpty() && result.last().isEmpty())
        result.removeLast();
    return result;
}

// Threads of this process whose kernel name starts like the mixer's queue (the kernel
// keeps 15 characters of a thread name).
bool mixingThreadRunning()
{
    const QString expected = QString::fromLatin1(AudioMixer::queueName).left(15);
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task) + QStringLiteral("/comm"));
        if (comm.open(QIODevice::ReadOnly) && QString::fromUtf8(comm.readAll()).trimmed() == expected)
            return true;
    }
    return false;
}

enum class Input { tone, missing, garbage, empty };

} // namespace

class AudioMixerTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    AudioMixer::Files m_files;

    QString path(const QString &name) const { return m_dir->filePath(name); }

    void writeInput(const QString &file, Input kind, const QList<Tone> &tones, long long frames)
    {
        switch (kind) {
        case Input::tone:
            QCOMPARE(writeWav(file, rate, tones, frames), QString());
            break;
        case Input::empty:
            QCOMPARE(writeWav(file, rate, tones, 0), QString());
            break;
        case Input::garbage: {
            QFile f(file);
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write("this is not a sound file at all, just some text that is long enough");
            break;
        }
        case Input::missing:
            break;
        }
    }

private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        m_files = {path(QStringLiteral("1_system.wav")), path(QStringLiteral("1_microphone.wav")),
                   path(QStringLiteral("1_mixed.m4a"))};
    }

    // The main promise: system left, microphone right, the shorter padded with silence,
    // AAC 48 kHz stereo 192 kbit/s in an M4A whose index comes before the audio.
    void writesSystemLeftAndMicrophoneRight()
    {
        QCOMPARE(writeWav(m_files.systemAudio, rate, {{440, 0.5}}, rate * 1), QString());
        QCOMPARE(writeWav(m_files.microphone, rate, {{1000, 0.5}}, rate * 3, SampleFormat::pcm16), QString());

        const Run run = mix(m_files);
        QVERIFY2(!run.error, qPrintable(run.error ? run.error->message() : QString()));
        QVERIFY(run.transcriptOnAwaitingThread);

        const QStringList boxes = topLevelBoxes(m_files.output);
        QVERIFY2(boxes.size() >= 3 && boxes.first() == QStringLiteral("ftyp"), qPrintable(boxes.join(u',')));
        QVERIFY2(boxes.indexOf(QStringLiteral("moov")) < boxes.indexOf(QStringLiteral("mdat")),
                 qPrintable(boxes.join(u',')));
        QFile file(m_files.output);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.read(12).mid(8), QByteArray("M4A "));

        const Decoded out = decode(m_files.output);
        QCOMPARE(out.error, QString());
        QCOMPARE(out.codec, QStringLiteral("aac"));
        QCOMPARE(out.sampleRate, 48000);
        QCOMPARE(out.channels, 2);
        QCOMPARE(out.channelLayout, QStringLiteral("stereo"));
        QVERIFY2(std::abs(out.bitRate - 192000) <= 19200, qPrintable(QString::number(out.bitRate)));
        QVERIFY2(std::abs(out.duration - 3.0) < 0.03, qPrintable(QString::number(out.duration)));
        QVERIFY(std::abs(static_cast<long long>(out.left.size()) - 3 * rate) < 1024);

        const double leftTone = toneAmplitude(out.left, rate / 10, rate * 9 / 10, 440, rate);
        QVERIFY2(std::abs(leftTone - 0.5) < 0.05, qPrintable(QString::number(leftTone)));
        QVERIFY(toneAmplitude(out.left, rate / 10, rate * 9 / 10, 1000, rate) < 0.01);
        QVERIFY2(rms(out.left, rate * 11 / 10, rate * 29 / 10) < 0.002,
                 qPrintable(QString::number(rms(out.left, rate * 11 / 10, rate * 29 / 10))));
        const double rightTone = toneAmplitude(out.right, rate / 10, rate * 29 / 10, 1000, rate);
        QVERIFY2(std::abs(rightTone - 0.5) < 0.05, qPrintable(QString::number(rightTone)));
        QVERIFY(toneAmplitude(out.right, rate / 10, rate * 29 / 10, 440, rate) < 0.01);

        // A frame the encoder padded with zeros in mid-stream shows as a dip in level.
        const double steady = 0.5 / std::sqrt(2.0);
        for (long long at = rate / 20; at + 1024 < rate * 59 / 20; at += 1024) {
            const double level = rms(out.right, at, at + 1024);
            QVERIFY2(std::abs(level - steady) < 0.1 * steady,
                     qPrintable(QStringLiteral("level %1 at frame %2").arg(level).arg(at)));
        }
    }

    void takesChannels_data()
    {
        QTest::addColumn<QList<Tone>>("system");
        QTest::addColumn<QList<Tone>>("microphone");
        QTest::addColumn<double>("left440");
        QTest::addColumn<double>("left660");
        QTest::addColumn<double>("right1000");
        QTest::addColumn<double>("right660");

        QTest::newRow("mono system copied as it is")
            << QList<Tone>{{440, 0.5}} << QList<Tone>{{1000, 0.4}} << 0.5 << 0.0 << 0.4 << 0.0;
        QTest::newRow("stereo system averaged")
            << QList<Tone>{{440, 0.6}, {660, 0.4}} << QList<Tone>{{1000, 0.4}} << 0.3 << 0.2 << 0.4 << 0.0;
        QTest::newRow("opposite stereo channels cancel")
            << QList<Tone>{{440, 0.6}, {440, 0.6, true}} << QList<Tone>{{1000, 0.4}} << 0.0 << 0.0 << 0.4 << 0.0;
        QTest::newRow("channels past the second ignored")
            << QList<Tone>{{440, 0.6}, {440, 0.6}, {660, 0.8}} << QList<Tone>{{1000, 0.4}} << 0.6 << 0.0 << 0.4
            << 0.0;
        QTest::newRow("stereo microphone gives only its first channel")
            << QList<Tone>{{440, 0.5}} << QList<Tone>{{1000, 0.4}, {660, 0.7}} << 0.5 << 0.0 << 0.4 << 0.0;
    }

    void takesChannels()
    {
        QFETCH(QList<Tone>, system);
        QFETCH(QList<Tone>, microphone);
        QFETCH(double, left440);
        QFETCH(double, left660);
        QFETCH(double, right1000);
        QFETCH(double, right660);
        QCOMPARE(writeWav(m_files.systemAudio, rate, system, rate / 2), QString());
        QCOMPARE(writeWav(m_files.microphone, rate, microphone, rate / 2), QString());

        const Run run = mix(m_files);
        QVERIFY(!run.error);
        const Decoded out = decode(m_files.output);
        QCOMPARE(out.error, QString());
        const long long from = rate / 10;
        const long long to = rate * 4 / 10;
        const auto near = [](double measured, double expected) { return std::abs(measured - expected) < 0.03; };
        QVERIFY2(near(toneAmplitude(out.left, from, to, 440, rate), left440), "left 440");
        QVERIFY2(near(toneAmplitude(out.left, from, to, 660, rate), left660), "left 660");
        QVERIFY2(near(toneAmplitude(out.right, from, to, 1000, rate), right1000),
                 "right 1000");
        QVERIFY2(near(toneAmplitude(out.right, from, to, 660, rate), right660),
                 "right 660");
        QVERIFY(toneAmplitude(out.right, from, to, 440, rate) < 0.01);
    }

    // No resampling: a 24 kHz file's samples are laid in frame for frame, so its one
    // second of frames fills half a second of the 48 kHz output.
    void takesOtherRatesSampleForSample()
    {
        QCOMPARE(writeWav(m_files.systemAudio, 24000, {{440, 0.5}}, 24000), QString());
        QCOMPARE(writeWav(m_files.microphone, rate, {{1000, 0.5}}, rate), QString());
        const Run run = mix(m_files);
        QVERIFY(!run.error);
        QVERIFY(run.transcript.contains(QStringLiteral("System audio: 24000 frames, 1 channels, 24000.0 Hz\n")));
        const Decoded out = decode(m_files.output);
        QVERIFY(std::abs(out.duration - 1.0) < 0.03);
        QVERIFY(toneAmplitude(out.left, rate / 20, rate * 9 / 20, 880, rate) > 0.4);
        QVERIFY(rms(out.left, rate * 11 / 20, rate * 19 / 20) < 0.002);
    }

    void writesTranscriptAndProgress()
    {
        QCOMPARE(writeWav(m_files.systemAudio, rate, {{440, 0.3}, {660, 0.3}}, 4096 * 100), QString());
        QCOMPARE(writeWav(m_files.microphone, rate, {{1000, 0.3}}, 4096 * 100), QString());
        const Run run = mix(m_files);
        QVERIFY(!run.error);

        QCOMPARE(run.printed, QStringList{QStringLiteral("Progress: 100 iterations, 409600 frames")});
        const QStringList got = lines(run.transcript);
        QVERIFY(got.size() > 1);
        QVERIFY2(QRegularExpression(QStringLiteral("^Timestams, \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\+0000$"))
                     .match(got[1])
                     .hasMatch(),
                 qPrintable(got[1]));
        const QStringList expected{
            QStringLiteral("=== STARTING AUDIO MIXING ==="),
            got[1],
            QStringLiteral("File existence - System: true, Mic: true"),
            QStringLiteral("System audio file size: %1 bytes").arg(QFileInfo(m_files.systemAudio).size()),
            QStringLiteral("Microphone file size: %1 bytes").arg(QFileInfo(m_files.microphone).size()),
            QStringLiteral("System audio: 409600 frames, 2 channels, 48000.0 Hz"),
            QStringLiteral("Microphone: 409600 frames, 1 channels, 48000.0 Hz"),
            QStringLiteral("AVAssetWriter configured for direct M4A output"),
            QStringLiteral("Started writing session"),
            QStringLiteral("Starting mixing and encoding loop..."),
            QStringLiteral("Mixing complete: 101 iterations, 409600 frames written"),
            QStringLiteral("Finalizing M4A file..."),
            QStringLiteral("M4A file created successfully"),
            QStringLiteral("Output file path: ") + m_files.output,
            QStringLiteral("Output M4A file size: %1 bytes").arg(QFileInfo(m_files.output).size()),
            QStringLiteral("=== MIXING COMPLETED SUCCESSFULLY ==="),
        };
        QCOMPARE(got, expected);
        QVERIFY(run.transcript.endsWith(QLatin1Char('\n')));
        QVERIFY(QFileInfo(m_files.output).size() > 0);
    }

    void replacesExistingOutput()
    {
        QFile old(m_files.output);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write(QByteArray(3'000'000, 'x'));
        old.close();
        QCOMPARE(writeWav(m_files.systemAudio, rate, {{440, 0.5}}, rate / 2), QString());
        QCOMPARE(writeWav(m_files.microphone, rate, {{1000, 0.5}}, rate / 2), QString());

        QVERIFY(!mix(m_files).error);
        const Decoded out = decode(m_files.output);
        QCOMPARE(out.error, QString());
        QVERIFY(std::abs(out.duration - 0.5) < 0.03);
        QVERIFY(QFileInfo(m_files.output).size() < 100'000);
    }

    void bothEmptyLeaveAnEmptyFile()
    {
        QFile old(m_files.output);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("an earlier mix");
        old.close();
        QCOMPARE(writeWav(m_files.systemAudio, rate, {{440, 0.5}, {440, 0.5}}, 0), QString());
        QCOMPARE(writeWav(m_files.microphone, rate, {{1000, 0.5}}, 0), QString());

        const Run run = mix(m_files);
        QVERIFY(!run.error);
        QVERIFY(run.transcript.endsWith(QStringLiteral("Microphone: 0 frames, 1 channels, 48000.0 Hz\n"
                                                       "Both files empty, creating empty output\n")));
        QVERIFY(QFileInfo::exists(m_files.output));
        QCOMPARE(QFileInfo(m_files.output).size(), 0);
    }

    void refuses_data()
    {
        QTest::addColumn<int>("system");
        QTest::addColumn<int>("microphone");
        QTest::addColumn<bool>("outputFolderMissing");
        QTest::addColumn<QString>("lastLines");
        QTest::addColumn<QString>("message");

        const auto i = [](Input kind) { return static_cast<int>(kind); };
        QTest::newRow("system file missing")
            << i(Input::missing) << i(Input::tone) << false
            << QStringLiteral("File existence - System: false, Mic: true\nERROR: One or both audio files missing\n")
            << QStringLiteral("Audio files missing");
        QTest::newRow("microphone file missing")
            << i(Input::tone) << i(Input::missing) << false
            << QStringLiteral("File existence - System: true, Mic: false\nERROR: One or both audio files missing\n")
            << QStringLiteral("Audio files missing");
        QTest::newRow("system file unreadable")
            << i(Input::garbage) << i(Input::tone) << false
            << QStringLiteral("ERROR: Failed to open audio files\n")
            << QStringLiteral("Failed to read audio files for mixing");
        QTest::newRow("only the system file empty")
            << i(Input::empty) << i(Input::tone) << false
            << QStringLiteral("ERROR: One file is empty (not yet supported)\n")
            << QStringLiteral("Cannot mix with empty audio");
        QTest::newRow("only the microphone file empty")
            << i(Input::tone) << i(Input::empty) << false
            << QStringLiteral("Microphone: 0 frames, 1 channels, 48000.0 Hz\n"
                              "ERROR: One file is empty (not yet supported)\n")
            << QStringLiteral("Cannot mix with empty audio");
        QTest::newRow("output folder missing")
            << i(Input::tone) << i(Input::tone) << true
            << QStringLiteral("AVAssetWriter configured for direct M4A output\nERROR: Could not start writing\n")
            << QStringLiteral("Could not start AVAssetWriter");
    }

    void refuses()
    {
        QFETCH(int, system);
        QFETCH(int, microphone);
        QFETCH(bool, outputFolderMissing);
        QFETCH(QString, lastLines);
        QFETCH(QString, message);
        writeInput(m_files.systemAudio, static_cast<Input>(system), {{440, 0.5}}, rate / 2);
        writeInput(m_files.microphone, static_cast<Input>(microphone), {{1000, 0.5}}, rate / 2);
        if (outputFolderMissing)
            m_files.output = path(QStringLiteral("gone/1_mixed.m4a"));

        const Run run = mix(m_files);
        QVERIFY(run.error);
        QCOMPARE(run.error->message(), message);
        QCOMPARE(run.error->description(), message);
        QCOMPARE(QString::fromUtf8(run.error->what()), message);
        QVERIFY2(run.transcript.endsWith(lastLines), qPrintable(run.transcript));
        QVERIFY(run.transcript.startsWith(QStringLiteral("=== STARTING AUDIO MIXING ===\nTimestams, ")));
        QVERIFY(!QFileInfo::exists(m_files.output));
    }

    // The encoding runs on its own named thread; the awaiting thread keeps handling
    // events the whole time.
    void eventLoopTurnsWhileMixing()
    {
        QCOMPARE(writeWav(m_files.systemAudio, rate, {{440, 0.5}, {660, 0.5}}, rate * 40), QString());
        QCOMPARE(writeWav(m_files.microphone, rate, {{1000, 0.5}}, rate * 40), QString());

        int ticks = 0;
        bool workerSeen = false;
        QTimer timer;
        timer.setInterval(5);
        connect(&timer, &QTimer::timeout, this, [&] {
            ++ticks;
            workerSeen = workerSeen || mixingThreadRunning();
        });
        timer.start();
        const Run run = mix(m_files);
        timer.stop();

        QVERIFY(!run.error);
        QVERIFY(run.transcriptOnAwaitingThread);
        QVERIFY2(ticks >= 10, qPrintable(QString::number(ticks)));
        QVERIFY(workerSeen);
        QCOMPARE(QThread::currentThread()->objectName() == QString::fromLatin1(AudioMixer::queueName), false);
    }

    void decimalText_data()
    {
        QTest::addColumn<double>("value");
        QTest::addColumn<QString>("text");
        QTest::newRow("whole rate") << 48000.0 << QStringLiteral("48000.0");
        QTest::newRow("fractional rate") << 44100.5 << QStringLiteral("44100.5");
        QTest::newRow("clock with micro") << 1763890949.123456 << QStringLiteral("1763890949.123456");
        QTest::newRow("tenth") << 0.1 << QStringLiteral("0.1");
        QTest::newRow("zero") << 0.0 << QStringLiteral("0.0");
        QTest::newRow("negative") << -2.5 << QStringLiteral("-2.5");
    }

    void decimalText()
    {
        QFETCH(double, value);
        QFETCH(QString, text);
        QCOMPARE(DecimalText::shortest(value), text);
        QCOMPARE(text.toDouble(), value);
    }
};

QTEST_GUILESS_MAIN(AudioMixerTest)
#include "AudioMixerTest.moc"
