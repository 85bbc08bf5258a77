#include "support/SoundFile.h"

#include "support/ToneAnalysis.h"

#include <QFile>

#include <algorithm>
#include <cmath>
#include <sndfile.h>

SoundFile SoundFile::read(const QString &path)
{
    SoundFile result;
    SF_INFO info {};
    SNDFILE *file = sf_open(QFile::encodeName(path).constData(), SFM_READ, &info);
    if (!file) {
        result.error = QString::fromUtf8(sf_strerror(nullptr));
        return result;
    }
    result.rate = info.samplerate;
    result.channels = info.channels;
    result.format = info.format;
    result.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
    const sf_count_t read = sf_readf_float(file, result.samples.data(), info.frames);
    result.samples.resize(static_cast<std::size_t>(read * info.channels));
    sf_close(file);
    return result;
}

std::vector<float> SoundFile::channelSpan(int channel, double from, double length) const
{
    std::vector<float> result;
    const long long first = std::clamp(static_cast<long long>(from * rate), 0LL, frames());
    const long long last = std::clamp(static_cast<long long>((from + length) * rate), first, frames());
    for (long long i = first; i < last; ++i)
        result.push_back(samples[static_cast<std::size_t>(i * channels + channel)]);
    return result;
}

bool SoundFile::toneAt(double from, double length, double frequency, int channel) const
{
    return std::abs(ToneAnalysis::dominantFrequency(channelSpan(channel, from, length), rate) - frequency)
        <= 2.0;
}
