#pragma once

#include "audio/Permission.h"

#include <QVariantAnimation>
#include <QWidget>

class FadingStack;
class PillButton;
class StepBadge;
class TextLabel;

// One step of the recorder's permissions box: a numbered badge (a check once
// granted), the title over a detail line, and the action the permission calls
// for — "Allow" while it is not known (and the step is enabled), "Settings" when
// it was denied, nothing once granted. A step that is not enabled yet is drawn
// at 0.45 opacity; the change is eased over 0.25 s like every state change.
//
// The row only shows; "Allow" and "Settings" are signals the screen connects to
// the flow and to the sound settings.
class PermissionRow : public QWidget
{
    Q_OBJECT
public:
    static constexpr qreal disabledOpacity = 0.45;

    PermissionRow(qint64 number, const QString &title, const QString &detail, QWidget *parent = nullptr);

    void setStatus(Permission status, bool enabled);
    [[nodiscard]] Permission status() const { return m_status; }
    [[nodiscard]] bool isStepEnabled() const { return m_enabled; }

    // The opacity the row is drawn at now (moves towards 1 or 0.45 during an animation).
    [[nodiscard]] qreal opacity() const { return m_opacity; }
    void setAnimated(bool animated) { m_animated = animated; }

    [[nodiscard]] PillButton *allowButton() const { return m_allow; }
    [[nodiscard]] PillButton *settingsButton() const { return m_settings; }
    [[nodiscard]] StepBadge *badge() const { return m_badge; }

Q_SIGNALS:
    void allowClicked();
    void settingsClicked();

private:
    void applyOpacity(qreal opacity);

    StepBadge *m_badge;
    TextLabel *m_title;
    TextLabel *m_detail;
    FadingStack *m_action;
    QWidget *m_noAction;
    QWidget *m_allowPage;
    QWidget *m_settingsPage;
    PillButton *m_allow;
    PillButton *m_settings;

    Permission m_status = Permission::unknown;
    bool m_enabled = true;
    bool m_animated = true;
    qreal m_opacity = 1;
    QVariantAnimation m_fade;
};
