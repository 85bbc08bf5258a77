#pragma once

#include <QColor>
#include <QList>
#include <QRectF>
#include <QVariantAnimation>
#include <QWidget>

// The waveform symbol of the recording status line, animated: while running,
// its bars light up one after another from left to right and start again
// (the others stay dimmed), which says "audio is being taken in" without
// moving anything. Stopped, every bar is drawn at full strength.
//
// Sized from its font like a glyph of the text beside it.
class WaveformIndicator : public QWidget
{
    Q_OBJECT
public:
    explicit WaveformIndicator(QWidget *parent = nullptr);

    void setColor(const QColor &color);
    [[nodiscard]] QColor color() const { return m_color; }

    // Runs the highlight while true; the animation also pauses while hidden.
    void setRunning(bool running);
    [[nodiscard]] bool isRunning() const { return m_running; }

    // Position of the highlight in bars, [0, barCount). Settable so that a
    // snapshot can show a chosen frame.
    void setPhase(qreal phase);
    [[nodiscard]] qreal phase() const { return m_phase; }

    // The opacity bar `index` is drawn with at the current phase.
    [[nodiscard]] qreal barOpacity(int index) const;

    static constexpr int barCount = 7;
    static constexpr int cycleMs = 1200;
    static constexpr qreal dimmedOpacity = 0.35;

    // The bars of the glyph inside `rect`.
    [[nodiscard]] static QList<QRectF> bars(const QRectF &rect);

    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void updateAnimation();

    QColor m_color;
    bool m_running = false;
    qreal m_phase = 0;
    QVariantAnimation m_animation;
};
