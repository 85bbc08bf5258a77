#include "ui/RecorderStatusLine.h"

#include "recording/RecorderFlow.h"
#include "ui/BalancedLabel.h"
#include "ui/LevelMetersRow.h"
#include "ui/Palette.h"
#include "ui/PillButton.h"
#include "ui/SymbolView.h"
#include "ui/TextLabel.h"
#include "ui/Typography.h"
#include "ui/UploadProgressBar.h"
#include "ui/WaveformIndicator.h"

#include <QHBoxLayout>

#include <QVBoxLayout>
#include <algorithm>

namespace {

using Kind = RecorderState::Kind;

// A symbol or an indicator in front of a text, centred together.
QWidget *labelled(QWidget *symbol, TextLabel *text)
{
    auto *line = new QWidget;
    auto *layout = new QHBoxLayout(line);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(5);
    layout->addStretch(1);
    symbol->setParent(line);
    text->setParent(line);
    layout->addWidget(symbol, 0, Qt::AlignVCenter);
    layout->addWidget(text, 0, Qt::AlignVCenter);
    layout->addStretch(1);
    return line;
}

} // namespace

RecorderStatusLine::RecorderStatusLine(RecorderFlow *flow, QWidget *parent)
    : FadingStack(parent)
    , m_flow(flow)
{
    setObjectName(QStringLiteral("status"));
    setMinimumHeight(16);
    const QFont footnote = Typography::footnote();

    m_idle = new QWidget;
    // A space keeps the line's height with nothing to see.
    auto *idleText = new TextLabel(QStringLiteral(" "), footnote, Palette::secondaryText());
    idleText->setObjectName(QStringLiteral("idleStatus"));
    topAligned(m_idle)->addWidget(idleText);
    addPage(m_idle);

    m_recording = new QWidget;
    m_waveform = new WaveformIndicator;
    m_waveform->setFont(footnote);
    m_waveform->setColor(Palette::secondaryText());
    m_recordingText = new TextLabel(
        tr("Recording the system audio and the microphone"), footnote, Palette::secondaryText());
    m_recordingText->setObjectName(QStringLiteral("recordingStatus"));
    auto *recording = topAligned(m_recording);
    recording->addWidget(labelled(m_waveform, m_recordingText));
    recording->addSpacing(12);
    recording->addWidget(new LevelMetersRow(m_flow, false));
    addPage(m_recording);

    m_paused = new QWidget;
    m_pausedText = new TextLabel(tr("Paused"), footnote, Palette::secondaryText());
    m_pausedText->setObjectName(QStringLiteral("pausedStatus"));
    auto *paused = topAligned(m_paused);
    paused->addWidget(m_pausedText);
    paused->addSpacing(12);
    paused->addWidget(new LevelMetersRow(m_flow, true));
    addPage(m_paused);

    m_saving = new QWidget;
    m_savingText = new TextLabel(QString(), footnote, Palette::secondaryText());
    m_savingText->setObjectName(QStringLiteral("savingStatus"));
    m_uploadProgress = new UploadProgressBar;
    auto *saving = topAligned(m_saving);
    saving->addWidget(m_savingText);
    saving->addSpacing(12);
    saving->addWidget(m_uploadProgress, 0, Qt::AlignHCenter);
    addPage(m_saving);

    m_sent = new QWidget;
    auto *sentText = new TextLabel(
        tr("Sent. The note is being written on your phone."), footnote, Palette::systemGreen());
    sentText->setObjectName(QStringLiteral("sentStatus"));
    topAligned(m_sent)->addWidget(
        labelled(new SymbolView(Symbol::checkmarkCircleFill, 12, Palette::systemGreen()), sentText));
    addPage(m_sent);

    m_failed = new QWidget;
    auto *failed = topAligned(m_failed);
    failed->setSpacing(12);
    m_failure = new BalancedLabel;
    m_failure->setObjectName(QStringLiteral("failureMessage"));
    m_failure->setFont(footnote);
    m_failure->setColor(Palette::systemRed());
    failed->addWidget(m_failure);
    m_sendAgain = new PillButton(
        tr("Send again"), { PillButtonStyle::Kind::secondary, PillButtonStyle::Size::regular });
    m_sendAgain->setObjectName(QStringLiteral("sendAgainButton"));
    failed->addWidget(m_sendAgain, 0, Qt::AlignHCenter);
    addPage(m_failed);

    if (m_flow) {
        connect(m_sendAgain, &QAbstractButton::clicked, m_flow, &RecorderFlow::retrySend);
        connect(m_flow, &RecorderFlow::stateChanged, this, &RecorderStatusLine::showState);
        connect(m_flow, &RecorderFlow::canRetrySendChanged, this, &RecorderStatusLine::showRetry);
        connect(
            &m_flow->levels(), &LevelWatch::silenceHintChanged, this, &RecorderStatusLine::showRecordingText);
        connect(&m_flow->systemAudioSource(), &SystemAudioSource::chosenChanged, this,
            &RecorderStatusLine::showRecordingText);
    }
    showState();
    showRecordingText();
}

void RecorderStatusLine::showState()
{
    if (!m_flow)
        return;
    const RecorderState &state = m_flow->state();
    m_waveform->setRunning(state.is(Kind::recording));
    switch (state.kind()) {
    case Kind::idle:
        setCurrentPage(m_idle);
        break;
    case Kind::recording:
        setCurrentPage(m_recording);
        break;
    case Kind::paused:
        m_pausedText->setText(state.text().isEmpty() ? tr("Paused") : state.text());
        setCurrentPage(m_paused);
        break;
    case Kind::saving:
        m_savingText->setText(state.text());
        m_uploadProgress->setVisible(state.progress() >= 0);
        m_uploadProgress->setValue(std::max(state.progress(), 0));
        setCurrentPage(m_saving);
        break;
    case Kind::sent:
        setCurrentPage(m_sent);
        break;
    case Kind::failed:
        m_failure->setText(state.text());
        setCurrentPage(m_failed);
        break;
    }
    showRetry();
}

void RecorderStatusLine::showRetry()
{
    m_sendAgain->setVisible(m_flow && m_flow->canRetrySend());
}

void RecorderStatusLine::showRecordingText()
{
    if (!m_flow)
        return;
    const QString hint = m_flow->levels().silenceHint();
    m_recordingText->setText(hint.isEmpty() ? m_flow->systemAudioSource().recordingText() : hint);
}
