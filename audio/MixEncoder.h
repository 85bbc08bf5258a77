#pragma once

#include "audio/AudioMixer.h"
#include "audio/EchoFilter.h"
#include "audio/M4aWriter.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class MixInput;

// The mixing and encoding loop, the one core of both mixes: the mix of two finished
// files (AudioMixer) and the mix that follows a recording while it runs (LiveMixer).
// Both hand it the same chunks in the same order, so both write the same bytes.
//
// It lays the system-audio chunk and the microphone chunk side by side (system left,
// microphone right) and feeds the encoder, one iteration at a time, and it writes the
// transcript's lines around the loop in the order they have always had. Every line is
// handed to `Line` without its line feed.
//
// Thread contract: not thread-safe; one thread at a time (the mixer's worker).
class MixEncoder
{
public:
    using Line = std::function<void(const QString &line)>;

    enum class Inputs {
        mixable,
        bothEmpty, // the mix is then a zero-byte output, and no error
    };

    // From "=== STARTING AUDIO MIXING ===" to the description of both inputs, then the
    // input rules: missing, unreadable, one of them empty. Throws DualRecorderError with
    // the rule's message after its line.
    static Inputs describeInputs(const AudioMixer::Files &files, const MixInput &system,
        const MixInput &microphone, const Line &append);

    // Replaces the output with a new M4A, started, and prepares the loop: from
    // "AVAssetWriter configured for direct M4A output" to "Starting mixing and encoding
    // loop...". Throws DualRecorderError (FFmpeg's text when the encoder cannot be set
    // up, the transcript's message otherwise) and then leaves no output. With
    // `removeSpeakerEcho` the microphone channel goes through an EchoFilter, which holds
    // the encoding one window behind the mixing; the counters and lines stay the same.
    MixEncoder(MixInput &system, MixInput &microphone, QString output, const Line &append,
        bool removeSpeakerEcho = false);
    MixEncoder(const MixEncoder &) = delete;
    MixEncoder &operator=(const MixEncoder &) = delete;

    // One iteration of the loop: the next chunk of each input, mixed and encoded. False
    // once the stream has ended, because both inputs were exhausted (that last, empty
    // iteration counts) or because a chunk failed (its line printed to standard output).
    [[nodiscard]] bool step();
    // Whether the stream ended on a failing chunk rather than at the end of both inputs.
    [[nodiscard]] bool stoppedEarly() const { return m_stoppedEarly; }
    // Frames of the last iteration.
    [[nodiscard]] int lastChunkFrames() const { return m_lastFrames; }

    // From "Mixing complete: …" to "=== MIXING COMPLETED SUCCESSFULLY ===": finishes the
    // stream and writes the index to the front. Throws DualRecorderError with the output
    // removed when the file could not be finished or came out empty.
    void finish(const Line &append);

private:
    // False when the encoder refused the frames, with the line for standard output
    // kept in m_encodeFailure.
    [[nodiscard]] bool encode(const float *left, const float *right, int frames);
    void logEchoReport() const;

    MixInput &m_system;
    MixInput &m_microphone;
    const QString m_output;
    M4aWriter m_writer;
    std::vector<float> m_left;
    std::vector<float> m_right;
    std::unique_ptr<EchoFilter> m_echo;
    EchoFilter::Sink m_encode;
    std::optional<QString> m_encodeFailure;
    long long m_iterations = 0;
    long long m_framesWritten = 0;
    int m_lastFrames = 0;
    bool m_stoppedEarly = false;
};
