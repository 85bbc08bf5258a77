#include "audio/M4aWriter.h"

#include "audio/DualRecorderError.h"
#include "audio/RecordingsFolder.h"

#include <QFileInfo>

#include <cerrno>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

namespace {

QString averrorText(int averror)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(averror, text, sizeof text);
    return QString::fromUtf8(text);
}

// Set-up failures are the platform's own errors: FFmpeg's text, passed on as it is.
[[noreturn]] void throwSetupError(const char *what, int averror)
{
    throw DualRecorderError::custom(QString::fromUtf8(what) + QStringLiteral(": ") + averrorText(averror));
}

// The FIFO holds at most one appended chunk plus a frame that did not fill; it grows on
// demand, so this is only the starting size.
constexpr int initialFifoFrames = 8192;

} // namespace

M4aWriter::M4aWriter(const QString &path)
    // "file:" keeps FFmpeg from reading a protocol into a name with a colon; the MP4
    // muxer reopens this URL to move the index to the front.
    : m_url(QStringLiteral("file:") + QFileInfo(path).absoluteFilePath())
{
    // FFmpeg's informational lines ("Qavg", "moving the moov atom") would go to standard
    // error on every recording; failures reach the transcript through errorText().
    if (av_log_get_level() > AV_LOG_WARNING)
        av_log_set_level(AV_LOG_WARNING);

    const QByteArray url = m_url.toUtf8();
    // "ipod" is the MP4 muxer with the M4A brand, the one FFmpeg picks for ".m4a".
    int rc = avformat_alloc_output_context2(&m_format, nullptr, "ipod", url.constData());
    if (rc < 0 || !m_format)
        throwSetupError("Could not create the M4A muxer", rc < 0 ? rc : AVERROR(ENOMEM));

    const AVCodec *codec = avcodec_find_encoder_by_name("aac");
    if (!codec)
        throwSetupError("No AAC encoder", AVERROR_ENCODER_NOT_FOUND);
    m_encoder = avcodec_alloc_context3(codec);
    if (!m_encoder)
        throwSetupError("Could not create the AAC encoder", AVERROR(ENOMEM));
    m_encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    m_encoder->sample_rate = sampleRate;
    av_channel_layout_default(&m_encoder->ch_layout, channelCount);
    m_encoder->bit_rate = bitRate;
    m_encoder->time_base = AVRational { 1, sampleRate };
    if (m_format->oformat->flags & AVFMT_GLOBALHEADER)
        m_encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // The "fast" scale-factor search, not the "twoloop" default: at this bit rate it
    // sounds as good (FFmpeg's own judgement, which made it the default for a while)
    // for half the processor time, and the live mix runs during every recording.
    AVDictionary *options = nullptr;
    av_dict_set(&options, "aac_coder", "fast", 0);
    rc = avcodec_open2(m_encoder, codec, &options);
    av_dict_free(&options);
    if (rc < 0)
        throwSetupError("Could not open the AAC encoder", rc);

    m_stream = avformat_new_stream(m_format, nullptr);
    if (!m_stream)
        throwSetupError("Could not add the audio track", AVERROR(ENOMEM));
    m_stream->time_base = m_encoder->time_base;
    rc = avcodec_parameters_from_context(m_stream->codecpar, m_encoder);
    if (rc < 0)
        throwSetupError("Could not describe the audio track", rc);

    m_fifo = av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, channelCount, initialFifoFrames);
    m_frame = av_frame_alloc();
    m_packet = av_packet_alloc();
    if (!m_fifo || !m_frame || !m_packet)
        throwSetupError("Could not create the encoder's buffers", AVERROR(ENOMEM));
    m_frame->format = m_encoder->sample_fmt;
    m_frame->sample_rate = sampleRate;
    m_frame->nb_samples = m_encoder->frame_size;
    rc = av_channel_layout_copy(&m_frame->ch_layout, &m_encoder->ch_layout);
    if (rc >= 0)
        rc = av_frame_get_buffer(m_frame, 0);
    if (rc < 0)
        throwSetupError("Could not create the encoder's buffers", rc);
}

