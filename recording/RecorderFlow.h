#pragma once

#include "recording/RecorderPlatform.h"
#include "recording/RecorderState.h"
#include "recording/RecordingSidecar.h"
#include "recording/SendPipeline.h"
#include "service/SelvaroAPI.h"

#include <QDateTime>
#include <QObject>
#include <QPointer>

#include <qcoro/qcorotask.h>

#include <chrono>
#include <memory>
#include <optional>

class SessionStore;

// The recorder's model: one recording from the record button to the note at the
// service. It keeps the state the recorder screen draws, the two permissions, the
// recorded time across pauses and a half-second display clock; it drives the
// recording's capture and, on save(), stops it and hands the mixed file to its
// SendPipeline, whose progress and outcome it turns into states.
//
//   idle/sent/failed --record()--> recording <--pause()/resume()--> paused
//   recording/paused --save()--> saving(…) --> sent | failed(message)
//   failed --retrySend()--> saving(…)        any --discard()--> idle
//
// Every observed field changes through the one change filter: a notification always
// carries news, so the ticker and repeated permission reads do not redraw the screen
// when nothing changed. The screen's choices are properties here too (isLive,
// showsPermissions, systemAudioStepEnabled, canRetrySend), derived from the state and
// the permissions; they are brought up to date before the change of their source is
// announced, so whoever observes the source reads them current.
//
// A recording is never lost by anything but discard(): a file that stops taking audio
// stops the recording (failed, its part kept for "Send again"), a failed mix keeps the
// captures ("Send again" mixes again), and what a quit, a crash or a failed send left
// in the folder is offered again by offerUnsent(), oldest first, one after the other.
// Each recording's sidecar (RecordingSidecar) says how far it got.
//
// Deliberate behaviours that look odd:
// - discard() does not cancel a send under way: the state goes to idle at once and
//   the send later overwrites it with its own outcome; what the send leaves stays in
//   the folder, to be offered again.
// - a record() that fails to start after a failed send keeps the earlier recording,
//   so "Send again" still sends it. A record() that starts lets it go from the screen
//   but not from the folder: it is offered again once the new one is sent.
//
// Thread contract: main thread only. The tasks it starts (ticker, permission poll,
// send) resume on the main thread and hold the flow through a QPointer, so the flow
// may be destroyed at any time; a send in flight keeps its capture and file alive by
// itself and stops at its next step.
class RecorderFlow : public QObject
{
    Q_OBJECT
    Q_PROPERTY(RecorderState state READ state NOTIFY stateChanged)
    Q_PROPERTY(double elapsed READ elapsed NOTIFY elapsedChanged)
    Q_PROPERTY(double displayedElapsed READ displayedElapsed NOTIFY displayedElapsedChanged)
    Q_PROPERTY(Permission microphone READ microphone NOTIFY microphoneChanged)
    Q_PROPERTY(Permission systemAudio READ systemAudio NOTIFY systemAudioChanged)
    Q_PROPERTY(bool canRetrySend READ canRetrySend NOTIFY canRetrySendChanged)
    Q_PROPERTY(bool isLive READ isLive NOTIFY isLiveChanged)
    Q_PROPERTY(bool showsPermissions READ showsPermissions NOTIFY showsPermissionsChanged)
    Q_PROPERTY(bool systemAudioStepEnabled READ systemAudioStepEnabled NOTIFY systemAudioStepEnabledChanged)
    Q_PROPERTY(double systemLevel READ systemLevel NOTIFY systemLevelChanged)
    Q_PROPERTY(double microphoneLevel READ microphoneLevel NOTIFY microphoneLevelChanged)
    Q_PROPERTY(QString silenceHint READ silenceHint NOTIFY silenceHintChanged)

public:
    using State = RecorderState;
    using Platform = RecorderPlatform;

