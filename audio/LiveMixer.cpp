#include "audio/LiveMixer.h"

#include "audio/DualRecorderError.h"
#include "audio/MixEncoder.h"
#include "audio/MixInput.h"
#include "common/Logging.h"

#include <QFile>
#include <QFileInfo>
#include <QFuture>
#include <QObject>
#include <QPromise>
#include <QThread>

#include <qcoro/qcorofuture.h>

#include <chrono>
#include <exception>
#include <optional>

namespace {

// What the mixing thread keeps while it follows one recording; touched by no other
// thread. Its memory is the encoder's and two chunks per input, however long it runs.
class Follower
{
public:
    explicit Follower(const AudioMixer::Files &files)
        : m_files(files)
        , m_system(files.systemAudio)
        , m_microphone(files.microphone)
    { }

    // Mixes every chunk both files hold in whole, until `cancelled`, counting them in
    // `followed`.
    void follow(const std::atomic<bool> &cancelled, std::atomic<long long> &followed)
    {
        while (!m_failed && !cancelled.load() && bothHoldAChunk()) {
            if (!m_encoder && !startEncoder())
                return;
            // Both files hold a whole chunk, so a shorter read would put a chunk boundary
            // where the other mix has none.
            if (!m_encoder->step() || m_encoder->lastChunkFrames() != AudioMixer::chunkFrames
                || m_system.chunkFrames() != m_microphone.chunkFrames())
                return fail(QStringLiteral("a chunk could not be mixed"));
            followed.fetch_add(AudioMixer::chunkFrames);
        }
        // Someone removing the output would otherwise go unnoticed until the end.
        if (m_encoder && !m_failed && !QFileInfo::exists(m_files.output))
            fail(QStringLiteral("the output file has gone"));
    }

    // With both files closed: the rest, the end of the stream and the whole transcript.
    // Empty when the mix of the finished files has to run instead.
    QStringList finish()
    {
        if (m_failed)
            return {};
        QStringList lines;
        const MixEncoder::Line append
            = [&lines](const QString &line) { lines.append(line + QLatin1Char('\n')); };
        try {
            if (!m_system.refresh() || !m_microphone.refresh()) {
                fail(QStringLiteral("the finished files could not be reopened"));
                return {};
            }
            // The input rules, and the zero-byte output of two empty files, are the other
            // mix's to apply: not a failure of this one.
            if (!mixable(append)) {
                abandon();
                return {};
            }
            if (!m_encoder && !startEncoder())
                return {};
            lines += m_startLines;
            while (m_encoder->step()) { }
            if (m_encoder->stoppedEarly() || !QFileInfo::exists(m_files.output)) {
                fail(QStringLiteral("the end of the recording could not be mixed"));
                return {};
            }
            m_encoder->finish(append);
            return lines;
        } catch (const std::exception &error) {
            fail(QString::fromUtf8(error.what()));
        }
        return {};
    }

    // The recording was discarded: nothing of the partial output may stay.
    void abandon()
    {
        m_encoder.reset();
        if (m_outputMade)
            QFile::remove(m_files.output);
        m_outputMade = false;
    }

private:
    bool mixable(const MixEncoder::Line &append)
    {
        try {
            return MixEncoder::describeInputs(m_files, m_system, m_microphone, append)
                == MixEncoder::Inputs::mixable;
        } catch (const DualRecorderError &) {
            return false;
        }
    }

    bool bothHoldAChunk()
    {
        for (MixInput *input : { &m_system, &m_microphone }) {
            // A file that cannot be reopened now is tried again at the next look; at the
            // end it has to open.
            if (input->unread() < AudioMixer::chunkFrames
                && (!input->refresh() || input->unread() < AudioMixer::chunkFrames))
                return false;
        }
        return true;
    }

    bool startEncoder()
    {
        const MixEncoder::Line keep
            = [this](const QString &line) { m_startLines.append(line + QLatin1Char('\n')); };
        try {
            m_encoder.emplace(m_system, m_microphone, m_files.output, keep, m_files.removeSpeakerEcho);
            m_outputMade = true;
            return true;
        } catch (const std::exception &error) {
            // DualRecorderError's text is its message.
            fail(QString::fromUtf8(error.what()));
        }
        return false;
    }

    // Logged once: from here on nothing more is read, and the output is gone.
    void fail(const QString &reason)
    {
        qCWarning(lcMixer, "Live mixing stopped (%s); the finished files will be mixed on stop",
            qPrintable(reason));
        m_failed = true;
        abandon();
    }

    const AudioMixer::Files m_files;
    MixInput m_system;
    MixInput m_microphone;
    std::optional<MixEncoder> m_encoder;
    QStringList m_startLines; // the encoder's own opening lines, for the transcript at the end
    bool m_outputMade = false;
    bool m_failed = false;
};

} // namespace

LiveMixer::LiveMixer(AudioMixer::Files files)
    : m_files(std::move(files))
    , m_thread(QThread::create([this] { run(); }))
{
    m_thread->setObjectName(QString::fromLatin1(AudioMixer::queueName));
    m_thread->start();
}

LiveMixer::~LiveMixer()
{
    {
        std::lock_guard lock(m_mutex);
        m_cancelled = !m_finishing.load();
    }
    m_wake.notify_one();
    m_thread->wait();
    delete m_thread;
}

void LiveMixer::run()
{
    Follower follower(m_files);
    std::unique_lock lock(m_mutex);
    for (;;) {
        if (m_finishing.load()) {
            const auto reply = m_reply;
            lock.unlock();
            reply(follower.finish());
            return;
        }
        if (m_cancelled.load()) {
            lock.unlock();
            follower.abandon();
            return;
        }
        lock.unlock();
        follower.follow(m_cancelled, m_framesFollowed);
        lock.lock();
        m_wake.wait_for(lock, std::chrono::milliseconds(pollMilliseconds),
            [this] { return m_finishing.load() || m_cancelled.load(); });
    }
}

QCoro::Task<> LiveMixer::finish(AudioMixer::Transcript transcript)
{
    qCDebug(lcMixer, "LiveMixer::finish()");
    // The answer is posted to a receiver living in this frame and completes the future
    // only there: so finish() always completes through the event loop, never inside the
    // call, as the mix of finished files does.
    QObject mailbox;
    auto reply = std::make_shared<QPromise<QStringList>>();
    QFuture<QStringList> mixed = reply->future();
    reply->start();
    {
        std::lock_guard lock(m_mutex);
        m_reply = [mailbox = &mailbox, reply](const QStringList &lines) {
            QMetaObject::invokeMethod(
                mailbox,
                [reply, lines] {
                    reply->addResult(lines);
                    reply->finish();
                },
                Qt::QueuedConnection);
        };
        m_finishing = true;
    }
    m_wake.notify_one();
    const QStringList lines = co_await mixed;
    if (!lines.isEmpty()) {
        for (const QString &line : lines)
            transcript(line);
        co_return;
    }
    // Built outside the co_await expression: GCC 12 destroys temporaries of an awaited
    // full-expression twice.
    QCoro::Task<> batch = AudioMixer::mixAudioFiles(m_files, std::move(transcript));
    co_await std::move(batch);
}
