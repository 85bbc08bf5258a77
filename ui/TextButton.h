#pragma once

#include "ui/FocusableButton.h"

#include <QColor>

// A chrome-less button that is just its title: the recorder's "Unlink" in the
// header and the pairing screen's swap link ("Can't scan?" / "Show the QR
// code", with setUnderlined(true) and a pointing-hand cursor). Footnote font
// and secondary colour unless set otherwise. It dims while pressed, is
// reachable with Tab (a focus ring surrounds the title when focused from the
// keyboard), activates with Space, Return or Enter, and its accessible name
// is its title.
class TextButton : public FocusableButton
{
    Q_OBJECT
public:
    explicit TextButton(const QString &text, QWidget *parent = nullptr);

    void setColor(const QColor &color);
    [[nodiscard]] QColor color() const { return m_color; }
    void setUnderlined(bool underlined);
    [[nodiscard]] bool isUnderlined() const { return font().underline(); }

    // Room around the title for the focus ring, in points.
    static constexpr int margin = 3;
    static constexpr qreal pressedOpacity = 0.5;

    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QColor m_color;
};
