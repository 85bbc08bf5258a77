#include "ui/PairingView.h"

#include "account/PairingFlow.h"
#include "common/ClockText.h"
#include "ui/BalancedLabel.h"
#include "ui/FadingStack.h"
#include "ui/Palette.h"
#include "ui/PillButton.h"
#include "ui/QrCodeView.h"
#include "ui/Spinner.h"
#include "ui/TextButton.h"
#include "ui/TextLabel.h"
#include "ui/Typography.h"

#include <QLabel>
#include <QShowEvent>
#include <QVBoxLayout>

namespace {

constexpr QChar noBreakSpace(0x00A0);

// A column that begins with a flexible space, so that its content sits at the
// bottom: the QR and the typed-code panels both end in the swap link, which
// thus stays in one place under the pointer when they swap.
QVBoxLayout *bottomAligned(QWidget *page)
{
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addStretch(1);
    return layout;
}

TextButton *swapLink(const QString &text, QWidget *parent)
{
    auto *link = new TextButton(text, parent);
    link->setUnderlined(true);
    link->setCursor(Qt::PointingHandCursor);
    return link;
}

} // namespace

PairingView::PairingView(PairingFlow *flow, QWidget *parent)
    : QWidget(parent)
    , m_flow(flow)
{
    if (m_flow) {
        m_clock = [clock = m_flow->clock()] { return clock->now(); };
    } else {
        m_clock = [] { return QDateTime::currentDateTimeUtc(); };
    }

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    // Balanced: where the title has to wrap (it does in wide fonts), no word is left alone.
    auto *title = new BalancedLabel(tr("Link this Mac to Selvaro"), this);
    title->setObjectName(QStringLiteral("title"));
    title->setFont(Typography::title());
    title->setColor(Palette::primaryText());
    layout->addWidget(title);

    m_stateArea = new FadingStack(this);
    layout->addWidget(m_stateArea, 1);

    // idle, requesting
    m_requestingPage = new QWidget;
    auto *requestingLayout = new QVBoxLayout(m_requestingPage);
    requestingLayout->setContentsMargins(0, 0, 0, 0);
    auto *spinner = new Spinner(Spinner::ControlSize::regular, m_requestingPage);
    spinner->setObjectName(QStringLiteral("spinner"));
    spinner->setAccessibleName(tr("Asking for a code"));
    requestingLayout->addWidget(spinner, 0, Qt::AlignCenter);
    m_stateArea->addPage(m_requestingPage);

    // waiting: one of the two panels, then the countdown
    m_waitingPage = new QWidget;
    auto *waitingLayout = bottomAligned(m_waitingPage);
    m_panels = new FadingStack(m_waitingPage);
    m_panels->setObjectName(QStringLiteral("panels"));
    waitingLayout->addWidget(m_panels);
    waitingLayout->addSpacing(18);
    m_countdown = new TextLabel(QString(), Typography::footnote(), Palette::secondaryText(), m_waitingPage);
    m_countdown->setObjectName(QStringLiteral("countdown"));
    waitingLayout->addWidget(m_countdown);
    m_stateArea->addPage(m_waitingPage);

    m_qrPanel = new QWidget;
    auto *qrLayout = bottomAligned(m_qrPanel);
    m_qrCode = new QrCodeView(m_qrPanel);
    m_qrCode->setObjectName(QStringLiteral("qrCode"));
    m_qrCode->setAccessibleDescription(tr("The link to this Mac for your phone's camera"));
    qrLayout->addWidget(m_qrCode, 0, Qt::AlignHCenter);
    qrLayout->addSpacing(14);
    auto *scanHint = new TextLabel(tr("Scan this code with\nyour phone's camera."), Typography::callout(),
        Palette::primaryText(), m_qrPanel);
    scanHint->setObjectName(QStringLiteral("scanHint"));
    qrLayout->addWidget(scanHint);
    qrLayout->addSpacing(8);
    auto *showCode = swapLink(tr("Can't scan?"), m_qrPanel);
    showCode->setObjectName(QStringLiteral("showCodeLink"));
    qrLayout->addWidget(showCode, 0, Qt::AlignHCenter);
    m_panels->addPage(m_qrPanel);

    // The instruction and the code are centred in the place of the QR card, the
    // link stays where it was.
    m_codePanel = new QWidget;
    auto *codeLayout = bottomAligned(m_codePanel);
    auto *instruction = new BalancedLabel(instructionText(), m_codePanel);
    instruction->setObjectName(QStringLiteral("instruction"));
    instruction->setFont(Typography::callout());
    instruction->setColor(Palette::primaryText());
    codeLayout->addWidget(instruction);
    codeLayout->addSpacing(14);
    m_userCode = new TextLabel(QString(), Typography::code(), Palette::primaryText(), m_codePanel);
    m_userCode->setObjectName(QStringLiteral("userCode"));
    m_userCode->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    codeLayout->addWidget(m_userCode);
    codeLayout->addStretch(1);
    codeLayout->addSpacing(14);
    auto *showQr = swapLink(tr("Show the QR code"), m_codePanel);
    showQr->setObjectName(QStringLiteral("showQrLink"));
    codeLayout->addWidget(showQr, 0, Qt::AlignHCenter);
    m_panels->addPage(m_codePanel);

    // expired
    m_expiredPage = new QWidget;
    auto *expiredLayout = new QVBoxLayout(m_expiredPage);
    expiredLayout->setContentsMargins(0, 0, 0, 0);
    expiredLayout->setSpacing(16);
    expiredLayout->addStretch(1);
    auto *expiredText = new TextLabel(
        tr("This code has expired."), Typography::body(), Palette::primaryText(), m_expiredPage);
    expiredText->setObjectName(QStringLiteral("expiredText"));
    expiredLayout->addWidget(expiredText);
    auto *newCode = new PillButton(
        tr("New code"), { PillButtonStyle::Kind::primary, PillButtonStyle::Size::regular }, m_expiredPage);
    newCode->setObjectName(QStringLiteral("newCodeButton"));
    expiredLayout->addWidget(newCode, 0, Qt::AlignHCenter);
    expiredLayout->addStretch(1);
    m_stateArea->addPage(m_expiredPage);

    // failed
    m_failedPage = new QWidget;
    auto *failedLayout = new QVBoxLayout(m_failedPage);
    failedLayout->setContentsMargins(0, 0, 0, 0);
    failedLayout->setSpacing(16);
    failedLayout->addStretch(1);
    m_failure = new BalancedLabel(QString(), m_failedPage);
    m_failure->setObjectName(QStringLiteral("failureMessage"));
    m_failure->setFont(Typography::footnote());
    m_failure->setColor(Palette::primaryText());
    failedLayout->addWidget(m_failure);
    auto *tryAgain = new PillButton(
        tr("Try again"), { PillButtonStyle::Kind::primary, PillButtonStyle::Size::regular }, m_failedPage);
    tryAgain->setObjectName(QStringLiteral("tryAgainButton"));
    failedLayout->addWidget(tryAgain, 0, Qt::AlignHCenter);
    failedLayout->addStretch(1);
    m_stateArea->addPage(m_failedPage);

    connect(showCode, &QAbstractButton::clicked, this, &PairingView::toggleCode);
    connect(showQr, &QAbstractButton::clicked, this, &PairingView::toggleCode);
    if (m_flow) {
        connect(newCode, &QAbstractButton::clicked, m_flow, &PairingFlow::start);
        connect(tryAgain, &QAbstractButton::clicked, m_flow, &PairingFlow::start);
        connect(m_flow, &PairingFlow::stateChanged, this, &PairingView::showState);
    }

    // A periodic timeline from the moment the codes are shown: the countdown is
    // recomputed from the clock at every tick, so a late tick never drifts.
    m_countdownTimer.setInterval(1000);
    connect(&m_countdownTimer, &QTimer::timeout, this, &PairingView::updateCountdown);

    showState();
}

