#pragma once

#include <QWidget>

// The window's content area: 380 × 430 points, 24 points of padding on every
// side and the application background behind everything. The running window
// and the snapshots use the same frame, so a snapshot is what the user sees.
class ScreenFrame : public QWidget
{
    Q_OBJECT

public:
    static constexpr int width = 380;
    static constexpr int height = 430;
    static constexpr int padding = 24;

    // Takes `content` (any widget) as its only child.
    explicit ScreenFrame(QWidget *content, QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;
};
