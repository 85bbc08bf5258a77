#include "recording/LevelWatch.h"

#include "audio/RecordingCapture.h"
#include "common/Clock.h"
#include "common/Observable.h"

LevelWatch::LevelWatch(std::shared_ptr<Clock> clock, QObject *parent)
    : QObject(parent)
    , m_clock(clock)
    , m_reads(std::move(clock))
{ }

void LevelWatch::watch(std::shared_ptr<RecordingCapture> capture)
{
    stop();
    m_capture = std::move(capture);
    m_lastRead = m_clock->monotonicNow();
    m_reads.start(interval, [this] {
        read();
        return true;
    });
}

void LevelWatch::pause()
{
    m_lastRead.reset();
}

void LevelWatch::resume()
{
    if (m_capture)
        m_lastRead = m_clock->monotonicNow();
}

void LevelWatch::stop()
{
    m_reads.stop();
    m_capture.reset();
    m_systemQuiet = m_microphoneQuiet = {};
    m_lastRead.reset();
    show(0, 0);
    setIfChanged(m_silenceHint, QString(), this, &LevelWatch::silenceHintChanged);
}

void LevelWatch::setApplication(const SystemAudioSource::Entry &chosen)
{
    m_application = chosen.binary.isEmpty() ? QString() : chosen.name;
}

void LevelWatch::show(double system, double microphone)
{
    setIfChanged(m_systemLevel, system, this, &LevelWatch::systemLevelChanged);
    setIfChanged(m_microphoneLevel, microphone, this, &LevelWatch::microphoneLevelChanged);
}

void LevelWatch::read()
{
    // Paused: the levels stay where they were.
    if (!m_capture || !m_lastRead)
        return;
    const RecordingCapture::Levels levels = m_capture->takeLevels();
    const auto now = m_clock->monotonicNow();
    const auto span = now - *m_lastRead;
    m_lastRead = now;
    m_systemQuiet = levels.systemAudio > 0 ? std::chrono::steady_clock::duration {} : m_systemQuiet + span;
    m_microphoneQuiet
        = levels.microphone > 0 ? std::chrono::steady_clock::duration {} : m_microphoneQuiet + span;
    show(levels.systemAudio, levels.microphone);
    QString hint;
    if (levels.microphoneMissing)
        hint = tr("The microphone was disconnected.");
    else if (m_systemQuiet >= hintAfter && m_microphoneQuiet < m_systemQuiet)
        hint = tr("Nothing heard from the other apps yet.");
    else if (m_microphoneQuiet >= hintAfter && m_systemQuiet < m_microphoneQuiet)
        hint = tr("Nothing heard from the microphone yet.");
    if (!m_application.isEmpty() && m_systemQuiet >= applicationHintAfter)
        hint = tr("Nothing heard from %1 yet.").arg(m_application);
    setIfChanged(m_silenceHint, hint, this, &LevelWatch::silenceHintChanged);
}