M4aWriter::~M4aWriter()
{
    closeFile();
    av_packet_free(&m_packet);
    av_frame_free(&m_frame);
    if (m_fifo)
        av_audio_fifo_free(m_fifo);
    avcodec_free_context(&m_encoder);
    avformat_free_context(m_format);
}

bool M4aWriter::startWriting()
{
    if (m_status != Status::unknown)
        return false;
    // Made private before FFmpeg opens it: avio would create it with the umask's mode,
    // and the +faststart rewrite keeps to the same file.
    const int descriptor = RecordingsFolder::createPrivateFile(m_url.mid(5));
    if (descriptor < 0)
        return fail("Could not create the file", AVERROR(errno));
    ::close(descriptor);
    const QByteArray url = m_url.toUtf8();
    int rc = avio_open(&m_format->pb, url.constData(), AVIO_FLAG_WRITE);
    if (rc < 0)
        return fail("Could not create the file", rc);
    AVDictionary *options = nullptr;
    av_dict_set(&options, "movflags", "+faststart", 0);
    rc = avformat_write_header(m_format, &options);
    av_dict_free(&options);
    if (rc < 0)
        return fail("Could not write the file header", rc);
    m_status = Status::writing;
    return true;
}

bool M4aWriter::enqueue(const float *left, const float *right, int frames)
{
    // FFmpeg's FIFO API takes non-const plane pointers but only reads through them.
    void *planes[channelCount] = { const_cast<float *>(left), const_cast<float *>(right) };
    return av_audio_fifo_write(m_fifo, planes, frames) == frames;
}

bool M4aWriter::encodeQueued()
{
    if (m_status != Status::writing)
        return false;
    return encodeFrames(m_encoder->frame_size);
}

void M4aWriter::finishWriting()
{
    if (m_status == Status::writing) {
        // Only here may a frame be short: the encoder marks it as the end of the stream.
        if (encodeFrames(1) && send(nullptr)) {
            const int rc = av_write_trailer(m_format);
            if (rc < 0)
                fail("Could not finish the file", rc);
        }
    }
    closeFile();
    if (m_status == Status::writing)
        m_status = Status::completed;
}

bool M4aWriter::encodeFrames(int minimumFrameSize)
{
    for (;;) {
        const int available = av_audio_fifo_size(m_fifo);
        const int count = std::min(available, m_encoder->frame_size);
        if (count < minimumFrameSize || count == 0)
            return true;
        // The encoder may still hold a reference to the previous frame's buffer.
        int rc = av_frame_make_writable(m_frame);
        if (rc < 0)
            return fail("Could not prepare an audio frame", rc);
        m_frame->nb_samples = count;
        if (av_audio_fifo_read(m_fifo, reinterpret_cast<void **>(m_frame->data), count) != count)
            return fail("Could not read the sample queue", AVERROR_BUG);
        m_frame->pts = m_samplesSent;
        m_samplesSent += count;
        if (!send(m_frame))
            return false;
    }
}

bool M4aWriter::send(const AVFrame *frame)
{
    int rc = avcodec_send_frame(m_encoder, frame);
    if (rc < 0)
        return fail("The AAC encoder refused a frame", rc);
    for (;;) {
        rc = avcodec_receive_packet(m_encoder, m_packet);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
            return true;
        if (rc < 0)
            return fail("The AAC encoder failed", rc);
        av_packet_rescale_ts(m_packet, m_encoder->time_base, m_stream->time_base);
        m_packet->stream_index = m_stream->index;
        // Takes the packet's data and leaves the packet blank for the next one.
        rc = av_interleaved_write_frame(m_format, m_packet);
        if (rc < 0)
            return fail("Could not write to the file", rc);
    }
}

bool M4aWriter::fail(const char *what, int averror)
{
    m_status = Status::failed;
    m_error = QString::fromUtf8(what) + QStringLiteral(": ") + averrorText(averror);
    return false;
}

void M4aWriter::closeFile()
{
    if (m_format && m_format->pb)
        avio_closep(&m_format->pb);
}
