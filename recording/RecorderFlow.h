#pragma once

#include "common/Repeater.h"
#include "recording/LevelWatch.h"
#include "recording/RecorderPermissions.h"
#include "recording/RecorderPlatform.h"
#include "recording/RecorderState.h"
#include "recording/SendPipeline.h"
#include "recording/SystemAudioSource.h"
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
// service. It keeps the state the recorder screen draws, the recorded time across
// pauses and a half-second display clock; it drives the recording's capture and, on
// save(), stops it and hands the mixed file to its SendPipeline, whose progress and
// outcome it turns into states. Beside it, and owned by it: the two permissions
// (RecorderPermissions) and the live levels with the silent-source hint
// (LevelWatch), which it starts and stops with the recording.
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
// announced (the flow is the first to follow the permissions), so whoever observes
// the source reads them current.
//
// A recording is never lost by anything but discard(): a file that stops taking audio
// stops the recording (failed, its part kept for "Send again"), a failed mix keeps the
// captures ("Send again" mixes again), and what a quit, a crash or a failed send left
// in the folder is offered again by offerUnsent() (UnsentRecordings), oldest first,
// one after the other. Each recording's sidecar (RecordingSidecar) says how far it got.
//
// Deliberate behaviours that look odd:
// - discard() does not cancel a send under way: the state goes to idle at once and
//   the send later overwrites it with its own outcome; what the send leaves stays in
//   the folder, to be offered again.
// - a record() that fails to start after a failed send keeps the earlier recording,
//   so "Send again" still sends it. A record() that starts lets it go from the screen
//   but not from the folder: it is offered again once the new one is sent.
//
// Thread contract: main thread only. The loops it runs (ticker, levels, permission
// poll) are Repeaters it owns, stopped with it; the tasks it starts (send, offer)
// resume on the main thread and hold the flow through a QPointer, so the flow may be
// destroyed at any time; a send in flight keeps its capture and file alive by itself
// and stops at its next step.
class RecorderFlow : public QObject
{
    Q_OBJECT
    Q_PROPERTY(RecorderState state READ state NOTIFY stateChanged)
    Q_PROPERTY(double elapsed READ elapsed NOTIFY elapsedChanged)
    Q_PROPERTY(double displayedElapsed READ displayedElapsed NOTIFY displayedElapsedChanged)
    Q_PROPERTY(bool canRetrySend READ canRetrySend NOTIFY canRetrySendChanged)
    Q_PROPERTY(bool isLive READ isLive NOTIFY isLiveChanged)
    Q_PROPERTY(bool showsPermissions READ showsPermissions NOTIFY showsPermissionsChanged)
    Q_PROPERTY(bool systemAudioStepEnabled READ systemAudioStepEnabled NOTIFY systemAudioStepEnabledChanged)

public:
    using State = RecorderState;
    using Platform = RecorderPlatform;

    static constexpr std::chrono::milliseconds tickInterval { 500 };
    // A recording starts only with room for this much of it.
    static constexpr std::chrono::minutes roomToStart { 10 };

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
    // The two permissions, read and asked for by the screen and the application; the
    // flow follows them for its derived choices.
    [[nodiscard]] RecorderPermissions &permissions() { return m_permissions; }
    // The live levels and the silent-source hint, running exactly while recording.
    [[nodiscard]] LevelWatch &levels() { return m_levels; }
    // Where the system audio comes from: all apps or the one the user chose.
    [[nodiscard]] SystemAudioSource &systemAudioSource() { return m_systemAudioSource; }
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

Q_SIGNALS:
    void stateChanged();
    void elapsedChanged();
    void displayedElapsedChanged();
    void canRetrySendChanged();
    void isLiveChanged();
    void showsPermissionsChanged();
    void systemAudioStepEnabledChanged();

private:
    void setState(State state);
    void setElapsed(double value);
    void setDisplayedElapsed(double value);
    void setRecording(std::shared_ptr<RecordingCapture> capture, std::optional<QDateTime> startedAt);
    // Stores a source of the derived properties, updates them, then announces it.
    template <typename T> void setSource(T &field, T value, void (RecorderFlow::*changed)());
    void updateDerived();

    // elapsed plus the running segment, if any.
    [[nodiscard]] double runningElapsed() const;
    // Closes the running segment into elapsed.
    void closeSegment();
    // Pause, worded by `why` when the user did not ask for it.
    void pauseBecause(const QString &why);
    // The sleep inhibitor's handler: pauses before the computer sleeps.
    void sleepComing(bool sleeping);
    // Stops a recording whose file stopped taking audio; called by the ticker.
    void checkCapture();
    // A running recording's files closed and its sidecar at "recorded", on the way out.
    void closeForExit();
    static QCoro::Task<> offerOldest(QPointer<RecorderFlow> self);
    // Stops the display clock, which makes one last update once the operation that
    // stopped it has finished: save() leaves the final elapsed on screen, discard() 0.
    void stopTicker();
    // The live parts of a recording: the display clock, the levels.
    void startWatching();
    void stopWatching();

    // save(): stop the capture, then send.
    static QCoro::Task<> finishAndSend(QPointer<RecorderFlow> self, std::shared_ptr<RecordingCapture> capture,
        QDateTime startedAt, qint64 duration);
    // The pipeline after the capture is finished; its progress and outcome become states.
    static QCoro::Task<> send(QPointer<RecorderFlow> self, std::shared_ptr<RecordingCapture> capture,
        QDateTime startedAt, qint64 duration);
    // Whether a send of `capture` may still write the flow's state: not once a newer
    // recording has been started.
    [[nodiscard]] bool ownsOutcomeOf(const std::shared_ptr<RecordingCapture> &capture) const;

    Platform m_platform;
    // After the platform: it sends on its clock and network status.
    SendPipeline m_sendPipeline;
    // After the platform: the probes they own use its sound server.
    RecorderPermissions m_permissions;
    LevelWatch m_levels;
    SystemAudioSource m_systemAudioSource;
    Repeater m_ticker;
    bool m_frozenForPreview = false;

    State m_state;
    double m_elapsed = 0;
    double m_displayedElapsed = 0;
    bool m_canRetrySend = false;
    // Derived: set from the rules in the constructor and on every change of a source.
    bool m_isLive = false;
    bool m_showsPermissions = false;
    bool m_systemAudioStepEnabled = false;

    std::shared_ptr<RecordingCapture> m_capture;
    std::optional<QDateTime> m_startedAt;
    std::optional<std::chrono::steady_clock::time_point> m_segmentStart;
    bool m_offering = false;
};
