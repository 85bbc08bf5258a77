#include "bench/room/EchoRoom.h"

#include <QProcess>
#include <QTemporaryDir>

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <random>

namespace {

struct Talker
{
    const char *voice;
    const char *words;
    double peak;
};

// Two voices a recognisable distance apart, each with enough to say for a cycle's
// segments; longer recordings read on from where the last segment stopped.
const Talker farTalker { "en-us",
    "The quarterly numbers look better than we expected, and the team in Berlin "
    "will present the details on Thursday. Please send your questions before the "
    "meeting, so that we can prepare the answers and keep the call short. We also "
    "need a volunteer for the review of the new pricing page.",
    0.5 };
const Talker nearTalker { "en-gb-scotland+f3",
    "I agree with that plan. Could you also share the slides from "
    "last week, and the list of open items for the release? I can "
    "take the pricing review if nobody else has the time for it.",
    0.4 };

// Seconds of each segment, in the order of the cycle.
constexpr std::pair<EchoRoom::Segment, double> cycle[] = {
    { EchoRoom::Segment::farEnd, 6 },
    { EchoRoom::Segment::silence, 1 },
    { EchoRoom::Segment::nearEnd, 5 },
    { EchoRoom::Segment::silence, 1 },
    { EchoRoom::Segment::both, 6 },
    { EchoRoom::Segment::silence, 1 },
};

constexpr double noiseDb = -70;

std::vector<float> readMono(const QString &path, int *rate)
{
    SF_INFO info {};
    SNDFILE *file = sf_open(path.toLocal8Bit().constData(), SFM_READ, &info);
    if (!file)
        return {};
    std::vector<float> samples(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(file, samples.data(), info.frames);
    sf_close(file);
    std::vector<float> mono(static_cast<size_t>(info.frames));
    for (size_t i = 0; i < mono.size(); ++i)
        mono[i] = samples[i * static_cast<size_t>(info.channels)];
    *rate = info.samplerate;
    return mono;
}

// Windowed-sinc interpolation up to 48000 Hz (espeak-ng speaks at 22050 Hz).
std::vector<float> resampled(const std::vector<float> &in, int from)
{
    constexpr int halfTaps = 16;
    const double step = static_cast<double>(from) / EchoRoom::rate;
    std::vector<float> out(static_cast<size_t>(static_cast<double>(in.size()) / step));
    for (size_t n = 0; n < out.size(); ++n) {
        const double t = static_cast<double>(n) * step;
        const long long centre = static_cast<long long>(t);
        double sum = 0;
        for (long long k = centre - halfTaps + 1; k <= centre + halfTaps; ++k) {
            if (k < 0 || k >= static_cast<long long>(in.size()))
                continue;
            const double x = t - static_cast<double>(k);
            const double sinc = x == 0 ? 1 : std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
            const double window = 0.5 + 0.5 * std::cos(std::numbers::pi * x / halfTaps);
            sum += in[static_cast<size_t>(k)] * sinc * window;
        }
        out[n] = static_cast<float>(sum);
    }
    return out;
}

std::optional<QString> speak(const Talker &talker, const QString &folder, std::vector<float> *speech)
{
    const QString path
        = folder + QStringLiteral("/") + QString::fromLatin1(talker.voice) + QStringLiteral(".wav");
    QProcess espeak;
    espeak.start(QStringLiteral("espeak-ng"),
        { QStringLiteral("-v"), QString::fromLatin1(talker.voice), QStringLiteral("-w"), path,
            QString::fromUtf8(talker.words) });
    if (!espeak.waitForFinished(60000) || espeak.exitStatus() != QProcess::NormalExit
        || espeak.exitCode() != 0)
        return QStringLiteral("espeak-ng failed: ") + espeak.errorString()
            + QString::fromLocal8Bit(espeak.readAllStandardError());
    int rate = 0;
    *speech = readMono(path, &rate);
    if (speech->empty())
        return QStringLiteral("espeak-ng wrote no audio");
    *speech = resampled(*speech, rate);
    float peak = 0;
    for (float s : *speech)
        peak = std::max(peak, std::abs(s));
    for (float &s : *speech)
        s *= static_cast<float>(talker.peak) / peak;
    return std::nullopt;
}

// What a room does to a sound between the speakers and the microphone: nothing for the
// bulk delay, then the direct sound and a dense tail falling by 60 dB over the
// reverberation time, all scaled to the attenuation.
std::vector<double> impulseResponse(const EchoRoom::Options &options, std::mt19937 &random)
{
    const auto delay = static_cast<size_t>(options.delaySeconds * EchoRoom::rate);
    const auto tail = static_cast<size_t>(options.reverbSeconds * EchoRoom::rate);
    std::vector<double> response(delay + tail, 0.0);
    std::normal_distribution<double> normal;
    response[delay] = 1.0;
    for (size_t n = 1; n < tail; ++n)
        response[delay + n] = 0.05 * normal(random)
            * std::exp(-6.9 * static_cast<double>(n) / (options.reverbSeconds * EchoRoom::rate));
    double energy = 0;
    for (double h : response)
        energy += h * h;
    const double scale = std::sqrt(std::pow(10.0, -options.attenuationDb / 10) / energy);
    for (double &h : response)
        h *= scale;
    return response;
}

void fft(std::vector<std::complex<double>> &a, bool inverse)
{
    const size_t n = a.size();
    for (size_t i = 1, j = 0; i < n; ++i) {
        size_t bit = n >> 1;
        for (; j & bit; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap(a[i], a[j]);
    }
    for (size_t length = 2; length <= n; length <<= 1) {
        const double angle = 2 * std::numbers::pi / static_cast<double>(length) * (inverse ? 1 : -1);
        const std::complex<double> unit(std::cos(angle), std::sin(angle));
        for (size_t i = 0; i < n; i += length) {
            std::complex<double> w(1);
            for (size_t j = 0; j < length / 2; ++j) {
                const std::complex<double> u = a[i + j];
                const std::complex<double> v = a[i + j + length / 2] * w;
                a[i + j] = u + v;
                a[i + j + length / 2] = u - v;
                w *= unit;
            }
        }
    }
}

// Overlap-add convolution: a reverberation of half a second is 24000 taps.
std::vector<double> convolved(const std::vector<float> &signal, const std::vector<double> &response)
{
    size_t size = 1;
    while (size < 2 * response.size())
        size <<= 1;
    const size_t block = size - response.size() + 1;
    std::vector<std::complex<double>> kernel(size);
    std::copy(response.begin(), response.end(), kernel.begin());
    fft(kernel, false);
    std::vector<double> out(signal.size() + response.size(), 0.0);
    std::vector<std::complex<double>> buffer(size);
    for (size_t start = 0; start < signal.size(); start += block) {
        std::fill(buffer.begin(), buffer.end(), 0);
        const size_t n = std::min(block, signal.size() - start);
        std::copy_n(signal.begin() + static_cast<long>(start), n, buffer.begin());
        fft(buffer, false);
        for (size_t i = 0; i < size; ++i)
            buffer[i] *= kernel[i];
        fft(buffer, true);
        for (size_t i = 0; i < size && start + i < out.size(); ++i)
            out[start + i] += buffer[i].real() / static_cast<double>(size);
    }
    out.resize(signal.size());
    return out;
}

// Takes the next `frames` of a talker's speech, reading on from where it stopped.
void readOn(const std::vector<float> &speech, size_t *position, float *out, long long frames)
{
    for (long long i = 0; i < frames; ++i) {
        out[i] = speech[*position];
        *position = (*position + 1) % speech.size();
    }
}

bool writeWav(const QString &path, const std::vector<float> &mono, int channels, int format)
{
    SF_INFO info {};
    info.samplerate = EchoRoom::rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | format;
    SNDFILE *file = sf_open(path.toLocal8Bit().constData(), SFM_WRITE, &info);
    if (!file)
        return false;
    std::vector<float> frames(mono.size() * static_cast<size_t>(channels));
    for (size_t i = 0; i < frames.size(); ++i)
        frames[i] = mono[i / static_cast<size_t>(channels)];
    const auto count = static_cast<sf_count_t>(mono.size());
    const bool written = sf_writef_float(file, frames.data(), count) == count;
    return sf_close(file) == 0 && written;
}

struct Sums
{
    double a = 0, b = 0, ab = 0;
};

} // namespace

std::optional<QString> EchoRoom::make(const Options &options, EchoRoom *room)
{
    QTemporaryDir folder;
    std::vector<float> farSpeech;
    std::vector<float> nearSpeech;
    if (auto error = speak(farTalker, folder.path(), &farSpeech))
        return error;
    if (auto error = speak(nearTalker, folder.path(), &nearSpeech))
        return error;

    const auto frames = static_cast<long long>(options.seconds * rate);
    room->m_speakers.assign(static_cast<size_t>(frames), 0.0f);
    room->m_nearEnd.assign(static_cast<size_t>(frames), 0.0f);
    room->m_spans.clear();
    size_t farPosition = 0;
    size_t nearPosition = 0;
    for (long long at = 0; at < frames;) {
        for (const auto &[segment, seconds] : cycle) {
            const long long end = std::min(frames, at + static_cast<long long>(seconds * rate));
            if (segment == Segment::farEnd || segment == Segment::both)
                readOn(farSpeech, &farPosition, room->m_speakers.data() + at, end - at);
            if (segment == Segment::nearEnd || segment == Segment::both)
                readOn(nearSpeech, &nearPosition, room->m_nearEnd.data() + at, end - at);
            if (end > at)
                room->m_spans.push_back({ segment, at, end });
            at = end;
        }
    }

    std::mt19937 random(options.seed);
    std::vector<double> echo(static_cast<size_t>(frames), 0.0);
    if (options.echo)
        echo = convolved(room->m_speakers, impulseResponse(options, random));
    std::normal_distribution<double> normal;
    const double noise = std::pow(10.0, noiseDb / 20);
    room->m_microphone.resize(static_cast<size_t>(frames));
    for (size_t i = 0; i < room->m_microphone.size(); ++i)
        room->m_microphone[i] = static_cast<float>(room->m_nearEnd[i] + echo[i] + noise * normal(random));
    return std::nullopt;
}

bool EchoRoom::writeSpeakers(const QString &path) const
{
    return writeWav(path, m_speakers, 2, SF_FORMAT_FLOAT);
}

bool EchoRoom::writeMicrophone(const QString &path) const
{
    return writeWav(path, m_microphone, 1, SF_FORMAT_PCM_16);
}

EchoRoom::Figures EchoRoom::measure(const std::vector<float> &output) const
{
    // Sums over the spans of one segment of a against b.
    const auto over = [this, &output](Segment segment, const std::vector<float> &a,
                          const std::vector<float> &b, long long from = 0) {
        Sums sums;
        for (const Span &span : m_spans) {
            if (span.segment != segment)
                continue;
            for (long long i = std::max(span.begin, from);
                 i < std::min(span.end, static_cast<long long>(output.size())); ++i) {
                const double x = a[static_cast<size_t>(i)];
                const double y = b[static_cast<size_t>(i)];
                sums.a += x * x;
                sums.b += y * y;
                sums.ab += x * y;
            }
        }
        return sums;
    };
    Figures figures;
    const Sums far = over(Segment::farEnd, m_microphone, output, 2 * rate);
    figures.erleDb = 10 * std::log10(far.a / far.b);
    const Sums alone = over(Segment::nearEnd, m_microphone, output);
    figures.nearEndChangeDb = 10 * std::log10(alone.b / alone.a);
    figures.nearEndCorrelation = alone.ab / std::sqrt(alone.a * alone.b);
    // The near-end talker's share of the output: the least-squares gain of the output on
    // the talker alone, with and without the far end talking at once.
    const Sums nearAlone = over(Segment::nearEnd, m_nearEnd, output);
    const Sums nearBoth = over(Segment::both, m_nearEnd, output);
    figures.doubleTalkDropDb = 20 * std::log10((nearAlone.ab / nearAlone.a) / (nearBoth.ab / nearBoth.a));
    return figures;
}
