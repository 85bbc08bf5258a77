#pragma once

#include <QWidget>

#include <chrono>

// One source's live level: a small pill that fills from the left, quiet in
// colour, with no numbers. The loudest recent level stays marked for a moment
// (peak hold) so that a short sound is still seen. Dimmed, it is drawn faded and
// keeps whatever it showed: the paused look.
//
// The bar follows a decibel scale (-50 dB at the left end, full scale at the
// right), as ears do, so speech fills a good part of it; the accessible value is
// the plain level in percent of full scale, 0 to 100. Its changes are announced
// to assistive technology only while one listens.
//
// Main thread only.
class LevelMeter : public QWidget
{
    Q_OBJECT

public:
    explicit LevelMeter(QWidget *parent = nullptr);

    // 0..1 of full scale.
    void setLevel(double level);
    [[nodiscard]] double level() const { return m_level; }
    // The level in percent of full scale, rounded: the accessible value.
    [[nodiscard]] int percent() const;

    void setDimmed(bool dimmed);
    [[nodiscard]] bool isDimmed() const { return m_dimmed; }

    // Where a level sits along the bar, 0..1.
    [[nodiscard]] static double position(double level);

    static constexpr std::chrono::milliseconds peakHold { 800 };
    static constexpr qreal dimmedOpacity = 0.45;

    [[nodiscard]] QSize sizeHint() const override { return { 64, 6 }; }
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    double m_level = 0;
    double m_peak = 0;
    std::chrono::steady_clock::time_point m_peakAt;
    bool m_dimmed = false;
};
