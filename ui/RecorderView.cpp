#include "ui/RecorderView.h"

#include "common/ClockText.h"
#include "ui/FadingStack.h"
#include "ui/Motion.h"
#include "ui/Palette.h"
#include "ui/PermissionsBox.h"
#include "ui/RecorderControls.h"
#include "ui/RecorderStatusLine.h"
#include "ui/SystemAudioSourceButton.h"
#include "ui/TextButton.h"
#include "ui/TextLabel.h"
#include "ui/Typography.h"

#include <QHBoxLayout>
#include <QHideEvent>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

RecorderView::RecorderView(RecorderFlow *flow, SoundSettings::Opener openSettings, QWidget *parent)
    : QWidget(parent)
    , m_flow(flow)
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
    auto *session = FadingStack::topAligned(m_sessionPage);
    m_controls = new RecorderControls(m_flow, m_sessionPage);
    session->addWidget(m_controls);
    session->addSpacing(28);
    m_status = new RecorderStatusLine(m_flow, m_sessionPage);
    session->addWidget(m_status);
    session->addSpacing(8);
    session->addWidget(
        new SystemAudioSourceButton(m_flow ? &m_flow->systemAudioSource() : nullptr, m_sessionPage), 0,
        Qt::AlignHCenter);
    session->addStretch(1);
    m_body->addPage(m_sessionPage);

    m_permissionsPage = new QWidget;
    m_permissions = new PermissionsBox(m_flow, std::move(openSettings));
    auto *permissions = FadingStack::topAligned(m_permissionsPage);
    // Without an alignment the box takes the width offered, up to its maximum, centred.
    permissions->addWidget(m_permissions);
    permissions->addStretch(1);
    m_body->addPage(m_permissionsPage);

    // Footer
    layout->addSpacing(20);
    auto *footer = new TextLabel(tr("Record a call, a meeting or a video playing on this Mac.\nThe note "
                                    "appears in Selvaro on your phone."),
        Typography::footnote(), Palette::tertiaryText(), this);
    footer->setObjectName(QStringLiteral("footer"));
    layout->addWidget(footer);

    connect(unlink, &QAbstractButton::clicked, this, &RecorderView::confirmUnlink);
    if (m_flow) {
        connect(m_flow, &RecorderFlow::isLiveChanged, this, &RecorderView::showClockColour);
        connect(m_flow, &RecorderFlow::showsPermissionsChanged, this, &RecorderView::showBody);
        connect(m_flow, &RecorderFlow::displayedElapsedChanged, this, &RecorderView::showClock);
    }

    setAnimated(true);
    showClock();
    showClockColour();
    showBody();
}

QString RecorderView::format(double seconds)
{
    return ClockText::format(seconds);
}

void RecorderView::setAnimated(bool animated)
{
    m_animated = animated;
    for (FadingStack *stack : std::initializer_list<FadingStack *> { m_body, m_controls, m_status })
        stack->setAnimated(animated);
    m_permissions->setAnimated(animated);
}

void RecorderView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (m_flow)
        m_flow->permissions().refresh();
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
