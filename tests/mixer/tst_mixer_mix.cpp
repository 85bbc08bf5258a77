#include "audio/AudioFileWriter.h"
#include "audio/AudioMixer.h"
#include "audio/DualRecorderError.h"
#include "audio/LiveMixer.h"
#include "common/Logging.h"
#include "support/FileMode.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"
#include "support/ToneAnalysis.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTest>
#include <QThread>

#include <qcoro/qcorotask.h>

#include <cstdio>
#include <span>
#include <unistd.h>

using namespace MixerAnalysis;
using namespace Qt::StringLiterals;
using ToneAnalysis::amplitudeAt;

namespace {

constexpr int rate = 48000;

struct Run
{
    QString transcript;
    QString error; // the DualRecorderError's message
    bool onAwaitingThread = true;
};

// QCoro::waitFor never returns from a task that throws, so the error is caught inside.
QCoro::Task<> catching(QCoro::Task<> task, QString &error)
{
    try {
        co_await std::move(task);
    } catch (const DualRecorderError &thrown) {
        error = thrown.message();
    }
}

// The mix of finished files, or the end of `live`'s.
Run mix(const AudioMixer::Files &files, LiveMixer *live = nullptr)
{
    Run run;
    QThread *awaiting = QThread::currentThread();
    const auto append = [&run, awaiting](const QString &line) {
        run.transcript += line;
        run.onAwaitingThread &= QThread::currentThread() == awaiting;
    };
    QCoro::waitFor(
        catching(live ? live->finish(append) : AudioMixer::mixAudioFiles(files, append), run.error));
    return run;
}

// What `work` prints on standard output (the mixer's "Progress:" lines).
QByteArray printedBy(const std::function<void()> &work)
{
    QTemporaryFile file;
    const int saved = ::dup(1);
    if (!file.open() || std::fflush(stdout) != 0 || ::dup2(file.handle(), 1) < 0)
        return "not captured";
    work();
    std::fflush(stdout);
    ::dup2(saved, 1);
    ::close(saved);
    file.seek(0);
    return file.readAll();
}

// The transcript's lines, its time replaced by TIME where it has the promised form.
QStringList linesOf(const Run &run)
{
    QStringList lines = run.transcript.split(QLatin1Char('\n'));
    static const QRegularExpression time(u"^Timestams, \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\+0000$"_s);
    if (lines.size() > 1 && time.match(lines[1]).hasMatch())
        lines[1] = u"Timestams, TIME"_s;
    return lines;
}

std::span<const float> seconds(const std::vector<float> &samples, double from, double to)
{
    const auto first = std::min(samples.size(), static_cast<size_t>(from * rate));
    const auto last = std::clamp(static_cast<size_t>(to * rate), first, samples.size());
    return std::span(samples).subspan(first, last - first);
}

} // namespace

class MixerMix : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    AudioMixer::Files m_files;

