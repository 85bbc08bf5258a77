#pragma once

#include <QString>

#include <qcoro/qcorotask.h>

#include <functional>

// Lays the system-audio file and the microphone file side by side into one stereo
// stream (system left, microphone right) and encodes it to AAC in an M4A file, in one
// pass, chunk by chunk: the recording is never held in memory.
//
// What the dual recorder's stop() runs once both captures have closed their files.
// The mix writes a plain-text transcript of its progress for the recorder's `logs`
// and a "Progress:" line on standard output every 100 chunks.
class AudioMixer
{
public:
    struct Files
    {
        QString systemAudio;
        QString microphone;
        QString output;
        // The microphone channel with the speakers' echo removed where it holds any
        // (EchoFilter); without, the raw microphone.
        bool removeSpeakerEcho = false;
    };

    // Receives one transcript line at a time, each ending in a line feed.
    using Transcript = std::function<void(const QString &line)>;

    // Frames read from each input per chunk, and the size of every preallocated buffer.
    static constexpr int chunkFrames = 4096;
    // A "Progress:" line is printed on every iteration that is a multiple of this.
    static constexpr long long progressInterval = 100;
    // The name of the one worker thread each mix runs on.
    static constexpr char queueName[] = "audio.mixing.queue";

    // Mixes `files` on a new worker thread named queueName and completes on the thread
    // that awaits it, which must run an event loop (the main thread): that thread is
    // never blocked. Every transcript line is handed to `transcript` on the awaiting
    // thread, in order, before the task completes.
    //
    // Both inputs empty: a zero-byte output and no error. Otherwise throws
    // DualRecorderError with the transcript's matching message; a failure while
    // reading or encoding a chunk ends the stream early instead and still finishes the
    // file. The output exists afterwards if and only if the task did not throw.
    [[nodiscard]] static QCoro::Task<> mixAudioFiles(Files files, Transcript transcript);

    // The same mix on the calling thread, with `transcript` called there. Blocks for
    // as long as the encoding takes; mixAudioFiles() runs this on its worker.
    static void mixOnThisThread(const Files &files, const Transcript &transcript);
};
