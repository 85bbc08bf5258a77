#include "ui/RecorderView.h"

#include "ui/BalancedLabel.h"
#include "common/ClockText.h"
#include "ui/EqualColumnsLayout.h"
#include "ui/FadingStack.h"
#include "ui/LevelMeter.h"
#include "ui/Motion.h"
#include "ui/OutlinedBox.h"
#include "ui/Palette.h"
#include "ui/PermissionRow.h"
#include "ui/PillButton.h"
#include "ui/Spinner.h"
#include "ui/SymbolView.h"
#include "ui/TextButton.h"
#include "ui/TextLabel.h"
#include "ui/Typography.h"
#include "ui/WaveformIndicator.h"

#include <QHBoxLayout>
#include <QHideEvent>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

namespace {

using Kind = RecorderState::Kind;

// A page whose content sits at its top, in a stack sized by its tallest page.
QVBoxLayout *topAligned(QWidget *page)
{
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    return layout;
}

// A symbol or an indicator in front of a text, centred together: the status
// line's labels.
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

QWidget *divider(QWidget *parent)
{
    auto *line = new QWidget(parent);
    line->setFixedHeight(1);
    QPalette palette = line->palette();
    palette.setColor(QPalette::Window, Palette::divider());
    line->setPalette(palette);
    line->setAutoFillBackground(true);
    return line;
}

QWidget *row(std::initializer_list<QWidget *> columns)
{
    auto *page = new QWidget;
    auto *layout = new EqualColumnsLayout(static_cast<int>(columns.size()), page);
    int column = 0;
    for (QWidget *widget : columns)
        layout->setWidget(column++, widget);
    return page;
}

} // namespace

