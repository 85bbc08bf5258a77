#pragma once

#include "recording/RecorderFlow.h"
#include "ui/SoundSettings.h"

#include <QMessageBox>
#include <QPointer>
#include <QVariantAnimation>
#include <QWidget>

class FadingStack;
class PermissionsBox;
class RecorderControls;
class RecorderStatusLine;
class TextLabel;

// The screen shown once this computer is linked: it draws a RecorderFlow.
// From top to bottom: "Unlink" in the corner; the elapsed-time clock; the
// controls of the state (RecorderControls); the status line with the level meters
// (RecorderStatusLine); the footer. While a permission is missing and no
// recording is under way, the two-step PermissionsBox takes the place of the
// controls and the status.
//
// Every control calls the flow, except "Unlink": after its confirmation the
// screen emits unlinkRequested() and whoever embeds it unlinks (discarding the
// recording and forgetting the session). The confirmation closes when the screen
// goes (the session forgotten meanwhile). The screen asks the flow to read the
// permissions again whenever it is shown. What to show is the flow's to say
// (isLive, showsPermissions, and what the parts below read); the screen only
// puts the parts together.
//
// The controls and the status area keep the height of their tallest content, so
// the clock stays in one place whatever the state. Main thread only; the flow
// must outlive the view or be deleted with it.
class RecorderView : public QWidget
{
    Q_OBJECT

public:
    // `openSettings` serves the permission rows' "Settings" buttons.
    explicit RecorderView(RecorderFlow *flow, SoundSettings::Opener openSettings = SoundSettings::desktop(),
        QWidget *parent = nullptr);

    [[nodiscard]] RecorderFlow *flow() const { return m_flow; }

    // The clock text for `seconds` (ClockText::format).
    [[nodiscard]] static QString format(double seconds);

    // Off: every change shows at once (snapshots, tests). On by default.
    void setAnimated(bool animated);

    // The confirmation while it is open, else null.
    [[nodiscard]] QMessageBox *unlinkConfirmation() const { return m_confirmation; }

Q_SIGNALS:
    // The user confirmed "Unlink this Mac".
    void unlinkRequested();

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void confirmUnlink();
    void showBody();
    void showClock();
    void showClockColour();

    QPointer<RecorderFlow> m_flow;
    bool m_animated = true;

    TextLabel *m_clock;
    QVariantAnimation m_clockFade;

    FadingStack *m_body;
    QWidget *m_sessionPage;
    RecorderControls *m_controls;
    RecorderStatusLine *m_status;
    QWidget *m_permissionsPage;
    PermissionsBox *m_permissions;

    QPointer<QMessageBox> m_confirmation;
};
