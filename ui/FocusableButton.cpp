#include "ui/FocusableButton.h"

#include <QFocusEvent>
#include <QKeyEvent>

FocusableButton::FocusableButton(QWidget *parent)
    : QAbstractButton(parent)
{
    setFocusPolicy(Qt::StrongFocus);
}

void FocusableButton::keyPressEvent(QKeyEvent *event)
{
    if ((event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) && !event->isAutoRepeat()) {
        animateClick();
        event->accept();
        return;
    }
    QAbstractButton::keyPressEvent(event);
}

void FocusableButton::focusInEvent(QFocusEvent *event)
{
    m_keyboardFocus = event->reason() != Qt::MouseFocusReason;
    QAbstractButton::focusInEvent(event);
    update();
}

void FocusableButton::focusOutEvent(QFocusEvent *event)
{
    QAbstractButton::focusOutEvent(event);
    update();
}