private slots:
    void init()
    {
        m_files = { m_dir.filePath(QStringLiteral("1_system.wav")),
            m_dir.filePath(QStringLiteral("1_microphone.wav")),
            m_dir.filePath(QStringLiteral("1_mixed.m4a")) };
        for (const QString &path : { m_files.systemAudio, m_files.microphone, m_files.output })
            QFile::remove(path);
    }

    // System left (stereo averaged, mono copied, channels past two ignored), microphone
    // right (its first channel), no resampling, the shorter padded with silence.
    void laysOutChannels_data()
    {
        QTest::addColumn<QList<Tone>>("system");
        QTest::addColumn<int>("systemRate");
        QTest::addColumn<double>("systemSeconds");
        QTest::addColumn<QList<Tone>>("microphone");
        QTest::addColumn<double>("microphoneSeconds");
        QTest::addColumn<QList<double>>(
            "heard"); // amplitudes: left 440 Hz, left 660 Hz, right 1000 Hz, right 660 Hz
        const QList<Tone> mono { { 440, 0.5 } };
        const QList<Tone> mic { { 1000, 0.4 } };
        const QList<double> plain { 0.5, 0, 0.4, 0 };
        QTest::newRow("mono system copied") << mono << rate << 1.0 << mic << 1.0 << plain;
        QTest::newRow("stereo system averaged") << QList<Tone> { { 440, 0.6 }, { 660, 0.4 } } << rate << 1.0
                                                << mic << 1.0 << QList<double> { 0.3, 0.2, 0.4, 0 };
        QTest::newRow("channels past two ignored")
            << QList<Tone> { { 440, 0.5 }, { 440, 0.5 }, { 660, 0.8 } } << rate << 1.0 << mic << 1.0 << plain;
        QTest::newRow("first microphone channel")
            << mono << rate << 1.0 << QList<Tone> { { 1000, 0.4 }, { 660, 0.7 } } << 1.0 << plain;
        // 220 Hz at 24 kHz laid in frame for frame sounds at 440 Hz, for half the time.
        QTest::newRow("rates sample for sample")
            << QList<Tone> { { 220, 0.5 } } << 24000 << 1.0 << mic << 0.5 << plain;
        QTest::newRow("shorter system padded") << mono << rate << 1.0 << mic << 3.0 << plain;
        QTest::newRow("shorter microphone padded") << mono << rate << 3.0 << mic << 1.0 << plain;
    }

    void laysOutChannels()
    {
        QFETCH(QList<Tone>, system);
        QFETCH(int, systemRate);
        QFETCH(double, systemSeconds);
        QFETCH(QList<Tone>, microphone);
        QFETCH(double, microphoneSeconds);
        QFETCH(QList<double>, heard);
        QCOMPARE(writeWav(m_files.systemAudio, systemRate, system, qRound64(systemRate * systemSeconds)),
            QString());
        QCOMPARE(
            writeWav(m_files.microphone, rate, microphone, qRound64(rate * microphoneSeconds)), QString());
        QCOMPARE(mix(m_files).error, QString());
        const Decoded out = decode(m_files.output);
        const auto at = [&](const std::vector<float> &channel, double frequency) {
            return amplitudeAt(seconds(channel, 0.1, 0.4), rate, frequency);
        };
        const QList<double> measured { at(out.left, 440), at(out.left, 660), at(out.right, 1000),
            at(out.right, 660) };
        for (qsizetype i = 0; i < heard.size(); ++i)
            QVERIFY2(std::abs(measured[i] - heard[i]) < 0.03, qPrintable(QString::number(measured[i])));
        // Past the shorter source only silence: nothing is stretched or repeated.
        const double systemLasts = systemSeconds * systemRate / rate;
        const double length = std::max(systemLasts, microphoneSeconds);
        QVERIFY(std::abs(out.duration - length) < 0.03);
        const auto &padded = systemLasts < microphoneSeconds ? out.left : out.right;
        QVERIFY(
            ToneAnalysis::rms(seconds(padded, std::min(systemLasts, microphoneSeconds) + 0.1, length - 0.1))
            < 0.002);
    }

    // The mix that follows the files while their writers grow them (in blocks of a size
    // no chunk divides, pauses dropped by the writer) and the mix of the finished files
    // write the same bytes, the promised file (AAC 48 kHz stereo 192 kbit/s in a private
    // M4A whose index comes first, replacing what was there), the same transcript word
    // for word and the same "Progress:" lines.
    void bothMixesWriteTheSameM4a_data()
    {
        QTest::addColumn<int>("systemChannels");
        QTest::addColumn<qint64>("systemFrames");
        QTest::addColumn<qint64>("microphoneFrames");
        QTest::addColumn<QString>("event"); // what happens on the way
        QTest::newRow("mono system longer, progress")
            << 1 << qint64(4096 * 101 + 5) << qint64(90000) << QString();
        QTest::newRow("stereo system, microphone longer by whole chunks")
            << 2 << qint64(70000) << qint64(4096 * 20) << QString();
        QTest::newRow("with a pause") << 2 << qint64(100000) << qint64(100000) << u"pause"_s;
        QTest::newRow("shorter than one chunk") << 2 << qint64(1000) << qint64(3000) << QString();
        QTest::newRow("speaker echo removed") << 2 << qint64(250000) << qint64(240000) << u"remove echo"_s;
        // The live mix gives up (logged once) and the mix of the finished files runs instead.
        QTest::newRow("output removed while following")
            << 2 << qint64(120000) << qint64(120000) << u"remove the output"_s;
    }

    void bothMixesWriteTheSameM4a()
    {
        QFETCH(int, systemChannels);
        QFETCH(qint64, systemFrames);
        QFETCH(qint64, microphoneFrames);
        QFETCH(QString, event);
        const bool paused = event == u"pause"_s;
        m_files.removeSpeakerEcho = event == u"remove echo"_s;
        AudioFileWriter system("SystemRecorder", lcMixer());
        AudioFileWriter microphone("MicRecorder", lcMixer());
        QCOMPARE(system.open(m_files.systemAudio, { SampleSpec::Sample::float32, rate, systemChannels }),
            std::nullopt);
        QCOMPARE(microphone.open(m_files.microphone, { SampleSpec::Sample::int16, rate, 1 }), std::nullopt);
        const QString liveOutput = m_files.output;
        LogCapture log;
        Run live;
        const QByteArray printedLive = printedBy([&] {
            LiveMixer mixer(m_files);
            constexpr qint64 block = 997;
            std::vector<float> samples(block * 2);
            for (qint64 at = 0; at < std::max(systemFrames, microphoneFrames); at += block) {
                for (size_t i = 0; i < samples.size(); ++i)
                    samples[i] = static_cast<float>(0.4 * std::sin(0.031 * static_cast<double>(at * 2 + i)));
                system.setDropping(paused && at > 30000 && at < 60000);
                microphone.setDropping(paused && at > 30000 && at < 60000);
                system.push(samples.data(), std::min(block, systemFrames - at));
                microphone.push(samples.data(), std::min(block, microphoneFrames - at));
            }
            if (event == u"remove the output"_s) {
                // Once FFmpeg has written to it: before it opens the file its open would make a new one.
                QTRY_VERIFY(QFileInfo(liveOutput).size() > 0);
                QVERIFY(QFile::remove(liveOutput));
            }
            system.close();
            microphone.close();
            live = mix(m_files, &mixer);
        });
        m_files.output = m_dir.filePath(u"batch.m4a"_s);
        QFile old(m_files.output);
        QVERIFY(old.open(QIODevice::WriteOnly) && old.write(QByteArray(3'000'000, 'x')) > 0);
        old.close();
        Run batch;
        const QByteArray printedBatch = printedBy([&] { batch = mix(m_files); });
        QCOMPARE(live.error + batch.error, QString());
        QCOMPARE(log.lines(u"AudioMixer"_s).filter(u"Live mixing stopped"_s).size(),
            event == u"remove the output"_s ? 1 : 0); // else not the other mix run instead
        QVERIFY(live.onAwaitingThread && batch.onAwaitingThread && modeOf(liveOutput) == 0600
            && modeOf(m_files.output) == 0600);
        const QByteArray bytes = contents(liveOutput);
        QVERIFY(bytes == contents(m_files.output));
        QVERIFY(bytes.mid(8, 4) == "M4A " && bytes.indexOf("moov") < bytes.indexOf("mdat"));
        const Decoded out = decode(liveOutput);
        QCOMPARE(QStringList({ out.codec, out.channelLayout, QString::number(out.sampleRate) }),
            QStringList({ u"aac"_s, u"stereo"_s, u"48000"_s }));
        const auto frames = static_cast<qint64>(std::max(system.framesWritten(), microphone.framesWritten()));
        QVERIFY(std::abs(out.duration - static_cast<double>(frames) / rate) < 0.03);
        QVERIFY2(frames < 4 * rate || std::abs(out.bitRate - 192000) <= 19200,
            qPrintable(QString::number(out.bitRate)));
        const auto expected = [&](const QString &output) {
            return QStringList { u"=== STARTING AUDIO MIXING ==="_s, u"Timestams, TIME"_s,
                u"File existence - System: true, Mic: true"_s,
                u"System audio file size: %1 bytes"_s.arg(QFileInfo(m_files.systemAudio).size()),
                u"Microphone file size: %1 bytes"_s.arg(QFileInfo(m_files.microphone).size()),
                u"System audio: %1 frames, %2 channels, 48000.0 Hz"_s.arg(system.framesWritten())
                    .arg(systemChannels),
                u"Microphone: %1 frames, 1 channels, 48000.0 Hz"_s.arg(microphone.framesWritten()),
                u"AVAssetWriter configured for direct M4A output"_s, u"Started writing session"_s,
                u"Starting mixing and encoding loop..."_s,
                u"Mixing complete: %1 iterations, %2 frames written"_s.arg((frames + 4095) / 4096 + 1)
                    .arg(frames),
                u"Finalizing M4A file..."_s, u"M4A file created successfully"_s,
                u"Output file path: "_s + output,
                u"Output M4A file size: %1 bytes"_s.arg(QFileInfo(output).size()),
                u"=== MIXING COMPLETED SUCCESSFULLY ==="_s, QString() };
        };
        QCOMPARE(linesOf(live), expected(liveOutput));
        QCOMPARE(linesOf(batch), expected(m_files.output));
        QCOMPARE(printedLive, printedBatch);
        QCOMPARE(printedLive.count("Progress: "), systemFrames / (AudioMixer::chunkFrames * 100));
    }

    // Inputs that are missing, unreadable or empty, and an output that cannot be made.
    void inputRules_data()
    {
        QTest::addColumn<QString>("system"); // a tone, "missing", "garbage" or "empty"
        QTest::addColumn<QString>("microphone");
        QTest::addColumn<QString>("output");
        QTest::addColumn<QString>("transcriptEnd");
        QTest::addColumn<QString>("error");
        QTest::addColumn<qint64>("outputSize"); // -1: no output file
        const QString tone = QStringLiteral("tone");
        const QString output = QStringLiteral("1_mixed.m4a");
        QTest::newRow("both empty")
            << u"empty"_s << u"empty"_s << output
            << u"Microphone: 0 frames, 1 channels, 48000.0 Hz\nBoth files empty, creating empty output\n"_s
            << QString() << qint64(0);
        QTest::newRow("system missing")
            << u"missing"_s << tone << output
            << u"File existence - System: false, Mic: true\nERROR: One or both audio files missing\n"_s
            << u"Audio files missing"_s << qint64(-1);
        QTest::newRow("microphone missing")
            << tone << u"missing"_s << output
            << u"File existence - System: true, Mic: false\nERROR: One or both audio files missing\n"_s
            << u"Audio files missing"_s << qint64(-1);
        QTest::newRow("system unreadable")
            << u"garbage"_s << tone << output << u"ERROR: Failed to open audio files\n"_s
            << u"Failed to read audio files for mixing"_s << qint64(-1);
        QTest::newRow("only the system empty")
            << u"empty"_s << tone << output << u"ERROR: One file is empty (not yet supported)\n"_s
            << u"Cannot mix with empty audio"_s << qint64(-1);
        QTest::newRow("only the microphone empty")
            << tone << u"empty"_s << output << u"ERROR: One file is empty (not yet supported)\n"_s
            << u"Cannot mix with empty audio"_s << qint64(-1);
        QTest::newRow("output folder missing")
            << tone << tone << QStringLiteral("gone/1_mixed.m4a")
            << u"AVAssetWriter configured for direct M4A output\nERROR: Could not start writing\n"_s
            << u"Could not start AVAssetWriter"_s << qint64(-1);
    }

    void inputRules()
    {
        QFETCH(QString, system);
        QFETCH(QString, microphone);
        QFETCH(QString, output);
        QFETCH(QString, transcriptEnd);
        QFETCH(QString, error);
        QFETCH(qint64, outputSize);
        m_files.output = m_dir.filePath(output);
        QFile earlier(m_files.output);
        if (error.isEmpty() && earlier.open(QIODevice::WriteOnly))
            earlier.write("an earlier mix");
        earlier.close();
        const auto make = [](const QString &path, const QString &kind, double frequency) {
            QFile file(path);
            if (kind == QLatin1String("garbage") && file.open(QIODevice::WriteOnly))
                file.write("this is not a sound file at all, just some text that is long enough");
            else if (kind != QLatin1String("missing"))
                QCOMPARE(writeWav(path, rate, { { frequency, 0.5 } },
                             kind == QLatin1String("empty") ? 0 : rate / 2),
                    QString());
        };
        make(m_files.systemAudio, system, 440);
        make(m_files.microphone, microphone, 1000);
        const Run run = mix(m_files);
        QCOMPARE(run.error, error);
        QVERIFY2(run.transcript.endsWith(transcriptEnd), qPrintable(run.transcript));
        QCOMPARE(QFileInfo::exists(m_files.output) ? QFileInfo(m_files.output).size() : -1, outputSize);
        QVERIFY(outputSize < 0 || modeOf(m_files.output) == 0600);
    }
};

QTEST_GUILESS_MAIN(MixerMix)
#include "tst_mixer_mix.moc"