RecorderView::RecorderView(RecorderFlow *flow, SoundSettings::Opener openSettings, QWidget *parent)
    : QWidget(parent)
    , m_flow(flow)
    , m_openSettings(std::move(openSettings))
{
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    // Header
    auto *header = new QHBoxLayout;
    header->addStretch(1);
    auto *unlink = new TextButton(tr("Unlink"), this);
    unlink->setObjectName(QStringLiteral("unlinkButton"));
    header->addWidget(unlink);
    layout->addLayout(header);
    layout->addStretch(1);

    // Clock
    m_clock = new TextLabel(format(0), Typography::clock(), Palette::secondaryText(), this);
    m_clock->setObjectName(QStringLiteral("clock"));
    m_clock->setAccessibleDescription(tr("Recorded time"));
    layout->addWidget(m_clock);
    layout->addSpacing(36);
    m_clockFade.setDuration(Motion::stateMs);
    m_clockFade.setEasingCurve(Motion::easeInOut());
    connect(&m_clockFade, &QVariantAnimation::valueChanged, this,
        [this](const QVariant &value) { m_clock->setColor(value.value<QColor>()); });
    connect(&m_clockFade, &QVariantAnimation::finished, this,
        [this] { m_clock->setColor(m_clockFade.endValue().value<QColor>()); });

    // Below the clock: either the controls and the status, or the permissions box.
    m_body = new FadingStack(this);
    m_body->setObjectName(QStringLiteral("body"));
    layout->addWidget(m_body);

    m_sessionPage = new QWidget;
    auto *session = topAligned(m_sessionPage);
    m_controls = new FadingStack(m_sessionPage);
    m_controls->setObjectName(QStringLiteral("controls"));
    m_controls->setMinimumHeight(44);
    session->addWidget(m_controls);
    session->addSpacing(28);
    m_status = new FadingStack(m_sessionPage);
    m_status->setObjectName(QStringLiteral("status"));
    m_status->setMinimumHeight(16);
    session->addWidget(m_status);
    session->addStretch(1);
    m_body->addPage(m_sessionPage);

    // Controls per state
    auto *record = new PillButton(tr("Record"), Symbol::recordCircle,
        { PillButtonStyle::Kind::record, PillButtonStyle::Size::regular, false, true });
    record->setObjectName(QStringLiteral("recordButton"));
    m_recordPage = new QWidget;
    auto *recordLayout = new QHBoxLayout(m_recordPage);
    recordLayout->setContentsMargins(0, 0, 0, 0);
    recordLayout->addWidget(record, 0, Qt::AlignCenter);
    m_controls->addPage(m_recordPage);

    const PillButtonStyle filling { PillButtonStyle::Kind::secondary, PillButtonStyle::Size::regular, true,
        false };
    auto *pause = new PillButton(tr("Pause"), Symbol::pauseFill, filling);
    pause->setObjectName(QStringLiteral("pauseButton"));
    // Pause alone in the middle of three columns sits exactly where Resume sits.
    m_recordingPage = row({ nullptr, pause, nullptr });
    m_controls->addPage(m_recordingPage);

    auto *discard = new PillButton(tr("Discard"), Symbol::trash,
        { PillButtonStyle::Kind::destructive, PillButtonStyle::Size::regular, true, false });
    discard->setObjectName(QStringLiteral("discardButton"));
    auto *resume = new PillButton(tr("Resume"), Symbol::playFill, filling);
    resume->setObjectName(QStringLiteral("resumeButton"));
    auto *save = new PillButton(tr("Save"), Symbol::checkmark,
        { PillButtonStyle::Kind::primary, PillButtonStyle::Size::regular, true, false });
    save->setObjectName(QStringLiteral("saveButton"));
    m_pausedPage = row({ discard, resume, save });
    m_controls->addPage(m_pausedPage);

    m_savingPage = new QWidget;
    auto *savingLayout = new QHBoxLayout(m_savingPage);
    savingLayout->setContentsMargins(0, 0, 0, 0);
    auto *spinner = new Spinner(Spinner::ControlSize::large, m_savingPage);
    spinner->setObjectName(QStringLiteral("spinner"));
    spinner->setAccessibleName(tr("Sending"));
    savingLayout->addWidget(spinner, 0, Qt::AlignCenter);
    m_controls->addPage(m_savingPage);

    // Status line per state, all in the footnote font
    const QFont footnote = Typography::footnote();
    m_idleStatus = new QWidget;
    // A space keeps the line's height with nothing to see.
    auto *idleText = new TextLabel(QStringLiteral(" "), footnote, Palette::secondaryText());
    idleText->setObjectName(QStringLiteral("idleStatus"));
    topAligned(m_idleStatus)->addWidget(idleText);
    m_status->addPage(m_idleStatus);

    m_recordingStatus = new QWidget;
    m_waveform = new WaveformIndicator;
    m_waveform->setFont(footnote);
    m_waveform->setColor(Palette::secondaryText());
    m_recordingText = new TextLabel(
        tr("Recording the system audio and the microphone"), footnote, Palette::secondaryText());
    m_recordingText->setObjectName(QStringLiteral("recordingStatus"));
    auto *recordingLayout = topAligned(m_recordingStatus);
    recordingLayout->addWidget(labelled(m_waveform, m_recordingText));
    recordingLayout->addSpacing(12);
    recordingLayout->addWidget(metersRow(m_recordingMeters, false));
    m_status->addPage(m_recordingStatus);

    m_pausedStatus = new QWidget;
    auto *pausedText = new TextLabel(tr("Paused"), footnote, Palette::secondaryText());
    pausedText->setObjectName(QStringLiteral("pausedStatus"));
    auto *pausedLayout = topAligned(m_pausedStatus);
    pausedLayout->addWidget(pausedText);
    pausedLayout->addSpacing(12);
    pausedLayout->addWidget(metersRow(m_pausedMeters, true));
    m_status->addPage(m_pausedStatus);

    m_savingStatus = new QWidget;
    m_savingText = new TextLabel(QString(), footnote, Palette::secondaryText());
    m_savingText->setObjectName(QStringLiteral("savingStatus"));
    topAligned(m_savingStatus)->addWidget(m_savingText);
    m_status->addPage(m_savingStatus);

    m_sentStatus = new QWidget;
    auto *sentText = new TextLabel(
        tr("Sent. The note is being written on your phone."), footnote, Palette::systemGreen());
    sentText->setObjectName(QStringLiteral("sentStatus"));
    topAligned(m_sentStatus)
        ->addWidget(
            labelled(new SymbolView(Symbol::checkmarkCircleFill, 12, Palette::systemGreen()), sentText));
    m_status->addPage(m_sentStatus);

    m_failedStatus = new QWidget;
    auto *failed = topAligned(m_failedStatus);
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
    m_status->addPage(m_failedStatus);

    // The permissions box
    m_permissionsPage = new QWidget;
    auto *box = new OutlinedBox;
    box->setObjectName(QStringLiteral("permissionsBox"));
    box->setMaximumWidth(320);
    auto *boxLayout = new QVBoxLayout(box);
    boxLayout->setContentsMargins(0, 0, 0, 0);
    boxLayout->setSpacing(0);
    auto *heading = new TextLabel(tr("Two permissions, one after the other"),
        Typography::system(10, QFont::Medium), Palette::secondaryText(), box);
    heading->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    heading->setContentsMargins(16, 14, 16, 12);
    boxLayout->addWidget(heading);
    boxLayout->addWidget(divider(box));
    m_microphoneRow = new PermissionRow(1, tr("Microphone"), tr("Your voice."), box);
    m_microphoneRow->setObjectName(QStringLiteral("microphoneRow"));
    boxLayout->addWidget(m_microphoneRow);
    boxLayout->addWidget(divider(box));
    m_systemAudioRow = new PermissionRow(2, tr("System audio"), tr("What the other apps play."), box);
    m_systemAudioRow->setObjectName(QStringLiteral("systemAudioRow"));
    boxLayout->addWidget(m_systemAudioRow);
    auto *permissions = topAligned(m_permissionsPage);
    // Without an alignment the box takes the width offered, up to its maximum, centred.
    permissions->addWidget(box);
    permissions->addStretch(1);
    m_body->addPage(m_permissionsPage);

    // Footer
    layout->addSpacing(20);
    auto *footer = new TextLabel(tr("Record a call, a meeting or a video playing on this Mac.\nThe note "
                                    "appears in Selvaro on your phone."),
        footnote, Palette::tertiaryText(), this);
    footer->setObjectName(QStringLiteral("footer"));
    layout->addWidget(footer);

    connect(unlink, &QAbstractButton::clicked, this, &RecorderView::confirmUnlink);
    connect(m_microphoneRow, &PermissionRow::settingsClicked, this, [this] {
        if (m_openSettings)
            m_openSettings(SoundSettings::Pane::microphone);
    });
    connect(m_systemAudioRow, &PermissionRow::settingsClicked, this, [this] {
        if (m_openSettings)
            m_openSettings(SoundSettings::Pane::systemAudio);
    });
    if (m_flow) {
        connect(record, &QAbstractButton::clicked, m_flow, &RecorderFlow::record);
        connect(pause, &QAbstractButton::clicked, m_flow, &RecorderFlow::pause);
        connect(resume, &QAbstractButton::clicked, m_flow, &RecorderFlow::resume);
        connect(save, &QAbstractButton::clicked, m_flow, &RecorderFlow::save);
        connect(discard, &QAbstractButton::clicked, m_flow, &RecorderFlow::discard);
        connect(m_sendAgain, &QAbstractButton::clicked, m_flow, &RecorderFlow::retrySend);
        connect(m_microphoneRow, &PermissionRow::allowClicked, m_flow, &RecorderFlow::requestMicrophone);
        connect(m_systemAudioRow, &PermissionRow::allowClicked, m_flow, &RecorderFlow::requestSystemAudio);

        connect(m_flow, &RecorderFlow::stateChanged, this, &RecorderView::showState);
        connect(m_flow, &RecorderFlow::isLiveChanged, this, &RecorderView::showClockColour);
        connect(m_flow, &RecorderFlow::showsPermissionsChanged, this, &RecorderView::showBody);
        for (auto changed : { &RecorderFlow::microphoneChanged, &RecorderFlow::systemAudioChanged,
                 &RecorderFlow::systemAudioStepEnabledChanged })
            connect(m_flow, changed, this, &RecorderView::showPermissions);
        connect(m_flow, &RecorderFlow::canRetrySendChanged, this, &RecorderView::showRetry);
        connect(m_flow, &RecorderFlow::displayedElapsedChanged, this, &RecorderView::showClock);
        connect(m_flow, &RecorderFlow::systemLevelChanged, this, &RecorderView::showLevels);
        connect(m_flow, &RecorderFlow::microphoneLevelChanged, this, &RecorderView::showLevels);
        connect(m_flow, &RecorderFlow::silenceHintChanged, this, &RecorderView::showRecordingText);
    }

    setAnimated(true);
    showClock();
    showClockColour();
    showBody();
    showPermissions();
    showState();
    showLevels();
    showRecordingText();
}

