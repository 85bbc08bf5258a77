#pragma once

// What the screen tests share: the window's content area to put a screen in, the
// renders kept for review, and the questions every state of a screen must answer
// well (which controls are there, can each be named and reached, does it fit).

#include "ui/Palette.h"
#include "ui/Rendering.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QDir>
#include <QImage>
#include <QStringList>
#include <QTemporaryDir>
#include <QVBoxLayout>
#include <QWidget>

namespace ScreenTest {

// The window's content: 380 × 430 points, the screen inside 24 points of padding,
// on the application background.
class Frame : public QWidget
{
public:
    explicit Frame(QWidget *screen)
    {
        auto *layout = new QVBoxLayout(this);
        layout->setContentsMargins(24, 24, 24, 24);
        layout->addWidget(screen);
        setFixedSize(380, 430);
        QPalette palette = this->palette();
        palette.setColor(QPalette::Window, Palette::selvaroBackground());
        setPalette(palette);
        setAutoFillBackground(true);
    }
};

// `frame` rendered at `ratio` and saved as <name>.png (2x) or <name>@1x.png in
// $SELVARO_SCREENS_RENDER_DIR, else in a folder removed after the test.
inline QImage render(QWidget &frame, const QString &name, qreal ratio = 2)
{
    static QTemporaryDir temporary;
    const QDir dir(qEnvironmentVariable("SELVARO_SCREENS_RENDER_DIR", temporary.path()));
    dir.mkpath(QStringLiteral("."));
    QImage image = Rendering::toImage(frame, ratio, Palette::selvaroBackground());
    image.save(dir.filePath(
        name + (ratio == 2 ? QString() : QStringLiteral("@%1x").arg(ratio)) + QStringLiteral(".png")));
    return image;
}

// The widget named `name` inside `screen` (a warning when there is none).
template <typename T = QWidget> T *child(QWidget *screen, const char *name)
{
    T *found = screen->findChild<T *>(QLatin1String(name));
    if (!found)
        qWarning("no child %s", name);
    return found;
}

// Whether the widget named `name` is shown as part of `screen` (whether or not
// the screen itself is on a window).
inline bool shows(QWidget *screen, const char *name)
{
    QWidget *widget = child(screen, name);
    return widget && widget->isVisibleTo(screen);
}

inline QString accessibleName(QWidget *widget)
{
    QAccessibleInterface *interface = QAccessible::queryAccessibleInterface(widget);
    return interface ? interface->text(QAccessible::Name) : QString();
}

// The accessible names of the buttons `root` shows now, in layout order.
inline QStringList shownButtons(QWidget *root)
{
    QStringList names;
    for (QAbstractButton *button : root->findChildren<QAbstractButton *>())
        names << (button->isVisibleTo(root) ? accessibleName(button) : QString());
    names.removeAll(QString());
    return names;
}

// Shown buttons that a keyboard cannot reach or a screen reader cannot name.
inline QStringList unreachableButtons(QWidget *root)
{
    QStringList problems;
    for (QAbstractButton *button : root->findChildren<QAbstractButton *>()) {
        const QString name = accessibleName(button);
        if (button->isVisibleTo(root) && (name.isEmpty() || !(button->focusPolicy() & Qt::TabFocus)))
            problems << name + QLatin1Char(' ') + QString::fromLatin1(button->metaObject()->className());
    }
    return problems;
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
