#include "app/TrayIcon.h"

#include "common/ClockText.h"
#include "recording/RecorderFlow.h"
#include "ui/Palette.h"

#include <QApplication>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QSystemTrayIcon>

namespace {

using Kind = RecorderState::Kind;

// Painted, not taken from the icon theme: the tray must tell the states apart on
// any desktop, and a recording must never look like anything else.
QPixmap painted(Kind kind, int pixels)
{
    QPixmap pixmap(pixels, pixels);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal unit = pixels / 16.0;
    const QRectF disc(2 * unit, 2 * unit, 12 * unit, 12 * unit);
    const QColor ink = Palette::black(0.72f);
    switch (kind) {
    case Kind::recording:
        painter.setPen(Qt::NoPen);
        painter.setBrush(Palette::recordRed());
        painter.drawEllipse(disc);
        break;
    case Kind::paused:
        painter.setPen(Qt::NoPen);
        painter.setBrush(ink);
        painter.drawRoundedRect(QRectF(4 * unit, 3 * unit, 3 * unit, 10 * unit), unit, unit);
        painter.drawRoundedRect(QRectF(9 * unit, 3 * unit, 3 * unit, 10 * unit), unit, unit);
        break;
    case Kind::saving: {
        painter.setPen(QPen(ink, 2 * unit, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        QPainterPath arrow;
        arrow.moveTo(8 * unit, 13 * unit);
        arrow.lineTo(8 * unit, 3 * unit);
        arrow.moveTo(4 * unit, 7 * unit);
        arrow.lineTo(8 * unit, 3 * unit);
        arrow.lineTo(12 * unit, 7 * unit);
        painter.drawPath(arrow);
        break;
    }
    case Kind::failed:
        painter.setPen(Qt::NoPen);
        painter.setBrush(Palette::systemRed());
        painter.drawEllipse(disc);
        painter.setBrush(Palette::white());
        painter.drawRoundedRect(QRectF(7 * unit, 4.5 * unit, 2 * unit, 5 * unit), unit, unit);
        painter.drawEllipse(QRectF(7 * unit, 10.5 * unit, 2 * unit, 2 * unit));
        break;
    case Kind::idle:
    case Kind::sent:
        painter.setPen(QPen(ink, 1.5 * unit));
        painter.setBrush(Qt::NoBrush);
        painter.drawEllipse(disc.adjusted(unit, unit, -unit, -unit));
        painter.setPen(Qt::NoPen);
        painter.setBrush(ink);
        painter.drawEllipse(disc.adjusted(4 * unit, 4 * unit, -4 * unit, -4 * unit));
        break;
    }
    return pixmap;
}

} // namespace

TrayIcon::TrayIcon(RecorderFlow &flow, Choices choices, QObject *parent)
    : QObject(parent)
    , m_flow(flow)
    , m_menu(new QMenu)
    , m_icon(new QSystemTrayIcon(this))
{
    m_toggle
        = m_menu->addAction(QString(), this, [take = choices.take] { take(RecorderCommand::Name::toggle); });
    m_save
        = m_menu->addAction(tr("Save"), this, [take = choices.take] { take(RecorderCommand::Name::save); });
    m_menu->addSeparator();
    m_menu->addAction(tr("Show %1").arg(QApplication::applicationDisplayName()), this, choices.show);
    m_menu->addAction(tr("Quit"), this, choices.quit);
    m_icon->setContextMenu(m_menu);
    connect(m_icon, &QSystemTrayIcon::activated, this,
        [show = choices.show](QSystemTrayIcon::ActivationReason why) {
            if (why == QSystemTrayIcon::Trigger)
                show();
        });
    connect(&m_flow, &RecorderFlow::stateChanged, this, &TrayIcon::follow);
    connect(&m_flow, &RecorderFlow::displayedElapsedChanged, this, &TrayIcon::follow);
    follow();
    m_icon->show();
}

TrayIcon::~TrayIcon()
{
    delete m_menu;
}

bool TrayIcon::isAvailable()
{
    return QSystemTrayIcon::isSystemTrayAvailable();
}

QIcon TrayIcon::symbolFor(RecorderState::Kind kind)
{
    QIcon icon;
    for (const int pixels : { 16, 22, 32, 64 })
        icon.addPixmap(painted(kind, pixels));
    return icon;
}

void TrayIcon::follow()
{
    const RecorderState &state = m_flow.state();
    const Kind kind = state.kind();
    m_icon->setIcon(symbolFor(kind));
    const QString time = ClockText::format(m_flow.displayedElapsed());
    QString status;
    switch (kind) {
    case Kind::idle:
        status = tr("Ready to record");
        break;
    case Kind::recording:
        status = tr("Recording %1").arg(time);
        break;
    case Kind::paused:
        status = tr("Paused at %1").arg(time);
        break;
    case Kind::sent:
        status = tr("Sent");
        break;
    case Kind::saving:
    case Kind::failed:
        status = state.text();
        break;
    }
    m_icon->setToolTip(QApplication::applicationDisplayName() + u'\n' + status);
    m_toggle->setText(kind == Kind::recording ? tr("Pause")
            : kind == Kind::paused            ? tr("Resume")
                                              : tr("Record"));
    m_toggle->setEnabled(kind != Kind::saving);
    m_save->setVisible(kind == Kind::paused);
}
