#pragma once

#include <QtGlobal>

#include <functional>
#include <map>
#include <vector>

// Sums several tracks that count from the same instant (each a CaptureTimeline's output,
// so frame n of every track was heard at the same time) into one, frame for frame.
// Tracks come and go while the sum runs: a track added late writes its first frames
// from position 0 (its timeline's wait filled with silence), of which what the sum has
// already handed on is dropped; a track that ended stops holding the sum back and adds
// what it still has. The sum goes as far as every running track and the silent base
// track (which stands for "nothing playing") have written.
//
// No clipping: the sum of full-scale streams can pass full scale, so a block whose peak
// would pass it is scaled down whole to full scale at once, and the gain then recovers
// by 6 dB a second. A single stream at ordinary levels therefore passes unchanged, bit
// for bit; only a sum that would clip is ever made quieter.
//
// Thread contract: not synchronised; one thread at a time (the capture's lock).
class TrackSum
{
public:
    // Interleaved float frames, `frames` of them.
    using Sink = std::function<void(const float *data, qint64 frames)>;
    static constexpr int base = 0;

    TrackSum(int rate, int channels, Sink sink);

    // A new track; frames are placed on it with place().
    [[nodiscard]] int add();
    // `frames` frames of track `track` (silence when `data` is null), following what it wrote last.
    void place(int track, const float *data, qint64 frames);
    // The track writes no more; what it wrote is still summed.
    void end(int track);
    // Hands on what every running track has reached.
    void flush();

    [[nodiscard]] qint64 position() const { return m_position; }

private:
    struct Track
    {
        qint64 written = 0;
        bool ended = false;
        std::vector<float> pending; // its frames from position() on
    };

    const int m_rate;
    const int m_channels;
    const Sink m_sink;
    std::map<int, Track> m_tracks;
    int m_next = base + 1;
    qint64 m_position = 0;
    float m_gain = 1;
    std::vector<float> m_mix;
};
