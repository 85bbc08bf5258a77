#pragma once

#include <QString>

#include <cstdint>

struct AVAudioFifo;
struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct AVStream;

// Writes planar stereo float samples as AAC (FFmpeg's native "aac" encoder, 48000 Hz,
// 2 channels, stereo layout, 192 kbit/s) into an M4A file whose index sits at the front
// (MP4 muxer, "+faststart"), so the file can be streamed as soon as it is uploaded.
//
// The encoder only ever sees whole 1024-sample frames, except the very last one: FFmpeg's
// aac encoder zero-pads a short frame in mid-stream without complaint, which would put a
// gap into the sound wherever a caller hands over a chunk that is not a multiple of the
// frame size. So appended samples go through an audio FIFO first.
//
// The life of one writer: construct → startWriting() → append()… → finishWriting(),
// mirroring the status values of the writer it replaces (unknown, writing, completed,
// failed). Memory stays bounded by one chunk plus one frame whatever the length.
//
// Thread contract: not thread-safe; one thread at a time (the mixer's worker).
class M4aWriter
{
public:
    static constexpr int sampleRate = 48000;
    static constexpr int channelCount = 2;
    static constexpr std::int64_t bitRate = 192000;

    // The numbers are those the transcript reports ("Writer failed with status 3").
    enum class Status { unknown = 0, writing = 1, completed = 2, failed = 3 };

    // Sets up the encoder and the muxer for `path`; the file is not touched yet.
    // Throws DualRecorderError with FFmpeg's own text when that is impossible.
    explicit M4aWriter(const QString &path);
    ~M4aWriter();
    M4aWriter(const M4aWriter &) = delete;
    M4aWriter &operator=(const M4aWriter &) = delete;

    // Creates the file and writes its header. False (status failed) when it cannot.
    [[nodiscard]] bool startWriting();

    // Queues `frames` samples of each channel. False when the queue cannot take them
    // (out of memory); the status is left as it is.
    [[nodiscard]] bool enqueue(const float *left, const float *right, int frames);
    // Encodes every whole frame waiting in the queue. False (status failed) when the
    // encoder or the muxer refuses.
    [[nodiscard]] bool encodeQueued();

    // Encodes what is left (the one short frame), drains the encoder, writes the index
    // to the front of the file and closes it. Status completed or failed afterwards.
    void finishWriting();

    [[nodiscard]] Status status() const { return m_status; }
    // FFmpeg's description of the failure that set status failed; empty otherwise.
    [[nodiscard]] QString errorText() const { return m_error; }

private:
    bool encodeFrames(int minimumFrameSize);
    bool send(const AVFrame *frame);
    bool fail(const char *what, int averror);
    void closeFile();

    QString m_url;
    AVFormatContext *m_format = nullptr;
    AVCodecContext *m_encoder = nullptr;
    AVStream *m_stream = nullptr;
    AVAudioFifo *m_fifo = nullptr;
    AVFrame *m_frame = nullptr;
    AVPacket *m_packet = nullptr;
    std::int64_t m_samplesSent = 0;
    Status m_status = Status::unknown;
    QString m_error;
};