void PairingView::setShowsCode(bool showsCode)
{
    if (m_showsCode == showsCode)
        return;
    m_showsCode = showsCode;
    m_panels->setCurrentPage(m_showsCode ? m_codePanel : m_qrPanel);
    Q_EMIT showsCodeChanged(m_showsCode);
}

void PairingView::setClock(Clock clock)
{
    m_clock = std::move(clock);
    updateCountdown();
}

void PairingView::setAnimated(bool animated)
{
    m_stateArea->setAnimated(animated);
    m_panels->setAnimated(animated);
}

QByteArray PairingView::pairingLink(const QString &userCode)
{
    QString code = userCode;
    code.remove(QLatin1Char('-'));
    return QByteArrayLiteral("selvaro://pair/") + code.toUtf8();
}

QString PairingView::instructionText()
{
    QString path = tr("under Settings > Record on my Mac");
    path.replace(QLatin1Char(' '), noBreakSpace);
    return tr("Type this code in Selvaro, ") + path + QLatin1Char(':');
}

void PairingView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (event->spontaneous() || !m_flow)
        return;
    setShowsCode(false);
    if (m_flow->state().kind() == PairingState::Kind::idle)
        m_flow->start();
}

void PairingView::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    if (event->spontaneous() || !m_flow)
        return;
    m_flow->stop();
}

void PairingView::showState()
{
    if (!m_flow)
        return;
    const PairingState &state = m_flow->state();
    switch (state.kind()) {
    case PairingState::Kind::idle:
    case PairingState::Kind::requesting:
        m_stateArea->setCurrentPage(m_requestingPage);
        break;
    case PairingState::Kind::waiting:
        m_qrCode->setMessage(pairingLink(state.userCode()));
        m_userCode->setText(state.userCode());
        m_stateArea->setCurrentPage(m_waitingPage);
        break;
    case PairingState::Kind::expired:
        m_stateArea->setCurrentPage(m_expiredPage);
        break;
    case PairingState::Kind::failed:
        m_failure->setText(m_flow->failureText());
        m_stateArea->setCurrentPage(m_failedPage);
        break;
    }
    if (state.kind() == PairingState::Kind::waiting) {
        updateCountdown();
        m_countdownTimer.start();
    } else {
        m_countdownTimer.stop();
    }
}

void PairingView::updateCountdown()
{
    if (!m_flow || m_flow->state().kind() != PairingState::Kind::waiting)
        return;
    const double secondsLeft = static_cast<double>(m_clock().msecsTo(m_flow->state().expiresAt())) / 1000.0;
    m_countdown->setText(tr("Waiting for your phone… ") + ClockText::countdown(secondsLeft));
}