QString RecorderView::format(double seconds)
{
    return ClockText::format(seconds);
}

void RecorderView::setAnimated(bool animated)
{
    m_animated = animated;
    for (FadingStack *stack : { m_body, m_controls, m_status })
        stack->setAnimated(animated);
    m_microphoneRow->setAnimated(animated);
    m_systemAudioRow->setAnimated(animated);
}

void RecorderView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (m_flow)
        m_flow->refreshPermissions();
}

// Not a spontaneous hide (the window minimised): the screen itself went, and with
// it whatever the confirmation was about.
void RecorderView::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    if (!event->spontaneous() && m_confirmation)
        m_confirmation->close();
}

void RecorderView::confirmUnlink()
{
    if (m_confirmation)
        return;
    m_confirmation = new QMessageBox(this);
    m_confirmation->setObjectName(QStringLiteral("unlinkConfirmation"));
    m_confirmation->setAttribute(Qt::WA_DeleteOnClose);
    m_confirmation->setIcon(QMessageBox::NoIcon);
    m_confirmation->setText(tr("Unlink this Mac?"));
    // Unlinking deletes them: the user is told, in one line.
    if (m_flow && m_flow->hasUnsentRecordings())
        m_confirmation->setInformativeText(tr("Recordings that were not sent are deleted."));
    QPushButton *unlink = m_confirmation->addButton(tr("Unlink this Mac"), QMessageBox::DestructiveRole);
    unlink->setObjectName(QStringLiteral("confirmUnlinkButton"));
    m_confirmation->setDefaultButton(m_confirmation->addButton(QMessageBox::Cancel));
    connect(m_confirmation, &QMessageBox::buttonClicked, this, [this, unlink](QAbstractButton *button) {
        if (button == unlink)
            Q_EMIT unlinkRequested();
    });
    m_confirmation->open();
}

