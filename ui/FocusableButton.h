#pragma once

#include <QAbstractButton>

// What the custom-painted buttons share about the keyboard: Tab reaches them,
// Space, Return and Enter activate them, and they know whether their focus
// came from the keyboard, which is when a focus ring is drawn (a click gives
// focus too, but a ring then would only be noise).
class FocusableButton : public QAbstractButton
{
    Q_OBJECT
public:
    explicit FocusableButton(QWidget *parent = nullptr);

    // Focused, and not by the mouse.
    [[nodiscard]] bool showsFocusRing() const { return hasFocus() && m_keyboardFocus; }

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;

private:
    bool m_keyboardFocus = false;
};
