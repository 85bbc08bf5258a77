#include "audio/AudioFileWriter.h"

#include "audio/RecordingsFolder.h"

#include <QFile>

#include <sndfile.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

namespace {
// Enough for every block a server delivers; larger ones just allocate.
constexpr std::size_t spareBuffers = 32;
constexpr qint64 silenceChunkFrames = 4096;
} // namespace

AudioFileWriter::AudioFileWriter(const char *threadName, const QLoggingCategory &category)
    : m_threadName(threadName)
    , m_category(category)
{ }

AudioFileWriter::~AudioFileWriter()
{
    close();
}

std::optional<QString> AudioFileWriter::open(const QString &path, const SampleSpec &stored)
{
    if (m_file)
        return QStringLiteral("The audio file is already open");
    m_spec = stored;
    const QByteArray name = QFile::encodeName(path);
    m_descriptor = RecordingsFolder::createPrivateFile(path);
    if (m_descriptor < 0)
        return QStringLiteral("Failed to open %1 for writing: %2")
            .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    SF_INFO info {};
    info.samplerate = stored.rate;
    info.channels = stored.channels;
    info.format = SF_FORMAT_RF64
        | (stored.sample == SampleSpec::Sample::float32 ? SF_FORMAT_FLOAT : SF_FORMAT_PCM_16);
    m_file = sf_open_fd(m_descriptor, SFM_WRITE, &info, SF_FALSE);
    if (!m_file) {
        const QString reason = QString::fromUtf8(sf_strerror(nullptr));
        ::close(std::exchange(m_descriptor, -1));
        return QStringLiteral("Failed to open %1 for writing: %2").arg(path, reason);
    }
    // Stays a plain WAV unless it grows past what a WAV can address (4 GiB, about
    // 3.1 hours of 48 kHz stereo float); the header follows every headerSeconds.
    sf_command(m_file, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    // Samples beyond full scale are clipped rather than wrapped around in PCM.
    sf_command(m_file, SFC_SET_CLIPPING, nullptr, SF_TRUE);

    {
        std::lock_guard lock(m_mutex);
        m_closing = false;
        m_accepting = true;
    }
    m_failed = false;
    m_framesSinceHeader = 0;
    m_thread = std::thread([this] { run(); });
    return std::nullopt;
}

void AudioFileWriter::push(const float *data, qint64 frames)
{
    if (frames <= 0)
        return;
    {
        std::lock_guard lock(m_mutex);
        if (!m_accepting)
            return;
        Block block;
        block.frames = frames;
        if (data) {
            if (!m_spare.empty()) {
                block.samples = std::move(m_spare.back());
                m_spare.pop_back();
            }
            block.samples.assign(data, data + frames * m_spec.channels);
        }
        m_queue.push_back(std::move(block));
    }
    m_wake.notify_one();
}

void AudioFileWriter::close()
{
    if (!m_file)
        return;
    {
        std::lock_guard lock(m_mutex);
        m_accepting = false;
        m_closing = true;
    }
    m_wake.notify_one();
    if (m_thread.joinable())
        m_thread.join();
    sf_close(m_file);
    m_file = nullptr;
    ::close(std::exchange(m_descriptor, -1));
    std::lock_guard lock(m_mutex);
    m_queue.clear();
    m_spare.clear();
}

std::optional<WriteFailure> AudioFileWriter::failure() const
{
    if (!m_failed.load(std::memory_order_acquire))
        return std::nullopt;
    return writeFailureOf(m_failureErrno.load(std::memory_order_relaxed));
}

void AudioFileWriter::run()
{
    pthread_setname_np(pthread_self(), m_threadName);
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_closing || !m_queue.empty(); });
        while (!m_queue.empty()) {
            Block block = std::move(m_queue.front());
            m_queue.pop_front();
            m_busy = true;
            lock.unlock();
            write(block);
            lock.lock();
            m_busy = false;
            if (block.samples.capacity() && m_spare.size() < spareBuffers)
                m_spare.push_back(std::move(block.samples));
        }
        m_idle.notify_all();
        if (m_closing)
            return;
    }
}

bool AudioFileWriter::flush(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(m_mutex);
    if (!m_file)
        return false;
    const bool written = m_idle.wait_for(lock, timeout, [this] { return m_queue.empty() && !m_busy; });
    // The writer is idle and cannot take a block while the lock is held: the header
    // is ours to bring up to date, as it is only rewritten every half second.
    if (written)
        sf_command(m_file, SFC_UPDATE_HEADER_NOW, nullptr, 0);
    lock.unlock();
    return written && ::fsync(m_descriptor) == 0;
}

void AudioFileWriter::write(const Block &block)
{
    if (m_failed.load(std::memory_order_relaxed) || m_dropping.load(std::memory_order_relaxed)) {
        m_framesDropped.fetch_add(static_cast<quint64>(block.frames), std::memory_order_relaxed);
        return;
    }
    sf_count_t written = 0;
    errno = 0;
    if (!block.samples.empty()) {
        written = sf_writef_float(m_file, block.samples.data(), block.frames);
    } else {
        static const std::array<float, silenceChunkFrames * 8> zeros {};
        const qint64 chunk = static_cast<qint64>(zeros.size()) / m_spec.channels;
        for (qint64 left = block.frames; left > 0;) {
            const qint64 n = std::min(left, chunk);
            const sf_count_t done = sf_writef_float(m_file, zeros.data(), n);
            written += done;
            if (done != n)
                break;
            left -= n;
        }
    }
    m_framesSinceHeader += written;
    if (m_framesSinceHeader >= static_cast<qint64>(m_spec.rate * headerSeconds)) {
        sf_command(m_file, SFC_UPDATE_HEADER_NOW, nullptr, 0);
        m_framesSinceHeader = 0;
    }
    // Counted once the header says so, for whoever reads the file on seeing the count.
    m_framesWritten.fetch_add(static_cast<quint64>(written), std::memory_order_relaxed);
    if (written != block.frames) {
        // libsndfile leaves the errno of the write() that failed.
        m_failureErrno.store(errno, std::memory_order_relaxed);
        m_failed.store(true, std::memory_order_release);
        qCCritical(m_category).noquote()
            << "Failed to write audio file:" << QString::fromUtf8(sf_strerror(m_file))
            << "- no more audio will be written to it";
    }
}
