#pragma once

#include "audio/SoundServer.h"
#include "audio/WriteFailure.h"

#include <QLoggingCategory>
#include <QString>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

struct sf_private_tag;

// Writes captured blocks to a WAV file on a thread of its own, so that the thread
// that receives audio never waits on the disk.
//
// The file is RF64 that libsndfile writes as a plain WAV while it stays under
// 4 GiB, and its header is rewritten once every headerSeconds of audio: a process
// killed at any moment leaves a file that opens and holds everything written until
// the last rewrite, at most half a second short (well inside the second a crash may
// cost). Rewriting it after every 25 ms block cost a seek and a header write forty
// times a second per file. A file is created with mode 0600 (recordings are private).
//
// A failed write (disk full, I/O error) is logged once; from then on nothing more
// is written and the file keeps what it held. Its reason is kept for failure(),
// which the owner polls: nothing is signalled from the writer thread.
//
// Thread contract: open(), close() and the destructor on the owner's thread;
// push() and setDropping() from any thread (push() only copies and queues); the
// counters from any thread.
class AudioFileWriter
{
public:
    // `threadName` names the writer thread ("SystemRecorder", "MicRecorder");
    // `category` is where write failures are logged.
    AudioFileWriter(const char *threadName, const QLoggingCategory &category);
    // Seconds of audio between two rewrites of the header.
    static constexpr double headerSeconds = 0.5;
    ~AudioFileWriter();
    AudioFileWriter(const AudioFileWriter &) = delete;
    AudioFileWriter &operator=(const AudioFileWriter &) = delete;

    // Creates (or truncates) the file and starts the writer thread. push() always
    // takes float samples; `stored` says how the file keeps them: rate, channels
    // and sample type (float32 as 32-bit float, int16 as 16-bit PCM).
    [[nodiscard]] std::optional<QString> open(const QString &path, const SampleSpec &stored);
    [[nodiscard]] bool isOpen() const { return m_file != nullptr; }
    // Channels per frame of what push() takes; set by open(), before any capture runs.
    [[nodiscard]] int channels() const { return m_spec.channels; }

    // Queues a copy of `frames` interleaved frames; null `data` means that many
    // frames of silence. Never waits on the disk. Blocks pushed when the file is
    // closed are ignored; blocks the writer finds while dropping (paused) are
    // discarded, so the file holds the kept spans back to back.
    void push(const float *data, qint64 frames);
    void setDropping(bool dropping) { m_dropping.store(dropping, std::memory_order_relaxed); }

    // Writes what is queued, stops the thread and closes the file.
    void close();
    // Waits, at most `timeout`, until what was pushed is written, then has the file
    // reach the disk (fsync): what a suspend that never wakes must not take. False
    // when that did not happen in time or the file is not open.
    bool flush(std::chrono::milliseconds timeout);

    [[nodiscard]] quint64 framesWritten() const { return m_framesWritten.load(); }
    [[nodiscard]] quint64 framesDropped() const { return m_framesDropped.load(); }
    [[nodiscard]] bool failed() const { return m_failed.load(); }
    // Why writing stopped, once it has (any thread).
    [[nodiscard]] std::optional<WriteFailure> failure() const;

private:
    struct Block
    {
        std::vector<float> samples; // empty for silence
        qint64 frames = 0;
    };

    void run();
    void write(const Block &block);

    const char *m_threadName;
    const QLoggingCategory &m_category;
    SampleSpec m_spec;
    sf_private_tag *m_file = nullptr;
    int m_descriptor = -1;
    std::thread m_thread;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_idle; // the writer has written what was queued
    bool m_busy = false; // a block taken from the queue is being written
    std::deque<Block> m_queue;
    std::vector<std::vector<float>> m_spare; // recycled buffers: no allocation per block
    bool m_closing = false;
    bool m_accepting = false;

    std::atomic<bool> m_dropping { false };
    std::atomic<bool> m_failed { false };
    // The errno of the failed write; stored before m_failed is set.
    std::atomic<int> m_failureErrno { 0 };
    std::atomic<quint64> m_framesWritten { 0 };
    std::atomic<quint64> m_framesDropped { 0 };
    qint64 m_framesSinceHeader = 0; // writer thread only
};
