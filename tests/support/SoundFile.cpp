#include "support/SoundFile.h"

#include <QFile>

#include <algorithm>
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
    result.ok = true;
    return result;
}

std::vector<float> SoundFile::channelSpan(int channel, double fromSeconds, double lengthSeconds) const
{
    std::vector<float> result;
    const long long from = std::clamp(static_cast<long long>(fromSeconds * rate), 0LL, frames());
    const long long to = std::clamp(static_cast<long long>((fromSeconds + lengthSeconds) * rate), from, frames());
    for (long long i = from; i < to; ++i)
        result.push_back(samples[static_cast<std::size_t>(i * channels + channel)]);
    return result;
}
