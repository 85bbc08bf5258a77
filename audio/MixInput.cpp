#include "audio/MixInput.h"

#include "audio/DecimalText.h"
#include "common/Logging.h"

#include <QFile>

#include <algorithm>

MixInput::MixInput(QString path)
    : m_path(std::move(path))
    , m_handle(sf_open(QFile::encodeName(m_path).constData(), SFM_READ, &m_info))
{ }

MixInput::~MixInput()
{
    close();
}

void MixInput::close()
{
    if (m_handle)
        sf_close(m_handle);
    m_handle = nullptr;
}

QString MixInput::describe(const QString &label) const
{
    return label + QString::number(frames()) + QStringLiteral(" frames, ") + QString::number(channels())
        + QStringLiteral(" channels, ") + DecimalText::shortest(sampleRate()) + QStringLiteral(" Hz");
}

bool MixInput::refresh()
{
    close();
    SF_INFO info {};
    m_handle = sf_open(QFile::encodeName(m_path).constData(), SFM_READ, &info);
    // The container may change under the reader (the writer starts an RF64 file and
    // rewrites it as a plain WAV), the samples may not once any has been read.
    const bool same = m_position == 0
        || (info.channels == m_info.channels && info.samplerate == m_info.samplerate
            && (info.format & SF_FORMAT_SUBMASK) == (m_info.format & SF_FORMAT_SUBMASK));
    if (m_handle && same && info.frames >= m_position
        && sf_seek(m_handle, m_position, SEEK_SET) == m_position) {
        m_info = info;
        return true;
    }
    qCDebug(lcMixer, "%s cannot be read yet: %s", qPrintable(m_path), sf_strerror(m_handle));
    close();
    return false;
}

void MixInput::allocateBuffer(int capacityFrames)
{
    m_capacity = capacityFrames;
    m_samples.assign(static_cast<size_t>(capacityFrames) * static_cast<size_t>(channels()), 0.0f);
}

bool MixInput::rewind()
{
    m_position = 0;
    return sf_seek(m_handle, 0, SEEK_SET) == 0;
}

bool MixInput::readChunk(QString *error)
{
    m_chunkFrames = 0;
    if (m_position >= frames())
        return true;
    const sf_count_t wanted = std::min<sf_count_t>(m_capacity, frames() - m_position);
    const sf_count_t got = sf_readf_float(m_handle, m_samples.data(), wanted);
    if (got <= 0) {
        *error = sf_error(m_handle) != SF_ERR_NO_ERROR
            ? QString::fromUtf8(sf_strerror(m_handle))
            : QStringLiteral("the file ended after %1 of %2 frames").arg(m_position).arg(frames());
        return false;
    }
    m_chunkFrames = static_cast<int>(got);
    m_position += got;
    return true;
}
