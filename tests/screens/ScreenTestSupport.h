#pragma once

// What the screen tests share: the questions every state of a screen must answer
// well (which controls are there, can each be named and reached, does it fit). The
// screens are tested inside the window's own content area, app/ScreenFrame.

#include "app/ScreenFrame.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QStringList>
#include <QWidget>

namespace ScreenTest {

// The widget named `name` inside `screen` (a warning when there is none).
template <typename T = QWidget> T *child(QWidget *screen, const char *name)
{
    T *found = screen->findChild<T *>(QLatin1String(name));
    return found ? found : (qWarning("no child %s", name), nullptr);
}

// Whether the widget named `name` is shown as part of `screen` (whether or not
// the screen itself is on a window).
inline bool shows(QWidget *screen, const char *name)
{
    QWidget *widget = child(screen, name);
    return widget && widget->isVisibleTo(screen);
}

// The buttons `root` shows now, in layout order, by their accessible names: an
// unnamed one reads "", one that Tab cannot reach gets " (no Tab)".
inline QStringList shownButtons(QWidget *root)
{
    QStringList names;
    for (QAbstractButton *button : root->findChildren<QAbstractButton *>()) {
        QAccessibleInterface *read = QAccessible::queryAccessibleInterface(button);
        if (button->isVisibleTo(root))
            names << read->text(QAccessible::Name)
                    + (button->focusPolicy() & Qt::TabFocus ? QString() : QStringLiteral(" (no Tab)"));
    }
    return names;
}

// Shown widgets that reach beyond `screen`'s bounds (into the window's padding):
// a layout that does not fit its 332 × 382 points.
inline QStringList outside(QWidget *screen)
{
    QStringList problems;
    for (QWidget *child : screen->findChildren<QWidget *>()) {
        if (child->isVisibleTo(screen)
            && !screen->rect().contains(QRect(child->mapTo(screen, QPoint()), child->size())))
            problems << child->objectName() + QLatin1Char(' ')
                    + QString::fromLatin1(child->metaObject()->className());
    }
    return problems;
}

} // namespace ScreenTest
