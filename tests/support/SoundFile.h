#pragma once

#include <QString>

#include <vector>

// A sound file read whole through libsndfile, as float, for checking recordings.
struct SoundFile
{
    QString error; // empty when the file was read
    int rate = 0;
    int channels = 0;
    int format = 0; // libsndfile's SF_FORMAT_* bits
    std::vector<float> samples; // interleaved

    [[nodiscard]] static SoundFile read(const QString &path);
    [[nodiscard]] long long frames() const
    {
        return channels ? static_cast<long long>(samples.size()) / channels : 0;
    }
    [[nodiscard]] double seconds() const { return rate ? static_cast<double>(frames()) / rate : 0; }
    // Seconds [from, from + length) of one channel.
    [[nodiscard]] std::vector<float> channelSpan(int channel, double from, double length) const;
    // Whether `frequency` is the strongest there. A window holding a splice (a pause, a
    // device switch) can move the peak by a hertz or two.
    [[nodiscard]] bool toneAt(double from, double length, double frequency, int channel = 0) const;
};
