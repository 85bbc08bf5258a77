#pragma once

#include <QString>

#include <sndfile.h>

#include <vector>

// One input of the mix: a WAV file read as float, whatever its stored sample width, one
// chunk at a time into a buffer allocated once.
//
// The file may still be growing: its writer rewrites the header every half second of audio, so
// reopening it (refresh()) learns how far it has got. A size read from a header caught
// in mid-rewrite can only claim more than the file holds, and libsndfile then counts
// what the file holds, and the file's length only ever covers bytes already written: so
// the frames counted are always frames on disk. A header that does not parse at all
// (its first rewrite turns the RF64 tag into RIFF) just fails that one reopen.
//
// Thread contract: not thread-safe; one thread at a time (the mixer's worker).
class MixInput
{
public:
    explicit MixInput(QString path);
    ~MixInput();
    MixInput(const MixInput &) = delete;
    MixInput &operator=(const MixInput &) = delete;

    [[nodiscard]] bool isOpen() const { return m_handle != nullptr; }
    // As far as the file went when it was last opened.
    [[nodiscard]] sf_count_t frames() const { return m_info.frames; }
    [[nodiscard]] int channels() const { return m_info.channels; }
    [[nodiscard]] int sampleRate() const { return m_info.samplerate; }
    [[nodiscard]] sf_count_t unread() const { return frames() - m_position; }

    // "<label>N frames, C channels, R Hz", the transcript's description of the file.
    [[nodiscard]] QString describe(const QString &label) const;

    // Reopens the file to see how far it has grown, keeping the read position. False
    // when it cannot be opened again (a header caught in mid-rewrite) or no longer holds
    // the same samples; then it stays closed, counting what it counted before, and a
    // later refresh() may succeed.
    [[nodiscard]] bool refresh();

    // Throws std::bad_alloc.
    void allocateBuffer(int capacityFrames);
    [[nodiscard]] bool rewind();

    // Reads the next chunk (nothing once the file is exhausted). False on a read error,
    // described in `error`.
    [[nodiscard]] bool readChunk(QString *error);

    [[nodiscard]] int chunkFrames() const { return m_chunkFrames; }
    // Interleaved: frame i of channel c is at i * channels() + c.
    [[nodiscard]] const float *samples() const { return m_samples.data(); }

private:
    void close();

    const QString m_path;
    SF_INFO m_info {};
    SNDFILE *m_handle = nullptr;
    std::vector<float> m_samples;
    int m_capacity = 0;
    sf_count_t m_position = 0;
    int m_chunkFrames = 0;
};
