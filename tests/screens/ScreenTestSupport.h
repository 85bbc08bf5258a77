#pragma once

// What the screen tests share: the window's content area to put a screen in, the
// renders kept for review, and the questions every state of a screen must answer
// well (which controls are there, can each be named and reached).

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
    static constexpr int width = 380;
    static constexpr int height = 430;
    static constexpr int padding = 24;

    explicit Frame(QWidget *screen)
    {
        auto *layout = new QVBoxLayout(this);
        layout->setContentsMargins(padding, padding, padding, padding);
        layout->addWidget(screen);
        setFixedSize(width, height);
        QPalette palette = this->palette();
        palette.setColor(QPalette::Window, Palette::selvaroBackground());
        setPalette(palette);
        setAutoFillBackground(true);
    }
};

// Where renders are kept: $SELVARO_SCREENS_RENDER_DIR, else a folder removed after the test.
inline QString renderDir()
{
    static QTemporaryDir temporary;
    const QString dir = qEnvironmentVariable("SELVARO_SCREENS_RENDER_DIR", temporary.path());
    QDir().mkpath(dir);
    return dir;
}

// `frame` rendered at `ratio` and saved as <name>.png (2x) or <name>@1x.png.
inline QImage render(QWidget &frame, const QString &name, qreal ratio = 2)
{
    QImage image = Rendering::toImage(frame, ratio, Palette::selvaroBackground());
    const QString suffix = ratio == 2 ? QString() : QStringLiteral("@%1x").arg(ratio);
    image.save(QDir(renderDir()).filePath(name + suffix + QStringLiteral(".png")));
    return image;
}

// The widget named `name` inside `screen` (a warning when there is none).
template <typename T = QWidget>
T *child(QWidget *screen, const char *name)
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
    for (QAbstractButton *button : root->findChildren<QAbstractButton *>()) {
        if (button->isVisibleTo(root))
            names << accessibleName(button);
    }
    return names;
}

// Shown buttons that a keyboard cannot reach or a screen reader cannot name.
inline QStringList unreachableButtons(QWidget *root)
{
    QStringList problems;
    for (QAbstractButton *button : root->findChildren<QAbstractButton *>()) {
        if (!button->isVisibleTo(root))
            continue;
        if (accessibleName(button).isEmpty())
            problems << QStringLiteral("unnamed ") + QString::fromLatin1(button->metaObject()->className());
        if (!(button->focusPolicy() & Qt::TabFocus))
            problems << accessibleName(button) + QStringLiteral(" not reachable with Tab");
    }
    return problems;
}

// Shown widgets that reach beyond `screen`'s bounds (into the window's padding):
// a layout that does not fit its 332 × 382 points.
inline QStringList outside(QWidget *screen)
{
    QStringList problems;
    for (QWidget *child : screen->findChildren<QWidget *>()) {
        if (!child->isVisibleTo(screen))
            continue;
        const QRect inScreen(child->mapTo(screen, QPoint(0, 0)), child->size());
        if (!screen->rect().contains(inScreen))
            problems << child->objectName() + QLatin1Char(' ') + QString::fromLatin1(child->metaObject()->className());
    }
    return problems;
}

} // namespace ScreenTest
