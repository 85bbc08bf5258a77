#include "support/MixerAnalysis.h"

#include <QFile>

#include <sndfile.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cmath>
#include <numbers>

namespace MixerAnalysis {

QString writeWav(const QString &path, int sampleRate, const QList<Tone> &channelTones, long long frames)
{
    SF_INFO info {};
    info.samplerate = sampleRate;
    info.channels = static_cast<int>(channelTones.size());
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE *file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!file)
        return QString::fromUtf8(sf_strerror(nullptr));
    std::vector<float> samples(static_cast<size_t>(frames * info.channels));
    for (size_t i = 0; i < samples.size(); ++i) {
        const Tone &tone = channelTones[static_cast<int>(i % static_cast<size_t>(info.channels))];
        const double t = static_cast<double>(i / static_cast<size_t>(info.channels)) / sampleRate;
        samples[i] = static_cast<float>(tone.amplitude * std::sin(2 * std::numbers::pi * tone.frequency * t));
    }
    const bool complete = sf_writef_float(file, samples.data(), frames) == frames;
    const QString error = complete ? QString() : QString::fromUtf8(sf_strerror(file));
    sf_close(file);
    return error;
}

Decoded decode(const QString &path)
{
    Decoded out;
    AVFormatContext *format = nullptr;
    if (avformat_open_input(&format, QFile::encodeName(path).constData(), nullptr, nullptr) < 0) {
        out.error = QStringLiteral("cannot open");
        return out;
    }
    AVCodecContext *decoder = nullptr;
    AVPacket *packet = av_packet_alloc();
    AVFrame *frame = av_frame_alloc();
    const auto fail = [&](const char *why) { out.error = QString::fromUtf8(why); };
    if (avformat_find_stream_info(format, nullptr) < 0 || format->nb_streams != 1) {
        fail("no single stream");
    } else {
        const AVCodecParameters *par = format->streams[0]->codecpar;
        out.codec = QString::fromUtf8(avcodec_get_name(par->codec_id));
        out.sampleRate = par->sample_rate;
        char layout[64] = {};
        av_channel_layout_describe(&par->ch_layout, layout, sizeof layout);
        out.channelLayout = QString::fromUtf8(layout);
        out.bitRate = par->bit_rate;
        out.duration = static_cast<double>(format->duration) / AV_TIME_BASE;
        const AVCodec *codec = avcodec_find_decoder(par->codec_id);
        decoder = avcodec_alloc_context3(codec);
        if (!codec || avcodec_parameters_to_context(decoder, par) < 0
            || avcodec_open2(decoder, codec, nullptr) < 0 || decoder->sample_fmt != AV_SAMPLE_FMT_FLTP)
            fail("no planar float decoder");
    }
    // A null packet at the end drains the decoder.
    for (bool more = out.error.isEmpty(); more;) {
        more = av_read_frame(format, packet) >= 0;
        const int rc = avcodec_send_packet(decoder, more ? packet : nullptr);
        av_packet_unref(packet);
        if (rc < 0) {
            fail("decoding failed");
            break;
        }
        while (avcodec_receive_frame(decoder, frame) >= 0) {
            for (int c = 0; c < std::min(frame->ch_layout.nb_channels, 2); ++c) {
                const auto *plane = reinterpret_cast<const float *>(frame->extended_data[c]);
                (c == 0 ? out.left : out.right)
                    .insert((c == 0 ? out.left : out.right).end(), plane, plane + frame->nb_samples);
            }
            av_frame_unref(frame);
        }
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
    avformat_close_input(&format);
    return out;
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace MixerAnalysis
