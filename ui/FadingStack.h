#pragma once

#include <QPointer>
#include <QVariantAnimation>
#include <QWidget>

class QStackedLayout;
class QVBoxLayout;

// Pages in one place, one shown at a time, changing with a cross-fade: the
// outgoing page fades out while the incoming one fades in over the same
// spot, eased in and out over Motion::stateMs. The screens use it wherever a
// state change swaps content: the recorder's controls and status line, the
// pairing state area, the QR code / typed code swap, and the choice between
// the two screens (with Motion::screenMs).
//
// At rest no page carries a graphics effect, so a resting stack renders
// exactly like its page (crisp in 2x renders); the opacity effects exist only
// during a fade. The stack is as large as its largest page.
//
// Qt cannot paint a graphics effect inside another one, so stacks inside a
// fading page never fade themselves: a change there shows at once, and a fade
// that begins ends the fades of the stacks inside its pages first.
class FadingStack : public QWidget
{
    Q_OBJECT
public:
    explicit FadingStack(QWidget *parent = nullptr);

    // Adds a page (the stack takes it as a child); the first becomes current.
    int addPage(QWidget *page);
    // A layout for `page` that keeps its content at the top, so that the content
    // stays in place whichever page sets the stack's height.
    [[nodiscard]] static QVBoxLayout *topAligned(QWidget *page);
    [[nodiscard]] int count() const;
    [[nodiscard]] QWidget *page(int index) const;

    [[nodiscard]] QWidget *currentPage() const { return m_current; }
    // Shows `page`, fading when animated and visible, at once otherwise.
    void setCurrentPage(QWidget *page);

    // Off for snapshots and tests that want the end state at once.
    void setAnimated(bool animated) { m_animated = animated; }
    [[nodiscard]] bool isAnimated() const { return m_animated; }
    void setDuration(int milliseconds) { m_fade.setDuration(milliseconds); }

    [[nodiscard]] bool isFading() const { return m_fade.state() == QAbstractAnimation::Running; }

signals:
    void currentPageChanged(QWidget *page);

private:
    void finishFade();
    // A stop-and-finish of this stack's fade, if one runs.
    void settle();
    [[nodiscard]] bool insideFadingPage() const;
    void setOpacity(QWidget *page, qreal opacity);

    QStackedLayout *m_layout;
    QPointer<QWidget> m_current;
    QPointer<QWidget> m_outgoing;
    QVariantAnimation m_fade;
    bool m_animated = true;
};