    static constexpr std::chrono::milliseconds tickInterval { 500 };
    static constexpr std::chrono::milliseconds permissionPollInterval { 1000 };
    static constexpr int permissionPollAttempts = 10;
    // A recording starts only with room for this much of it.
    static constexpr std::chrono::minutes roomToStart { 10 };
    // Levels are read 25 times a second: lively meters, and never more than 30
    // changes a second.
    static constexpr std::chrono::milliseconds levelInterval { 40 };
    // How long one source may stay silent while the other is heard before the
    // screen says so (see docs/screens.md for why this long).
    static constexpr std::chrono::seconds silenceHintAfter { 30 };

    // `store` must outlive the flow; so must `api`'s network manager. Reads the
    // permissions once.
    RecorderFlow(SelvaroAPI api, SessionStore &store, Platform platform, QObject *parent = nullptr);
    ~RecorderFlow() override;

    // A flow frozen in `state`, showing `elapsed` on its clock (as displayedElapsed)
    // and the two permissions, for snapshots. It owns a client on its own network
    // manager and a store that never reads the secret store; it touches no sound
    // server, starts no task, and ignores every action.
    [[nodiscard]] static std::unique_ptr<RecorderFlow> preview(
        const State &state, double elapsed, Permission microphone, Permission systemAudio);

    [[nodiscard]] const State &state() const { return m_state; }
    // Recorded seconds of all finished segments of the current recording.
    [[nodiscard]] double elapsed() const { return m_elapsed; }
    // The seconds on screen, brought up to date by the ticker every 0.5 s.
    [[nodiscard]] double displayedElapsed() const { return m_displayedElapsed; }
    [[nodiscard]] Permission microphone() const { return m_microphone; }
    [[nodiscard]] Permission systemAudio() const { return m_systemAudio; }
    // True exactly when failed and a recording (capture and start time) is kept.
    [[nodiscard]] bool canRetrySend() const { return m_canRetrySend; }
    // Recording or paused: the clock is drawn in the primary colour, else dimmed.
    [[nodiscard]] bool isLive() const { return m_isLive; }
    // Idle, sent or failed with a permission not granted: the permissions box takes
    // the place of the controls and the status line.
    [[nodiscard]] bool showsPermissions() const { return m_showsPermissions; }
    // The second step of the permissions opens once the first is granted (or when it
    // is granted itself): "one after the other". The first is always open.
    [[nodiscard]] bool systemAudioStepEnabled() const { return m_systemAudioStepEnabled; }

    // Starts a new recording; only in idle, sent or failed.
    void record();
    // Only while recording.
    void pause();
    // Only while paused.
    void resume();
    // Back to idle from any state, dropping the current recording.
    void discard();
    // Finishes the recording and sends it; only while recording or paused.
    void save();
    // Sends the kept recording again; only when canRetrySend.
    void retrySend();

    // Offers the oldest recording the folder keeps unsent, mixing it first when its
    // captures are still there, as failed with "Send again"; only when no recording is
    // kept or under way. The application calls it once a session is loaded; a send that
    // succeeds calls it for the next one.
    void offerUnsent();
    // Whether forgetting the folder would lose a recording: one kept, under way, or
    // left in the folder.
    [[nodiscard]] bool hasUnsentRecordings() const;
    // Discards the current recording and deletes every recording in the folder.
    void deleteAllRecordings();

    // Reads both permissions again (nothing in a preview).
    void refreshPermissions();
    // Probes both sources again, for a change made while the application was in
    // the background (a device plugged in, the server restarted).
    void probePermissions();
    // Asks again for the microphone; the permissions are read when the answer is in.
    void requestMicrophone();
    // Asks again for system audio, then reads the permissions every second until it
    // is known, at most ten times.
    void requestSystemAudio();

