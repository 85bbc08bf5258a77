#include "support/MixerAnalysis.h"

#include <QFile>

#include <sndfile.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <cmath>
#include <memory>
#include <numbers>

namespace MixerAnalysis {

QString writeWav(const QString &path, int sampleRate, const QList<Tone> &channelTones, long long frames,
                 SampleFormat format)
{
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = static_cast<int>(channelTones.size());
    info.format = SF_FORMAT_WAV | (format == SampleFormat::float32 ? SF_FORMAT_FLOAT : SF_FORMAT_PCM_16);
    SNDFILE *file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!file)
        return QString::fromUtf8(sf_strerror(nullptr));
    constexpr long long block = 4000;
    std::vector<float> samples(static_cast<size_t>(block * info.channels));
    for (long long start = 0; start < frames; start += block) {
        const long long count = std::min(block, frames - start);
        for (long long i = 0; i < count; ++i) {
            for (int c = 0; c < info.channels; ++c) {
                const Tone &tone = channelTones[c];
                const double t = static_cast<double>(start + i) / sampleRate;
                const double value = tone.amplitude * std::sin(2 * std::numbers::pi * tone.frequency * t);
                samples[static_cast<size_t>(i * info.channels + c)] = static_cast<float>(tone.inverted ? -value : value);
            }
        }
        if (sf_writef_float(file, samples.data(), count) != count) {
            const QString error = QString::fromUtf8(sf_strerror(file));
            sf_close(file);
            return error;
        }
    }
    sf_close(file);
    return {};
}

namespace {
struct FormatCloser
{
    void operator()(AVFormatContext *c) const { avformat_close_input(&c); }
};
struct CodecFreer
{
    void operator()(AVCodecContext *c) const { avcodec_free_context(&c); }
};
struct FrameFreer
{
    void operator()(AVFrame *f) const { av_frame_free(&f); }
};
struct PacketFreer
{
    void operator()(AVPacket *p) const { av_packet_free(&p); }
};

void collect(const AVFrame *frame, Decoded &out)
{
    const auto *left = reinterpret_cast<const float *>(frame->extended_data[0]);
    out.left.insert(out.left.end(), left, left + frame->nb_samples);
    if (frame->ch_layout.nb_channels > 1) {
        const auto *right = reinterpret_cast<const float *>(frame->extended_data[1]);
        out.right.insert(out.right.end(), right, right + frame->nb_samples);
    }
}
} // namespace

Decoded decode(const QString &path)
{
    Decoded out;
    AVFormatContext *raw = nullptr;
    if (avformat_open_input(&raw, QFile::encodeName(path).constData(), nullptr, nullptr) < 0) {
        out.error = QStringLiteral("cannot open");
        return out;
    }
    std::unique_ptr<AVFormatContext, FormatCloser> format(raw);
    if (avformat_find_stream_info(format.get(), nullptr) < 0 || format->nb_streams != 1) {
        out.error = QStringLiteral("no single stream");
        return out;
    }
    const AVStream *stream = format->streams[0];
    const AVCodecParameters *par = stream->codecpar;
    out.formatName = QString::fromUtf8(format->iformat->name);
    out.codec = QString::fromUtf8(avcodec_get_name(par->codec_id));
    out.sampleRate = par->sample_rate;
    out.channels = par->ch_layout.nb_channels;
    char layout[64] = {};
    av_channel_layout_describe(&par->ch_layout, layout, sizeof layout);
    out.channelLayout = QString::fromUtf8(layout);
    out.bitRate = par->bit_rate;
    out.duration = static_cast<double>(format->duration) / AV_TIME_BASE;

    const AVCodec *codec = avcodec_find_decoder(par->codec_id);
    std::unique_ptr<AVCodecContext, CodecFreer> decoder(avcodec_alloc_context3(codec));
    if (!codec || avcodec_parameters_to_context(decoder.get(), par) < 0 || avcodec_open2(decoder.get(), codec, nullptr) < 0) {
        out.error = QStringLiteral("no decoder");
        return out;
    }
    if (decoder->sample_fmt != AV_SAMPLE_FMT_FLTP) {
        out.error = QStringLiteral("unexpected sample format");
        return out;
    }
    std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
    std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
    const auto drain = [&] {
        while (avcodec_receive_frame(decoder.get(), frame.get()) >= 0) {
            collect(frame.get(), out);
            av_frame_unref(frame.get());
        }
    };
    while (av_read_frame(format.get(), packet.get()) >= 0) {
        const int rc = avcodec_send_packet(decoder.get(), packet.get());
        av_packet_unref(packet.get());
        if (rc < 0) {
            out.error = QStringLiteral("decoding failed");
            return out;
        }
        drain();
    }
    avcodec_send_packet(decoder.get(), nullptr);
    drain();
    return out;
}

double toneAmplitude(const std::vector<float> &samples, long long from, long long to, double frequency,
                     int sampleRate)
{
    to = std::min<long long>(to, static_cast<long long>(samples.size()));
    if (to <= from)
        return 0;
    const double coefficient = 2 * std::cos(2 * std::numbers::pi * frequency / sampleRate);
    double s1 = 0;
    double s2 = 0;
    for (long long i = from; i < to; ++i) {
        const double s0 = samples[static_cast<size_t>(i)] + coefficient * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    const double power = s1 * s1 + s2 * s2 - coefficient * s1 * s2;
    return 2 * std::sqrt(std::max(power, 0.0)) / static_cast<double>(to - from);
}

double rms(const std::vector<float> &samples, long long from, long long to)
{
    to = std::min<long long>(to, static_cast<long long>(samples.size()));
    if (to <= from)
        return 0;
    double sum = 0;
    for (long long i = from; i < to; ++i)
        sum += static_cast<double>(samples[static_cast<size_t>(i)]) * samples[static_cast<size_t>(i)];
    return std::sqrt(sum / static_cast<double>(to - from));
}

QStringList topLevelBoxes(const QString &path)
{
    QStringList boxes;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return boxes;
    qint64 at = 0;
    while (at + 8 <= file.size()) {
        file.seek(at);
        const QByteArray header = file.read(16);
        if (header.size() < 8)
            break;
        const auto byte = [&header](int i) { return static_cast<quint64>(static_cast<quint8>(header[i])); };
        quint64 size = (byte(0) << 24) | (byte(1) << 16) | (byte(2) << 8) | byte(3);
        if (size == 1 && header.size() == 16) {
            size = 0;
            for (int i = 8; i < 16; ++i)
                size = (size << 8) | byte(i);
        } else if (size == 0) {
            size = static_cast<quint64>(file.size() - at);
        }
        boxes.append(QString::fromLatin1(header.mid(4, 4)));
        if (size < 8)
            break;
        at += static_cast<qint64>(size);
    }
    return boxes;
}

} // namespace MixerAnalysis