void RecorderView::showClock()
{
    if (m_flow)
        m_clock->setText(format(m_flow->displayedElapsed()));
}

void RecorderView::showRetry()
{
    m_sendAgain->setVisible(m_flow && m_flow->canRetrySend());
}

void RecorderView::showClockColour()
{
    const QColor clockColour = m_flow && m_flow->isLive() ? Palette::primaryText() : Palette::secondaryText();
    const bool fadingThere = m_clockFade.state() == QAbstractAnimation::Running
        && m_clockFade.endValue().value<QColor>() == clockColour;
    if (m_clock->color() == clockColour || fadingThere)
        return;
    m_clockFade.stop();
    if (m_animated && isVisible()) {
        m_clockFade.setStartValue(m_clock->color());
        m_clockFade.setEndValue(clockColour);
        m_clockFade.start();
    } else {
        m_clock->setColor(clockColour);
    }
}

void RecorderView::showBody()
{
    m_body->setCurrentPage(m_flow && m_flow->showsPermissions() ? m_permissionsPage : m_sessionPage);
}

void RecorderView::showPermissions()
{
    if (!m_flow)
        return;
    m_microphoneRow->setStatus(m_flow->microphone(), true);
    m_systemAudioRow->setStatus(m_flow->systemAudio(), m_flow->systemAudioStepEnabled());
}

void RecorderView::showState()
{
    if (!m_flow)
        return;
    const RecorderState &state = m_flow->state();
    switch (state.kind()) {
    case Kind::idle:
    case Kind::sent:
    case Kind::failed:
        m_controls->setCurrentPage(m_recordPage);
        break;
    case Kind::recording:
        m_controls->setCurrentPage(m_recordingPage);
        break;
    case Kind::paused:
        m_controls->setCurrentPage(m_pausedPage);
        break;
    case Kind::saving:
        m_controls->setCurrentPage(m_savingPage);
        break;
    }

    m_waveform->setRunning(state.is(Kind::recording));
    switch (state.kind()) {
    case Kind::idle:
        m_status->setCurrentPage(m_idleStatus);
        break;
    case Kind::recording:
        m_status->setCurrentPage(m_recordingStatus);
        break;
    case Kind::paused:
        m_status->setCurrentPage(m_pausedStatus);
        break;
    case Kind::saving:
        m_savingText->setText(state.text());
        m_status->setCurrentPage(m_savingStatus);
        break;
    case Kind::sent:
        m_status->setCurrentPage(m_sentStatus);
        break;
    case Kind::failed:
        m_failure->setText(state.text());
        m_status->setCurrentPage(m_failedStatus);
        break;
    }
    showRetry();
}

// Captions name the sources; the meters themselves carry no text.
QWidget *RecorderView::metersRow(Meters &meters, bool dimmed)
{
    auto *row = new QWidget;
    auto *layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addStretch(1);
    const auto add = [&](const QString &caption, const QString &name, const char *objectName) {
        auto *label = new TextLabel(caption, Typography::system(9), Palette::tertiaryText(), row);
        auto *meter = new LevelMeter(row);
        meter->setObjectName(QLatin1String(objectName));
        meter->setAccessibleName(name);
        meter->setDimmed(dimmed);
        layout->addWidget(label, 0, Qt::AlignVCenter);
        layout->addWidget(meter, 0, Qt::AlignVCenter);
        return meter;
    };
    meters.systemAudio = add(tr("System audio"), tr("System audio level"), "systemAudioLevel");
    layout->addSpacing(14);
    meters.microphone = add(tr("Microphone"), tr("Microphone level"), "microphoneLevel");
    layout->addStretch(1);
    return row;
}

void RecorderView::showLevels()
{
    if (!m_flow)
        return;
    for (const Meters &meters : { m_recordingMeters, m_pausedMeters }) {
        meters.systemAudio->setLevel(m_flow->systemLevel());
        meters.microphone->setLevel(m_flow->microphoneLevel());
    }
}

void RecorderView::showRecordingText()
{
    const QString hint = m_flow ? m_flow->silenceHint() : QString();
    m_recordingText->setText(hint.isEmpty() ? tr("Recording the system audio and the microphone") : hint);
}
