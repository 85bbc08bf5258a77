#pragma once

#include "common/Repeater.h"
#include "recording/SystemAudioSource.h"

#include <QObject>
#include <QString>

#include <chrono>
#include <memory>
#include <optional>

class Clock;
class RecordingCapture;

// The live levels of a recording's two sources and the silent-source hint, read
// from its capture 25 times a second while it records.
//
// A source that only ever sends zeros (or nothing) while the other is heard is more
// likely a fault than a quiet moment: a quiet room or a pause in a call still carries
// noise, and both sides are rarely digitally silent for long at once. So "silent" is
// a level of exactly 0, and only recorded time counts toward the hint: a pause
// neither adds to it nor clears it.
//
// Thread contract: main thread only; the reads run on the clock through a Repeater.
class LevelWatch : public QObject
{
    Q_OBJECT
    Q_PROPERTY(double systemLevel READ systemLevel NOTIFY systemLevelChanged)
    Q_PROPERTY(double microphoneLevel READ microphoneLevel NOTIFY microphoneLevelChanged)
    Q_PROPERTY(QString silenceHint READ silenceHint NOTIFY silenceHintChanged)

public:
    // Lively meters, and never more than 30 changes a second.
    static constexpr std::chrono::milliseconds interval { 40 };
    // How long one source may stay silent while the other is heard before the
    // screen says so (see docs/screens.md for why this long).
    static constexpr std::chrono::seconds hintAfter { 30 };
    // How long a chosen application may play nothing before the screen says so, the
    // microphone heard or not: no silent fallback to all apps, so the user must know.
    static constexpr std::chrono::seconds applicationHintAfter { 15 };

    explicit LevelWatch(std::shared_ptr<Clock> clock, QObject *parent = nullptr);

    // The loudest sample of each source in the last read, 0..1 of full scale; 0 when
    // not watching. Frozen while paused.
    [[nodiscard]] double systemLevel() const { return m_systemLevel; }
    [[nodiscard]] double microphoneLevel() const { return m_microphoneLevel; }
    // The status line's sentence while the microphone has no input left, or while one
    // source has been digital silence for hintAfter of recording while the other was
    // heard; empty otherwise.
    [[nodiscard]] QString silenceHint() const { return m_silenceHint; }

    // Starts reading `capture`'s levels, from silence and no hint.
    void watch(std::shared_ptr<RecordingCapture> capture);
    // Stops and starts counting recorded time; the levels stay as they are.
    void pause();
    void resume();
    // Stops reading: both levels 0, no hint.
    void stop();
    // The application system audio comes from (its name), or none for all apps.
    void setApplication(const SystemAudioSource::Entry &chosen);
    // Fixed levels for a snapshot.
    void show(double system, double microphone);

Q_SIGNALS:
    void systemLevelChanged();
    void microphoneLevelChanged();
    void silenceHintChanged();

private:
    void read();

    std::shared_ptr<Clock> m_clock;
    Repeater m_reads;
    std::shared_ptr<RecordingCapture> m_capture;
    double m_systemLevel = 0;
    double m_microphoneLevel = 0;
    QString m_silenceHint;
    QString m_application; // empty: all apps
    // Recording time each source has been silent for, up to the last read; no last
    // read while paused.
    std::chrono::steady_clock::duration m_systemQuiet {};
    std::chrono::steady_clock::duration m_microphoneQuiet {};
    std::optional<std::chrono::steady_clock::time_point> m_lastRead;
};