    // --- live levels and the silent-source hint ---
    // The loudest sample of each source in the last read, 0..1 of full scale; 0 when
    // not recording. Frozen while paused.
    [[nodiscard]] double systemLevel() const { return m_systemLevel; }
    [[nodiscard]] double microphoneLevel() const { return m_microphoneLevel; }
    // The status line's sentence while one source has been digital silence for
    // silenceHintAfter of recording while the other was heard; empty otherwise.
    [[nodiscard]] QString silenceHint() const { return m_silenceHint; }

Q_SIGNALS:
    void stateChanged();
    void elapsedChanged();
    void displayedElapsedChanged();
    void microphoneChanged();
    void systemAudioChanged();
    void canRetrySendChanged();
    void isLiveChanged();
    void showsPermissionsChanged();
    void systemAudioStepEnabledChanged();
    void systemLevelChanged();
    void microphoneLevelChanged();
    void silenceHintChanged();

private:
    struct Ticker;

    void setState(State state);
    void setElapsed(double value);
    void setDisplayedElapsed(double value);
    void setMicrophone(Permission value);
    void setSystemAudio(Permission value);
    void setRecording(std::shared_ptr<RecordingCapture> capture, std::optional<QDateTime> startedAt);
    // Stores a source of the derived properties, updates them, then announces it.
    template <typename T> void setSource(T &field, T value, void (RecorderFlow::*changed)());
    void updateDerived();

    // elapsed plus the running segment, if any.
    [[nodiscard]] double runningElapsed() const;
    // Closes the running segment into elapsed.
    void closeSegment();
    // Stops a recording whose file stopped taking audio; called by the ticker.
    void checkCapture();
    // A running recording's files closed and its sidecar at "recorded", on the way out.
    void closeForExit();
    static QCoro::Task<> recover(QPointer<RecorderFlow> self);
    void startTicker();
    void cancelTicker();
    static QCoro::Task<> runTicker(
        QPointer<RecorderFlow> self, std::shared_ptr<Clock> clock, std::shared_ptr<Ticker> ticker);
    static QCoro::Task<> pollSystemAudio(QPointer<RecorderFlow> self, std::shared_ptr<Clock> clock);

    // save(): stop the capture, then send.
    static QCoro::Task<> finishAndSend(QPointer<RecorderFlow> self, std::shared_ptr<RecordingCapture> capture,
        QDateTime startedAt, qint64 duration);
    // The pipeline after the capture is finished; its progress and outcome become states.
    static QCoro::Task<> send(QPointer<RecorderFlow> self, std::shared_ptr<RecordingCapture> capture,
        QDateTime startedAt, qint64 duration);
    // Whether a send of `capture` may still write the flow's state: not once a newer
    // recording has been started.
    [[nodiscard]] bool ownsOutcomeOf(const std::shared_ptr<RecordingCapture> &capture) const;

    SendPipeline m_sendPipeline;
    Platform m_platform;
    bool m_frozenForPreview = false;

    State m_state;
    double m_elapsed = 0;
    double m_displayedElapsed = 0;
    Permission m_microphone = Permission::unknown;
    Permission m_systemAudio = Permission::unknown;
    bool m_canRetrySend = false;
    // Derived: set from the rules in the constructor and on every change of a source.
    bool m_isLive = false;
    bool m_showsPermissions = false;
    bool m_systemAudioStepEnabled = false;

    std::shared_ptr<RecordingCapture> m_capture;
    std::optional<QDateTime> m_startedAt;
    std::optional<std::chrono::steady_clock::time_point> m_segmentStart;
    std::shared_ptr<Ticker> m_ticker;
    bool m_offering = false;

    // --- live levels and the silent-source hint ---
    // Runs from record() to save() or discard(); reads nothing while paused.
    void startLevels();
    static QCoro::Task<> runLevels(
        QPointer<RecorderFlow> self, std::shared_ptr<Clock> clock, std::shared_ptr<Ticker> ticker);
    void readLevels();
    void resetLevels();
    void setLevels(double system, double microphone);

    std::shared_ptr<Ticker> m_levelTicker;
    double m_systemLevel = 0;
    double m_microphoneLevel = 0;
    QString m_silenceHint;
    // Recording time each source has been silent for, up to the last read.
    std::chrono::steady_clock::duration m_systemQuiet {};
    std::chrono::steady_clock::duration m_microphoneQuiet {};
    std::optional<std::chrono::steady_clock::time_point> m_lastLevelRead;
};
