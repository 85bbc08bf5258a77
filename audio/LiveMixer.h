#pragma once

#include "audio/AudioMixer.h"

#include <QString>
#include <QStringList>

#include <qcoro/qcorotask.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

class QThread;

// The mix that follows a recording while it runs, so that stopping only has to mix the
// last second and finish the file, however long the recording.
//
// It reads the two WAV files as their writers grow them, the same way the mix of the
// finished files reads them, and takes the next 4096-frame chunk of each only when both
// files hold a whole chunk beyond what it has read: so it hands the encoder exactly the
// chunks that mix would, and writes the same bytes (the two share MixEncoder). The
// writers never know about it: nothing they or the sound server's thread do waits on
// it, and when the encoder falls behind the files simply hold more than it has read.
//
// Anything going wrong (the encoder refusing, the output removed, a file that cannot be
// reopened) is logged once and ends the following; finish() then runs the mix of the
// finished files instead, which has every rule, message and transcript line for the
// case. The transcript of a live mix is written at the end, in the same order and with
// the same counts as the other mix's; only the "Progress:" lines come as it goes.
//
// Thread contract: constructor, finish() and destructor on one thread with an event
// loop (the main thread), which is never blocked for longer than one chunk's encoding.
// The following runs on one QThread named AudioMixer::queueName for the mixer's life.
class LiveMixer
{
public:
    // Starts following `files` (their writers have opened them) on the mixing thread.
    explicit LiveMixer(AudioMixer::Files files);
    // Without a finish(): stops the following and removes the partial output (a
    // discarded recording). After a finish(): only waits for the thread.
    ~LiveMixer();
    LiveMixer(const LiveMixer &) = delete;
    LiveMixer &operator=(const LiveMixer &) = delete;

    // Once both writers have closed their files: reads the rest, finishes the M4A (index
    // first) and hands the transcript to `transcript` on the awaiting thread, a line at
    // a time, before completing. Outcome and errors are those of
    // AudioMixer::mixAudioFiles(), which it runs instead when the live mix failed. Call
    // once, and keep the mixer alive until the task completes.
    [[nodiscard]] QCoro::Task<> finish(AudioMixer::Transcript transcript);

    // Frames of each file mixed while following, from any thread: how far behind the
    // recording the mix is (save_bench keeps a simulation faster than real time honest
    // with it).
    [[nodiscard]] long long framesFollowed() const { return m_framesFollowed.load(); }

    // How often the thread looks at the files while nothing asks for it: a few chunks
    // at a time keep its wake-ups rare; stop() wakes it at once.
    static constexpr int pollMilliseconds = 200;

private:
    void run();

    const AudioMixer::Files m_files;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::atomic<bool> m_cancelled { false };
    std::atomic<bool> m_finishing { false };
    std::atomic<long long> m_framesFollowed { 0 };
    // finish()'s answer: every transcript line, or none for the fallback. Under m_mutex.
    std::function<void(const QStringList &lines)> m_reply;
    QThread *m_thread = nullptr;
};
