#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <vector>

// What the mixer's tests need around it: WAV inputs made with libsndfile, and the mixed
// M4A read back with FFmpeg's own demuxer and decoder (tones: ToneAnalysis).
namespace MixerAnalysis {

struct Tone
{
    double frequency = 0; // 0 is silence
    double amplitude = 0;
};

// A float WAV file whose channel c carries channelTones[c] for `frames` frames. Empty on
// success, libsndfile's error text otherwise.
QString writeWav(const QString &path, int sampleRate, const QList<Tone> &channelTones, long long frames);

struct Decoded
{
    QString error; // empty when the file was read completely
    QString codec;
    int sampleRate = 0;
    QString channelLayout;
    long long bitRate = 0;
    double duration = 0; // seconds, from the container
    std::vector<float> left;
    std::vector<float> right;
};

Decoded decode(const QString &path);

// The file's bytes; empty when it cannot be read.
QByteArray contents(const QString &path);

} // namespace MixerAnalysis
