#pragma once

#include <QString>

#include <vector>

// A sound file read whole through libsndfile, as float, for checking recordings.
struct SoundFile
{
    bool ok = false;
    QString error;
    int rate = 0;
    int channels = 0;
    int format = 0; // libsndfile's SF_FORMAT_* bits
    std::vector<float> samples; // interleaved

    [[nodiscard]] static SoundFile read(const QString &path);
    [[nodiscard]] long long frames() const { return channels ? static_cast<long long>(samples.size()) / channels : 0; }
    [[nodiscard]] double seconds() const { return rate ? static_cast<double>(frames()) / rate : 0; }
    // Frames [from, from + count) of one channel.
    [[nodiscard]] std::vector<float> channelSpan(int channel, double fromSeconds, double lengthSeconds) const;
};
