#pragma once

#include "ui/FocusableButton.h"

#include "ui/PillButtonStyle.h"
#include "ui/Symbol.h"

#include <QVariantAnimation>

#include <optional>

// An action button drawn as a capsule in a PillButtonStyle: an optional
// symbol and the title, one line, centred. Pressing dims it to 0.7 and
// shrinks it to 0.98 about its centre, eased out over 0.12 s; that feedback can
// be switched off. Reachable with Tab, activated with Space, Return or Enter,
// and shows a focus ring when focused from the keyboard. Its accessible name
// is its title.
class PillButton : public FocusableButton
{
    Q_OBJECT
public:
    explicit PillButton(
        const QString &text, std::optional<Symbol> symbol, PillButtonStyle style, QWidget *parent = nullptr);
    explicit PillButton(const QString &text, PillButtonStyle style, QWidget *parent = nullptr)
        : PillButton(text, std::nullopt, style, parent)
    { }

    [[nodiscard]] PillButtonStyle pillStyle() const { return m_style; }
    void setPillStyle(PillButtonStyle style);

    [[nodiscard]] std::optional<Symbol> symbol() const { return m_symbol; }
    void setSymbol(std::optional<Symbol> symbol);

    // Whether pressing dims and shrinks the button (on by default).
    [[nodiscard]] bool pressedFeedback() const { return m_pressedFeedback; }
    void setPressedFeedback(bool enabled);

    // The whole button drawn at `opacity` (1 by default), under the pressed
    // feedback: a dimmed permission row. Painted, not a graphics effect, so that
    // it stays crisp when rendered at 2x.
    void setOpacity(qreal opacity);
    [[nodiscard]] qreal opacity() const { return m_opacity; }

    // How far the pressed look has come: 0 released … 1 fully pressed.
    [[nodiscard]] qreal pressProgress() const { return m_progress; }
    // What is painted now: opacity 1 → 0.7 and scale 1 → 0.98 with the progress.
    [[nodiscard]] qreal currentOpacity() const;
    [[nodiscard]] qreal currentScale() const;

    // The scale the title is drawn at for the current width: below 1 only
    // when fillsWidth and the column is too narrow, never below the style's
    // minimum scale factor (the title is elided beyond that).
    [[nodiscard]] qreal labelScale() const;

    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    // Width of symbol + gap + title at full size.
    [[nodiscard]] qreal labelWidth() const;
    [[nodiscard]] qreal symbolExtent() const;
    void animatePressTo(qreal target);
    void applySizePolicy();

    PillButtonStyle m_style;
    std::optional<Symbol> m_symbol;
    bool m_pressedFeedback = true;
    qreal m_progress = 0;
    qreal m_opacity = 1;
    QVariantAnimation m_pressAnimation;
};
