#include "audio/AudioMixer.h"

#include "audio/DecimalText.h"
#include "audio/DualRecorderError.h"
#include "audio/M4aWriter.h"
#include "audio/RecordingsFolder.h"
#include "common/Logging.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QFuture>
#include <QObject>
#include <QPromise>
#include <QThread>

#include <qcoro/qcorofuture.h>

#include <sndfile.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <unistd.h>
#include <vector>

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

qint64 increment(qint64 counter, qint64 by)
{
    qint64 result = 0;
    if (__builtin_add_overflow(counter, by, &result))
        qFatal("Mixer counter overflow");
    return result;
}

// One input file, read as float whatever its stored sample width, one chunk at a time
// into a buffer allocated once.
class InputFile
{
public:
    explicit InputFile(const QString &path)
        : m_handle(sf_open(QFile::encodeName(path).constData(), SFM_READ, &m_info))
    { }
    ~InputFile()
    {
        if (m_handle)
            sf_close(m_handle);
    }
    InputFile(const InputFile &) = delete;
    InputFile &operator=(const InputFile &) = delete;

    [[nodiscard]] bool isOpen() const { return m_handle != nullptr; }
    [[nodiscard]] sf_count_t frames() const { return m_info.frames; }
    [[nodiscard]] int channels() const { return m_info.channels; }
    [[nodiscard]] int sampleRate() const { return m_info.samplerate; }

    [[nodiscard]] QString describe(const QString &label) const
    {
        return label + QString::number(frames()) + QStringLiteral(" frames, ") + QString::number(channels())
            + QStringLiteral(" channels, ") + DecimalText::shortest(sampleRate()) + QStringLiteral(" Hz");
    }

    // Throws std::bad_alloc.
    void allocateBuffer(int capacityFrames)
    {
        m_capacity = capacityFrames;
        m_samples.assign(static_cast<size_t>(capacityFrames) * static_cast<size_t>(channels()), 0.0f);
    }

    [[nodiscard]] bool rewind()
    {
        m_position = 0;
        return sf_seek(m_handle, 0, SEEK_SET) == 0;
    }

    // Reads the next chunk (nothing once the file is exhausted). False on a read error,
    // described in `error`.
    [[nodiscard]] bool readChunk(QString *error)
    {
        m_chunkFrames = 0;
        if (m_position >= frames())
            return true;
        const sf_count_t wanted = std::min<sf_count_t>(m_capacity, frames() - m_position);
        const sf_count_t got = sf_readf_float(m_handle, m_samples.data(), wanted);
        if (got <= 0) {
            *error = sf_error(m_handle) != SF_ERR_NO_ERROR
                ? QString::fromUtf8(sf_strerror(m_handle))
                : QStringLiteral("the file ended after %1 of %2 frames").arg(m_position).arg(frames());
            return false;
        }
        m_chunkFrames = static_cast<int>(got);
        m_position += got;
        return true;
    }

    [[nodiscard]] int chunkFrames() const { return m_chunkFrames; }
    // Interleaved: frame i of channel c is at i * channels() + c.
    [[nodiscard]] const float *samples() const { return m_samples.data(); }

private:
    SF_INFO m_info {};
    SNDFILE *m_handle = nullptr;
    std::vector<float> m_samples;
    int m_capacity = 0;
    sf_count_t m_position = 0;
    int m_chunkFrames = 0;
};

struct Counters
{
    qint64 iterations = 0;
    qint64 framesWritten = 0;
};

// The left channel: the system chunk, its first two channels averaged when it has two
// or more, copied when mono. Past the chunk it stays silent.
void fillLeft(const InputFile &system, int n, float *left)
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
void fillRight(const InputFile &microphone, int n, float *right)
{
    const int m = std::min(n, microphone.chunkFrames());
    const int channels = microphone.channels();
    const float *in = microphone.samples();
    for (int i = 0; i < m; ++i)
        right[i] = in[i * channels];
    std::fill(right + m, right + n, 0.0f);
}

