#include "audio/MixEncoder.h"

#include "audio/DualRecorderError.h"
#include "audio/MixInput.h"
#include "common/Logging.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>

namespace {

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

// A date in the form the transcript has always used: "2026-11-23 09:42:29 +0000".
QString timestampText()
{
    return QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"))
        + QStringLiteral(" +0000");
}

// Chunk-level problems go to standard output, not the transcript, as they always have.
void printLine(const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

long long increment(long long counter, long long by)
{
    long long result = 0;
    if (__builtin_add_overflow(counter, by, &result))
        qFatal("Mixer counter overflow");
    return result;
}

[[noreturn]] void fail(const MixEncoder::Line &append, const char *line, const char *message)
{
    append(QString::fromUtf8(line));
    throw DualRecorderError::custom(QString::fromUtf8(message));
}

// The output is replaced, never appended to: gone before the writer is set up.
QString removed(QString path)
{
    QFile::remove(path);
    return path;
}

// The left channel: the system chunk, its first two channels averaged when it has two
// or more, copied when mono. Past the chunk it stays silent.
void fillLeft(const MixInput &system, int n, float *left)
{
    const int m = std::min(n, system.chunkFrames());
    const int channels = system.channels();
    const float *in = system.samples();
    if (channels >= 2) {
        for (int i = 0; i < m; ++i)
            left[i] = (in[i * channels] + in[i * channels + 1]) * 0.5f;
    } else {
        std::copy_n(in, m, left);
    }
    std::fill(left + m, left + n, 0.0f);
}

// The right channel: the microphone's first channel; any other channel is ignored.
void fillRight(const MixInput &microphone, int n, float *right)
{
    const int m = std::min(n, microphone.chunkFrames());
    const int channels = microphone.channels();
    const float *in = microphone.samples();
    for (int i = 0; i < m; ++i)
        right[i] = in[i * channels];
    std::fill(right + m, right + n, 0.0f);
}

} // namespace

MixEncoder::Inputs MixEncoder::describeInputs(
    const AudioMixer::Files &files, const MixInput &system, const MixInput &microphone, const Line &append)
{
    append(QStringLiteral("=== STARTING AUDIO MIXING ==="));
    // The label's spelling is what readers of these transcripts have always searched for.
    append(QStringLiteral("Timestams, ") + timestampText());

    const bool systemExists = QFileInfo::exists(files.systemAudio);
    const bool microphoneExists = QFileInfo::exists(files.microphone);
    append(QStringLiteral("File existence - System: ") + boolText(systemExists) + QStringLiteral(", Mic: ")
        + boolText(microphoneExists));
    if (!systemExists || !microphoneExists)
        fail(append, "ERROR: One or both audio files missing", "Audio files missing");

    append(QStringLiteral("System audio file size: ") + QString::number(QFileInfo(files.systemAudio).size())
        + QStringLiteral(" bytes"));
    append(QStringLiteral("Microphone file size: ") + QString::number(QFileInfo(files.microphone).size())
        + QStringLiteral(" bytes"));

    if (!system.isOpen() || !microphone.isOpen())
        fail(append, "ERROR: Failed to open audio files", "Failed to read audio files for mixing");
    append(system.describe(QStringLiteral("System audio: ")));
    append(microphone.describe(QStringLiteral("Microphone: ")));

    if (system.frames() < 1 && microphone.frames() < 1) {
        append(QStringLiteral("Both files empty, creating empty output"));
        return Inputs::bothEmpty;
    }
    // Deliberately refused rather than mixed: a recording where only one source
    // delivered anything means that capture went wrong.
    if (system.frames() < 1 || microphone.frames() < 1)
        fail(append, "ERROR: One file is empty (not yet supported)", "Cannot mix with empty audio");
    return Inputs::mixable;
}

MixEncoder::MixEncoder(
    MixInput &system, MixInput &microphone, QString output, const Line &append, bool removeSpeakerEcho)
    : m_system(system)
    , m_microphone(microphone)
    , m_output(removed(std::move(output)))
    , m_writer(m_output)
{
    // From here on a failure removes what was written, so that the output exists only
    // when the mix succeeded.
    const auto failAndRemove = [this, &append](const char *line, const char *message) {
        QFile::remove(m_output);
        fail(append, line, message);
    };

    append(QStringLiteral("AVAssetWriter configured for direct M4A output"));
    if (!m_writer.startWriting()) {
        qCWarning(lcMixer, "%s", qPrintable(m_writer.errorText()));
        failAndRemove("ERROR: Could not start writing", "Could not start AVAssetWriter");
    }
    append(QStringLiteral("Started writing session"));

    try {
        m_system.allocateBuffer(AudioMixer::chunkFrames);
        m_microphone.allocateBuffer(AudioMixer::chunkFrames);
    } catch (const std::bad_alloc &) {
        failAndRemove("ERROR: Failed to create read buffers", "Failed to create audio buffers");
    }
    try {
        m_left.assign(AudioMixer::chunkFrames, 0.0f);
        m_right.assign(AudioMixer::chunkFrames, 0.0f);
    } catch (const std::bad_alloc &) {
        failAndRemove("ERROR: Failed to create mix buffer", "Failed to create mix buffer");
    }
    if (!m_system.rewind() || !m_microphone.rewind())
        failAndRemove("ERROR: Failed to open audio files", "Failed to read audio files for mixing");
    if (removeSpeakerEcho)
        m_echo = std::make_unique<EchoFilter>();
    m_encode
        = [this](const float *left, const float *right, int frames) { return encode(left, right, frames); };

    append(QStringLiteral("Starting mixing and encoding loop..."));
}

// Deliberately no summing, gain, clipping or resampling: each chunk is taken sample for
// sample at whatever rate each file has, and the shorter source is padded with silence.
// A failing chunk ends the stream early instead of failing the mix: the file is then
// finished with what was encoded so far.
bool MixEncoder::step()
{
    const auto stopEarly = [this](const QString &line) {
        printLine(line);
        m_stoppedEarly = true;
        return false;
    };
    m_lastFrames = 0;
    m_iterations = increment(m_iterations, 1);
    QString error;
    if (!m_system.readChunk(&error))
        return stopEarly(QStringLiteral("Error reading system audio: ") + error);
    if (!m_microphone.readChunk(&error))
        return stopEarly(QStringLiteral("Error reading mic audio: ") + error);
    const int n = std::max(m_system.chunkFrames(), m_microphone.chunkFrames());
    if (n == 0)
        return false;
    fillLeft(m_system, n, m_left.data());
    fillRight(m_microphone, n, m_right.data());
    if (m_echo ? !m_echo->push(m_left.data(), m_right.data(), n, m_encode)
               : !m_encode(m_left.data(), m_right.data(), n))
        return stopEarly(*m_encodeFailure);
    m_lastFrames = n;
    m_framesWritten = increment(m_framesWritten, n);
    if (m_iterations % AudioMixer::progressInterval == 0)
        printLine(
            QStringLiteral("Progress: %1 iterations, %2 frames").arg(m_iterations).arg(m_framesWritten));
    return true;
}

bool MixEncoder::encode(const float *left, const float *right, int frames)
{
    if (!m_writer.enqueue(left, right, frames))
        m_encodeFailure = QStringLiteral("Failed to create sample buffer");
    else if (!m_writer.encodeQueued())
        m_encodeFailure = QStringLiteral("Failed to append sample buffer");
    return !m_encodeFailure;
}

// One line per recording, in the mixer's log rather than the transcript, whose lines
// stay those of a mix without it.
void MixEncoder::logEchoReport() const
{
    const EchoFilter::Report &report = m_echo->report();
    const double reduction
        = report.outputEnergy > 0 ? 10 * std::log10(report.inputEnergy / report.outputEnergy) : 0;
    qCInfo(lcMixer, "Speaker echo in %lld of %lld windows (%.0f %%), reduced by %.1f dB, delay %d ms",
        report.echoWindows, report.windows,
        report.windows ? 100.0 * static_cast<double>(report.echoWindows) / static_cast<double>(report.windows)
                       : 0.0,
        reduction, report.delayFrames < 0 ? -1 : report.delayFrames / (EchoRemover::sampleRate / 1000));
}

void MixEncoder::finish(const Line &append)
{
    // What the echo filter still holds back goes out before the stream ends.
    if (m_echo) {
        if (!m_echo->finish(m_encode)) {
            printLine(*m_encodeFailure);
            m_stoppedEarly = true;
        }
        logEchoReport();
    }
    append(QStringLiteral("Mixing complete: %1 iterations, %2 frames written")
               .arg(m_iterations)
               .arg(m_framesWritten));
    append(QStringLiteral("Finalizing M4A file..."));
    m_writer.finishWriting();

    if (m_writer.status() == M4aWriter::Status::completed) {
        append(QStringLiteral("M4A file created successfully"));
        append(QStringLiteral("Output file path: ") + m_output);
        const qint64 size = QFileInfo(m_output).size();
        append(QStringLiteral("Output M4A file size: ") + QString::number(size) + QStringLiteral(" bytes"));
        if (size == 0) {
            QFile::remove(m_output);
            throw DualRecorderError::custom(QStringLiteral("Output file is empty"));
        }
        append(QStringLiteral("=== MIXING COMPLETED SUCCESSFULLY ==="));
        return;
    }

    append(QStringLiteral("ERROR: Writer failed with status ")
        + QString::number(static_cast<int>(m_writer.status())));
    if (!m_writer.errorText().isEmpty())
        append(QStringLiteral("Error: ") + m_writer.errorText());
    QFile::remove(m_output);
    throw DualRecorderError::custom(QStringLiteral("Failed to write M4A file"));
}
