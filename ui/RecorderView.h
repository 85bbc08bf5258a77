#pragma once

#include "recording/RecorderFlow.h"
#include "ui/SoundSettings.h"

#include <QMessageBox>
#include <QPointer>
#include <QVariantAnimation>
#include <QWidget>

class BalancedLabel;
class FadingStack;
class LevelMeter;
class PermissionRow;
class PillButton;
class TextButton;
class TextLabel;
class WaveformIndicator;

// The screen shown once this computer is linked: it draws a RecorderFlow.
// From top to bottom: "Unlink" in the corner; the elapsed-time clock; the
// controls of the state (Record; Pause; Discard, Resume and Save; a spinner
// while saving); a one-line status, with a level meter per source under it while
// recording (dimmed, holding what it showed, while paused); the footer. While
// recording, the status line gives way to the flow's silenceHint when it has one.
// While a permission is missing and no recording is under way, the two-step
// permissions box takes the place of the controls and the status.
//
// Every control calls the flow, except "Unlink": after its confirmation the
// screen emits unlinkRequested() and whoever embeds it unlinks (discarding the
// recording and forgetting the session). The confirmation closes when the screen
// goes (the session forgotten meanwhile). The screen asks the flow to read the
// permissions again whenever it is shown. What to show is the flow's to say
// (isLive, showsPermissions, systemAudioStepEnabled, canRetrySend); the screen
// only maps the state to its pages.
//
// The controls and the status area keep the height of their tallest content, so
// the clock stays in one place whatever the state. Main thread only; the flow
// must outlive the view or be deleted with it.
class RecorderView : public QWidget
{
    Q_OBJECT

public:
    // `openSettings` serves the permission rows' "Settings" buttons.
    explicit RecorderView(RecorderFlow *flow, SoundSettings::Opener openSettings = SoundSettings::desktop(),
        QWidget *parent = nullptr);

    [[nodiscard]] RecorderFlow *flow() const { return m_flow; }

    // The clock text for `seconds` (ClockText::format).
    [[nodiscard]] static QString format(double seconds);

    // Off: every change shows at once (snapshots, tests). On by default.
    void setAnimated(bool animated);

    // The confirmation while it is open, else null.
    [[nodiscard]] QMessageBox *unlinkConfirmation() const { return m_confirmation; }

Q_SIGNALS:
    // The user confirmed "Unlink this Mac".
    void unlinkRequested();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void confirmUnlink();
    void showState();
    void showBody();
    void showPermissions();
    void showClock();
    void showClockColour();
    void showRetry();
    void showLevels();
    void showRecordingText();

    QPointer<RecorderFlow> m_flow;
    SoundSettings::Opener m_openSettings;
    bool m_animated = true;

    TextLabel *m_clock;
    QVariantAnimation m_clockFade;

    FadingStack *m_body;
    QWidget *m_sessionPage;
    QWidget *m_permissionsPage;

    FadingStack *m_controls;
    QWidget *m_recordPage;
    QWidget *m_recordingPage;
    QWidget *m_pausedPage;
    QWidget *m_savingPage;

    FadingStack *m_status;
    QWidget *m_idleStatus;
    QWidget *m_recordingStatus;
    WaveformIndicator *m_waveform;
    QWidget *m_pausedStatus;
    QWidget *m_savingStatus;
    TextLabel *m_savingText;
    QWidget *m_sentStatus;
    QWidget *m_failedStatus;
    BalancedLabel *m_failure;
    PillButton *m_sendAgain;

    PermissionRow *m_microphoneRow;
    PermissionRow *m_systemAudioRow;

    QPointer<QMessageBox> m_confirmation;

    // The meters of the recording and of the paused status line; the paused ones
    // are dimmed for good and keep the last levels, which do not change while paused.
    struct Meters
    {
        LevelMeter *systemAudio = nullptr;
        LevelMeter *microphone = nullptr;
    };
    [[nodiscard]] static QWidget *metersRow(Meters &meters, bool dimmed);
    Meters m_recordingMeters;
    Meters m_pausedMeters;
    TextLabel *m_recordingText = nullptr;
};