// Deliberately no summing, gain, clipping or resampling: each chunk is taken sample for
// sample at whatever rate each file has, and the shorter source is padded with silence.
// A failing chunk ends the stream early instead of failing the mix: the file is then
// finished with what was encoded so far.
Counters encodeAll(InputFile &system, InputFile &microphone, M4aWriter &writer, std::vector<float> &left,
    std::vector<float> &right)
{
    Counters counters;
    for (;;) {
        counters.iterations = increment(counters.iterations, 1);
        QString error;
        if (!system.readChunk(&error)) {
            printLine(QStringLiteral("Error reading system audio: ") + error);
            break;
        }
        if (!microphone.readChunk(&error)) {
            printLine(QStringLiteral("Error reading mic audio: ") + error);
            break;
        }
        const int n = std::max(system.chunkFrames(), microphone.chunkFrames());
        if (n == 0)
            break;
        fillLeft(system, n, left.data());
        fillRight(microphone, n, right.data());
        if (!writer.enqueue(left.data(), right.data(), n)) {
            printLine(QStringLiteral("Failed to create sample buffer"));
            break;
        }
        if (!writer.encodeQueued()) {
            printLine(QStringLiteral("Failed to append sample buffer"));
            break;
        }
        counters.framesWritten = increment(counters.framesWritten, n);
        if (counters.iterations % AudioMixer::progressInterval == 0)
            printLine(QStringLiteral("Progress: %1 iterations, %2 frames")
                          .arg(counters.iterations)
                          .arg(counters.framesWritten));
    }
    return counters;
}

[[noreturn]] void fail(const AudioMixer::Transcript &append, const QString &line, const QString &message)
{
    append(line);
    throw DualRecorderError::custom(message);
}

} // namespace

