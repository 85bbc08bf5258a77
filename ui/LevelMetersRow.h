#pragma once

#include <QPointer>
#include <QWidget>

class LevelMeter;
class RecorderFlow;

// Under the recorder's status line: caption "System audio" and its meter, then
// caption "Microphone" and its meter, following the flow's levels. The captions
// name the sources; the meters themselves carry no text. A dimmed row is the
// paused one: it keeps the last levels, which the flow does not change while
// paused. Main thread only; the flow must outlive it or be deleted with it.
class LevelMetersRow : public QWidget
{
    Q_OBJECT

public:
    LevelMetersRow(RecorderFlow *flow, bool dimmed, QWidget *parent = nullptr);

private:
    void showLevels();

    QPointer<RecorderFlow> m_flow;
    LevelMeter *m_systemAudio;
    LevelMeter *m_microphone;
};
