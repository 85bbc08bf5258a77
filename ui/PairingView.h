#pragma once

#include <QDateTime>
#include <QPointer>
#include <QTimer>
#include <QWidget>

#include <functional>

class BalancedLabel;
class FadingStack;
class PairingFlow;
class PillButton;
class QLabel;
class QrCodeView;
class TextButton;
class TextLabel;

// The screen shown while this computer is not linked: it draws a PairingFlow.
// A spinner while the codes are asked for; then the QR code of the pairing link
// (or, on request, the typed user code) above a countdown to the codes' expiry;
// "New code" once they expired and "Try again" after a failure.
//
// It starts the flow when it is shown and the flow is idle (coming back while a
// code is pending does not ask for another), and stops it when it is hidden, so
// nothing polls for a code nobody sees. Every showing opens on the QR code: the
// screen is built once and shown again after an unlink. Minimising the window is
// not hiding the screen: spontaneous show and hide events are ignored.
//
// The view never navigates: a successful pairing sets the session, and whoever
// embeds the screen swaps it for the recorder. Main thread only; the flow must
// outlive the view or be deleted with it.
class PairingView : public QWidget
{
    Q_OBJECT
    Q_PROPERTY(bool showsCode READ showsCode WRITE setShowsCode NOTIFY showsCodeChanged)

public:
    // The countdown's time source: the flow's clock (the wall clock in the
    // application) unless a test sets another.
    using Clock = std::function<QDateTime()>;

    explicit PairingView(PairingFlow *flow, QWidget *parent = nullptr);

    [[nodiscard]] PairingFlow *flow() const { return m_flow; }

    // false: the QR code is shown; true: the typed user code. Starts false.
    [[nodiscard]] bool showsCode() const { return m_showsCode; }
    void setShowsCode(bool showsCode);
    // What the swap link does.
    void toggleCode() { setShowsCode(!m_showsCode); }

    void setClock(Clock clock);

    // Off: every change shows at once (snapshots, tests). On by default.
    void setAnimated(bool animated);

    // "selvaro://pair/" and the user code without its dashes.
    [[nodiscard]] static QByteArray pairingLink(const QString &userCode);
    // "Type this code in Selvaro, under Settings > Record on my Mac:" with the
    // settings path held together by no-break spaces.
    [[nodiscard]] static QString instructionText();

Q_SIGNALS:
    void showsCodeChanged(bool showsCode);

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void showState();
    void updateCountdown();

    QPointer<PairingFlow> m_flow;
    Clock m_clock;
    bool m_showsCode = false;
    QTimer m_countdownTimer;

    FadingStack *m_stateArea;
    QWidget *m_requestingPage;
    QWidget *m_waitingPage;
    QWidget *m_expiredPage;
    QWidget *m_failedPage;

    FadingStack *m_panels;
    QWidget *m_qrPanel;
    QWidget *m_codePanel;
    QrCodeView *m_qrCode;
    QLabel *m_userCode;
    TextLabel *m_countdown;
    BalancedLabel *m_failure;
};
