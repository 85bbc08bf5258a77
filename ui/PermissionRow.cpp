#include "ui/PermissionRow.h"

#include "ui/FadingStack.h"
#include "ui/Motion.h"
#include "ui/Palette.h"
#include "ui/PillButton.h"
#include "ui/StepBadge.h"
#include "ui/TextLabel.h"
#include "ui/Typography.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

namespace {

// A page of the action area holding `button` at its trailing edge.
QWidget *trailing(PillButton *button)
{
    auto *page = new QWidget;
    auto *layout = new QHBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addStretch(1);
    if (button)
        layout->addWidget(button, 0, Qt::AlignVCenter);
    return page;
}

} // namespace

PermissionRow::PermissionRow(qint64 number, const QString &title, const QString &detail, QWidget *parent)
    : QWidget(parent)
{
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(16, 12, 16, 12);
    layout->setSpacing(12);

    m_badge = new StepBadge(number, this);
    layout->addWidget(m_badge, 0, Qt::AlignVCenter);

    auto *texts = new QVBoxLayout;
    texts->setSpacing(2);
    m_title = new TextLabel(title, Typography::body(), Palette::primaryText(), this);
    m_title->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    m_detail = new TextLabel(detail, Typography::footnote(), Palette::secondaryText(), this);
    m_detail->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    texts->addWidget(m_title);
    texts->addWidget(m_detail);
    layout->addLayout(texts, 1);

    const PillButtonStyle small { PillButtonStyle::Kind::primary, PillButtonStyle::Size::small };
    m_allow = new PillButton(tr("Allow"), small);
    m_settings
        = new PillButton(tr("Settings"), { PillButtonStyle::Kind::secondary, PillButtonStyle::Size::small });
    // The buttons name their row for screen readers: there are two of each.
    m_allow->setAccessibleDescription(title);
    m_settings->setAccessibleDescription(title);
    m_action = new FadingStack(this);
    m_noAction = trailing(nullptr);
    m_allowPage = trailing(m_allow);
    m_settingsPage = trailing(m_settings);
    m_action->addPage(m_noAction);
    m_action->addPage(m_allowPage);
    m_action->addPage(m_settingsPage);
    layout->addWidget(m_action, 0, Qt::AlignVCenter);

    connect(m_allow, &QAbstractButton::clicked, this, &PermissionRow::allowClicked);
    connect(m_settings, &QAbstractButton::clicked, this, &PermissionRow::settingsClicked);

    m_fade.setDuration(Motion::stateMs);
    m_fade.setEasingCurve(Motion::easeInOut());
    connect(&m_fade, &QVariantAnimation::valueChanged, this,
        [this](const QVariant &value) { applyOpacity(value.toReal()); });
    // Interpolation ends a rounding error away from the target; the row rests exactly on it.
    connect(
        &m_fade, &QVariantAnimation::finished, this, [this] { applyOpacity(m_fade.endValue().toReal()); });

    setStatus(Permission::unknown, true);
}

void PermissionRow::setStatus(Permission status, bool enabled)
{
    m_status = status;
    m_enabled = enabled;
    m_badge->setDone(status == Permission::granted);

    QWidget *action = m_noAction;
    if (status == Permission::unknown && enabled)
        action = m_allowPage;
    else if (status == Permission::denied)
        action = m_settingsPage;
    m_action->setAnimated(m_animated);
    m_action->setCurrentPage(action);

    const qreal target = enabled ? 1.0 : disabledOpacity;
    m_fade.stop();
    if (m_animated && isVisible() && !qFuzzyCompare(m_opacity, target)) {
        m_fade.setStartValue(m_opacity);
        m_fade.setEndValue(target);
        m_fade.start();
    } else {
        applyOpacity(target);
    }
}

// Every part takes the opacity in its own painting: a graphics effect would draw
// the row from a 1x pixmap into a 2x render.
void PermissionRow::applyOpacity(qreal opacity)
{
    m_opacity = opacity;
    const auto dimmed
        = [opacity](QColor colour) { return Palette::withOpacity(colour, static_cast<float>(opacity)); };
    m_title->setColor(dimmed(Palette::primaryText()));
    m_detail->setColor(dimmed(Palette::secondaryText()));
    m_badge->setOpacity(opacity);
    m_allow->setOpacity(opacity);
    m_settings->setOpacity(opacity);
}
