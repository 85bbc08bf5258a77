#include "audio/CaptureTimeline.h"

#include <algorithm>
#include <cstring>

CaptureTimeline::CaptureTimeline(int rate, int bytesPerFrame, const QLoggingCategory &category, Sink sink)
    : m_rate(rate)
    , m_bytesPerFrame(bytesPerFrame)
    , m_category(category)
    , m_sink(std::move(sink))
{ }

void CaptureTimeline::start(Clock::time_point now)
{
    m_start = now;
}

void CaptureTimeline::setOrigin(Clock::time_point origin)
{
    // Once a block is placed the track is set; the first block comes tens of
    // milliseconds after the start at the soonest.
    if (!m_sawFirstBlock && origin < m_start)
        m_start = origin;
}

void CaptureTimeline::suspend(Clock::time_point now)
{
    if (m_suspended)
        return;
    m_suspended = true;
    m_suspendedAt = now;
}

void CaptureTimeline::resume(Clock::time_point now)
{
    if (!m_suspended)
        return;
    m_suspended = false;
    m_suspendedTotal += now - m_suspendedAt;
}

Capture::Counters CaptureTimeline::counters() const
{
    return { m_framesReceived.load(), m_framesOfSilence.load(), m_framesAbsorbed.load(),
        m_framesBeforeFirstBlock.load() };
}

qint64 CaptureTimeline::framesOf(std::chrono::milliseconds span) const
{
    return m_rate * span.count() / 1000;
}

qint64 CaptureTimeline::expectedFrames(Clock::time_point now) const
{
    Clock::duration running = now - m_start - m_suspendedTotal;
    if (m_suspended)
        running -= now - m_suspendedAt;
    return static_cast<qint64>(std::chrono::duration<double>(running).count() * m_rate);
}

void CaptureTimeline::place(const void *data, qint64 frames, Clock::time_point heardAt)
{
    m_framesReceived.fetch_add(static_cast<quint64>(frames), std::memory_order_relaxed);
    if (m_finished || m_suspended) {
        m_framesAbsorbed.fetch_add(static_cast<quint64>(frames), std::memory_order_relaxed);
        return;
    }
    const qint64 expected = expectedFrames(heardAt);
    if (!m_sawFirstBlock) {
        m_sawFirstBlock = true;
        m_framesBeforeFirstBlock.store(static_cast<quint64>(std::max<qint64>(expected, 0)));
        qCDebug(m_category) << "First audio" << expected * 1000 / m_rate
                            << "ms after the start; the wait is silence";
        fillUpTo(expected - frames);
    } else if (m_gapAt >= 0 || expected - frames - m_written > framesOf(gapAfter)) {
        // After a gap tick() has filled only up to a little before the present: the
        // block that ends it is placed where it was heard, not right after that silence.
        fillUpTo(expected - frames);
    }
    endGap();

    const qint64 ahead = m_written + frames - expected;
    qint64 skip = 0;
    if (ahead > framesOf(gapAfter)) {
        skip = std::min(ahead, frames); // late audio for time already written
    } else if (ahead > framesOf(aheadAllowed)) {
        m_aheadSinceThinned += frames;
        skip = std::min(ahead - framesOf(aheadAllowed), m_aheadSinceThinned / absorbStride);
        m_aheadSinceThinned -= skip * absorbStride;
    } else {
        m_aheadSinceThinned = 0;
    }
    if (skip <= 0) {
        write(data, frames);
        return;
    }
    m_framesAbsorbed.fetch_add(static_cast<quint64>(skip), std::memory_order_relaxed);
    if (ahead > framesOf(gapAfter) || !data || frames <= skip) {
        if (frames > skip)
            write(data ? static_cast<const char *>(data) + skip * m_bytesPerFrame : nullptr, frames - skip);
        return;
    }
    thin(data, frames, skip);
}

void CaptureTimeline::thin(const void *data, qint64 frames, qint64 skip)
{
    // One frame out of every stretch of the block, spread so that no step is heard.
    const qint64 stretch = frames / skip;
    m_thinned.resize(static_cast<size_t>((frames - skip) * m_bytesPerFrame));
    const auto *from = static_cast<const char *>(data);
    char *to = m_thinned.data();
    for (qint64 i = 0; i < skip; ++i) {
        const qint64 kept = (i + 1 == skip ? frames - i * stretch : stretch) - 1;
        std::memcpy(
            to, from + (i * stretch + 1) * m_bytesPerFrame, static_cast<size_t>(kept * m_bytesPerFrame));
        to += kept * m_bytesPerFrame;
    }
    write(m_thinned.data(), frames - skip);
}

void CaptureTimeline::tick(Clock::time_point now)
{
    const qint64 behind = expectedFrames(now) - m_written;
    if (!m_suspended && !m_finished && behind > framesOf(gapAfter + blockDuration))
        fillUpTo(m_written + behind - framesOf(blockDuration));
}

void CaptureTimeline::finish(Clock::time_point now)
{
    if (m_finished)
        return;
    fillUpTo(expectedFrames(now));
    endGap();
    m_finished = true;
}

void CaptureTimeline::fillUpTo(qint64 target)
{
    const qint64 missing = target - m_written;
    if (missing <= 0)
        return;
    if (m_gapAt < 0)
        m_gapAt = m_written;
    m_gapFrames += missing;
    m_framesOfSilence.fetch_add(static_cast<quint64>(missing), std::memory_order_relaxed);
    write(nullptr, missing);
}

void CaptureTimeline::endGap()
{
    if (m_gapAt < 0)
        return;
    // One line per gap however many ticks filled it; the start's wait is a gap too,
    // at 0 s. The last few milliseconds before a stop are no news.
    if (m_gapFrames >= framesOf(gapAfter))
        qCInfo(m_category).noquote() << QStringLiteral("Filled %1 ms without audio at %2 s with silence")
                                            .arg(m_gapFrames * 1000 / m_rate)
                                            .arg(static_cast<double>(m_gapAt) / m_rate, 0, 'f', 3);
    m_gapAt = -1;
    m_gapFrames = 0;
}

void CaptureTimeline::write(const void *data, qint64 frames)
{
    m_written += frames;
    m_sink(data, frames);
}
