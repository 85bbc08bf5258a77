#include "ui/RecorderControls.h"

#include "recording/RecorderFlow.h"
#include "ui/EqualColumnsLayout.h"
#include "ui/PillButton.h"
#include "ui/Spinner.h"

#include <QHBoxLayout>

namespace {

using Kind = RecorderState::Kind;

QWidget *row(std::initializer_list<QWidget *> columns)
{
    auto *page = new QWidget;
    auto *layout = new EqualColumnsLayout(static_cast<int>(columns.size()), page);
    int column = 0;
    for (QWidget *widget : columns)
        layout->setWidget(column++, widget);
    return page;
}

// `widget` alone in the middle of a page of its own.
QWidget *centred(QWidget *widget)
{
    auto *page = new QWidget;
    auto *layout = new QHBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(widget, 0, Qt::AlignCenter);
    return page;
}

} // namespace

RecorderControls::RecorderControls(RecorderFlow *flow, QWidget *parent)
    : FadingStack(parent)
    , m_flow(flow)
{
    setObjectName(QStringLiteral("controls"));
    setMinimumHeight(44);

    auto *record = new PillButton(tr("Record"), Symbol::recordCircle,
        { PillButtonStyle::Kind::record, PillButtonStyle::Size::regular, false, true });
    record->setObjectName(QStringLiteral("recordButton"));
    m_recordPage = centred(record);
    addPage(m_recordPage);

    const PillButtonStyle filling { PillButtonStyle::Kind::secondary, PillButtonStyle::Size::regular, true,
        false };
    auto *pause = new PillButton(tr("Pause"), Symbol::pauseFill, filling);
    pause->setObjectName(QStringLiteral("pauseButton"));
    // Pause alone in the middle of three columns sits exactly where Resume sits.
    m_recordingPage = row({ nullptr, pause, nullptr });
    addPage(m_recordingPage);

    auto *discard = new PillButton(tr("Discard"), Symbol::trash,
        { PillButtonStyle::Kind::destructive, PillButtonStyle::Size::regular, true, false });
    discard->setObjectName(QStringLiteral("discardButton"));
    auto *resume = new PillButton(tr("Resume"), Symbol::playFill, filling);
    resume->setObjectName(QStringLiteral("resumeButton"));
    auto *save = new PillButton(tr("Save"), Symbol::checkmark,
        { PillButtonStyle::Kind::primary, PillButtonStyle::Size::regular, true, false });
    save->setObjectName(QStringLiteral("saveButton"));
    m_pausedPage = row({ discard, resume, save });
    addPage(m_pausedPage);

    auto *spinner = new Spinner(Spinner::ControlSize::large);
    spinner->setObjectName(QStringLiteral("spinner"));
    spinner->setAccessibleName(tr("Sending"));
    m_savingPage = centred(spinner);
    addPage(m_savingPage);

    if (m_flow) {
        connect(record, &QAbstractButton::clicked, m_flow, &RecorderFlow::record);
        connect(pause, &QAbstractButton::clicked, m_flow, &RecorderFlow::pause);
        connect(resume, &QAbstractButton::clicked, m_flow, &RecorderFlow::resume);
        connect(save, &QAbstractButton::clicked, m_flow, &RecorderFlow::save);
        connect(discard, &QAbstractButton::clicked, m_flow, &RecorderFlow::discard);
        connect(m_flow, &RecorderFlow::stateChanged, this, &RecorderControls::showState);
    }
    showState();
}

void RecorderControls::showState()
{
    if (!m_flow)
        return;
    switch (m_flow->state().kind()) {
    case Kind::idle:
    case Kind::sent:
    case Kind::failed:
        setCurrentPage(m_recordPage);
        break;
    case Kind::recording:
        setCurrentPage(m_recordingPage);
        break;
    case Kind::paused:
        setCurrentPage(m_pausedPage);
        break;
    case Kind::saving:
        setCurrentPage(m_savingPage);
        break;
    }
}
