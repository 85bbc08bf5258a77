#pragma once

#include "ui/FadingStack.h"

#include <QPointer>

class RecorderFlow;

// The recorder's controls for the flow's state: Record (idle, sent, failed);
// Pause; Discard, Resume and Save; a spinner while saving. Every button calls the
// flow. It keeps the height of its tallest page, so the clock above never moves.
// Main thread only; the flow must outlive it or be deleted with it.
class RecorderControls : public FadingStack
{
    Q_OBJECT

public:
    explicit RecorderControls(RecorderFlow *flow, QWidget *parent = nullptr);

private:
    void showState();

    QPointer<RecorderFlow> m_flow;
    QWidget *m_recordPage;
    QWidget *m_recordingPage;
    QWidget *m_pausedPage;
    QWidget *m_savingPage;
};
