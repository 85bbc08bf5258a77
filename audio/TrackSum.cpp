#include "audio/TrackSum.h"

#include <algorithm>
#include <cmath>

TrackSum::TrackSum(int rate, int channels, Sink sink)
    : m_rate(rate)
    , m_channels(channels)
    , m_sink(std::move(sink))
{
    m_tracks[base];
}

int TrackSum::add()
{
    m_tracks[m_next];
    return m_next++;
}

void TrackSum::place(int track, const float *data, qint64 frames)
{
    Track &t = m_tracks.at(track);
    const qint64 from = t.written;
    t.written += frames;
    // What the sum has already handed on is too late to count.
    const qint64 skip = std::clamp<qint64>(m_position - from, 0, frames);
    if (data)
        t.pending.insert(t.pending.end(), data + skip * m_channels, data + frames * m_channels);
    else
        t.pending.resize(t.pending.size() + static_cast<size_t>((frames - skip) * m_channels), 0.0F);
}

void TrackSum::end(int track)
{
    m_tracks.at(track).ended = true;
}

void TrackSum::flush()
{
    // A track that has written nothing yet has not begun: it holds nothing back.
    qint64 until = m_tracks.at(base).written;
    for (const auto &[id, track] : m_tracks) {
        if (!track.ended && track.written > 0)
            until = std::min(until, track.written);
    }
    const qint64 frames = until - m_position;
    if (frames <= 0)
        return;
    m_mix.assign(static_cast<size_t>(frames * m_channels), 0.0F);
    for (auto &[id, track] : m_tracks) {
        const auto take = std::min(track.pending.size(), m_mix.size());
        std::transform(m_mix.begin(), m_mix.begin() + static_cast<qint64>(take), track.pending.begin(),
            m_mix.begin(), std::plus<>());
        track.pending.erase(track.pending.begin(), track.pending.begin() + static_cast<qint64>(take));
    }
    m_position = until;
    std::erase_if(m_tracks,
        [this](const auto &entry) { return entry.second.ended && entry.second.written <= m_position; });

    float peak = 0;
    for (const float sample : m_mix)
        peak = std::max(peak, std::abs(sample));
    if (peak * m_gain > 1)
        m_gain = 1 / peak;
    if (m_gain < 1) {
        for (float &sample : m_mix)
            sample *= m_gain;
    }
    m_gain = std::min(1.0F, m_gain * std::exp2(static_cast<float>(frames) / static_cast<float>(m_rate)));
    m_sink(m_mix.data(), frames);
}