void AudioMixer::mixOnThisThread(const Files &files, const Transcript &transcript)
{
    const auto append = [&transcript](const QString &line) { transcript(line + QLatin1Char('\n')); };
    const auto failWith = [&append](const char *line, const char *message) {
        fail(append, QString::fromUtf8(line), QString::fromUtf8(message));
    };

    append(QStringLiteral("=== STARTING AUDIO MIXING ==="));
    // The label's spelling is what readers of these transcripts have always searched for.
    append(QStringLiteral("Timestams, ") + timestampText());

    const bool systemExists = QFileInfo::exists(files.systemAudio);
    const bool microphoneExists = QFileInfo::exists(files.microphone);
    append(QStringLiteral("File existence - System: ") + boolText(systemExists) + QStringLiteral(", Mic: ")
        + boolText(microphoneExists));
    if (!systemExists || !microphoneExists)
        failWith("ERROR: One or both audio files missing", "Audio files missing");

    append(QStringLiteral("System audio file size: ") + QString::number(QFileInfo(files.systemAudio).size())
        + QStringLiteral(" bytes"));
    append(QStringLiteral("Microphone file size: ") + QString::number(QFileInfo(files.microphone).size())
        + QStringLiteral(" bytes"));

    InputFile system(files.systemAudio);
    InputFile microphone(files.microphone);
    if (!system.isOpen() || !microphone.isOpen())
        failWith("ERROR: Failed to open audio files", "Failed to read audio files for mixing");
    append(system.describe(QStringLiteral("System audio: ")));
    append(microphone.describe(QStringLiteral("Microphone: ")));

    if (system.frames() < 1 || microphone.frames() < 1) {
        if (system.frames() < 1 && microphone.frames() < 1) {
            append(QStringLiteral("Both files empty, creating empty output"));
            const int empty = RecordingsFolder::createPrivateFile(files.output);
            if (empty < 0)
                throw DualRecorderError::custom(QString::fromLocal8Bit(std::strerror(errno)));
            ::close(empty);
            return;
        }
        // Deliberately refused rather than mixed: a recording where only one source
        // delivered anything means that capture went wrong.
        failWith("ERROR: One file is empty (not yet supported)", "Cannot mix with empty audio");
    }

    QFile::remove(files.output);
    // From here on a failure removes what was written, so that the output exists only
    // when the mix succeeded.
    const auto failAndRemove = [&](const char *line, const char *message) {
        QFile::remove(files.output);
        failWith(line, message);
    };

    M4aWriter writer(files.output);
    append(QStringLiteral("AVAssetWriter configured for direct M4A output"));
    if (!writer.startWriting()) {
        qCWarning(lcMixer, "%s", qPrintable(writer.errorText()));
        failAndRemove("ERROR: Could not start writing", "Could not start AVAssetWriter");
    }
    append(QStringLiteral("Started writing session"));

    std::vector<float> left;
    std::vector<float> right;
    try {
        system.allocateBuffer(chunkFrames);
        microphone.allocateBuffer(chunkFrames);
    } catch (const std::bad_alloc &) {
        failAndRemove("ERROR: Failed to create read buffers", "Failed to create audio buffers");
    }
    try {
        left.assign(chunkFrames, 0.0f);
        right.assign(chunkFrames, 0.0f);
    } catch (const std::bad_alloc &) {
        failAndRemove("ERROR: Failed to create mix buffer", "Failed to create mix buffer");
    }
    if (!system.rewind() || !microphone.rewind())
        failAndRemove("ERROR: Failed to open audio files", "Failed to read audio files for mixing");

    append(QStringLiteral("Starting mixing and encoding loop..."));
    const Counters counters = encodeAll(system, microphone, writer, left, right);

    append(QStringLiteral("Mixing complete: %1 iterations, %2 frames written")
               .arg(counters.iterations)
               .arg(counters.framesWritten));
    append(QStringLiteral("Finalizing M4A file..."));
    writer.finishWriting();

    if (writer.status() == M4aWriter::Status::completed) {
        append(QStringLiteral("M4A file created successfully"));
        append(QStringLiteral("Output file path: ") + files.output);
        const qint64 size = QFileInfo(files.output).size();
        append(QStringLiteral("Output M4A file size: ") + QString::number(size) + QStringLiteral(" bytes"));
        if (size == 0) {
            QFile::remove(files.output);
            throw DualRecorderError::custom(QStringLiteral("Output file is empty"));
        }
        append(QStringLiteral("=== MIXING COMPLETED SUCCESSFULLY ==="));
        return;
    }

    append(QStringLiteral("ERROR: Writer failed with status ")
        + QString::number(static_cast<int>(writer.status())));
    if (!writer.errorText().isEmpty())
        append(QStringLiteral("Error: ") + writer.errorText());
    QFile::remove(files.output);
    throw DualRecorderError::custom(QStringLiteral("Failed to write M4A file"));
}

QCoro::Task<> AudioMixer::mixAudioFiles(Files files, Transcript transcript)
{
    qCDebug(lcMixer, "mixAudioFiles()");

    // Lives on the awaiting thread as long as this coroutine is suspended. The worker
    // posts each transcript line to it and, last of all, the outcome: so by the time
    // the awaiting code resumes, every line has been handed over, in order.
    QObject mailbox;
    auto outcome = std::make_shared<QPromise<void>>();
    QFuture<void> finished = outcome->future();
    outcome->start();
    auto sink = std::make_shared<const Transcript>(std::move(transcript));

    QThread *worker = QThread::create([files = std::move(files), sink, outcome, mailbox = &mailbox] {
        const Transcript post = [sink, mailbox](const QString &line) {
            QMetaObject::invokeMethod(
                mailbox, [sink, line] { (*sink)(line); }, Qt::QueuedConnection);
        };
        std::exception_ptr failure;
        try {
            mixOnThisThread(files, post);
        } catch (...) {
            failure = std::current_exception();
        }
        QMetaObject::invokeMethod(
            mailbox,
            [outcome, failure] {
                if (failure)
                    outcome->setException(failure);
                outcome->finish();
            },
            Qt::QueuedConnection);
    });
    worker->setObjectName(QString::fromLatin1(queueName));
    QObject::connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    worker->start();

    co_await finished;
}
