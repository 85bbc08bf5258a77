#pragma once

#include "ui/FadingStack.h"

#include <QPointer>

class BalancedLabel;
class PillButton;
class RecorderFlow;
class TextLabel;
class UploadProgressBar;
class WaveformIndicator;

// The recorder's one-line status under the controls, one page per state, in the
// footnote font: nothing (idle); the waveform and "Recording the system audio and
// the microphone", or the flow's silenceHint when it has one, over the level
// meters; "Paused" over the dimmed meters; the saving text as the flow words it, over
// the upload's progress bar while the state carries a share sent;
// the green check and the sent line; the red failure message with "Send again"
// exactly while the flow canRetrySend.
//
// The failure page sets the height, which the line keeps in every state, so
// neither the controls above nor the footer move. Main thread only; the flow must
// outlive it or be deleted with it.
class RecorderStatusLine : public FadingStack
{
    Q_OBJECT

public:
    explicit RecorderStatusLine(RecorderFlow *flow, QWidget *parent = nullptr);

private:
    void showState();
    void showRetry();
    void showRecordingText();

    QPointer<RecorderFlow> m_flow;
    QWidget *m_idle;
    QWidget *m_recording;
    WaveformIndicator *m_waveform;
    TextLabel *m_recordingText;
    QWidget *m_paused;
    TextLabel *m_pausedText;
    QWidget *m_saving;
    TextLabel *m_savingText;
    UploadProgressBar *m_uploadProgress;
    QWidget *m_sent;
    QWidget *m_failed;
    BalancedLabel *m_failure;
    PillButton *m_sendAgain;
};
