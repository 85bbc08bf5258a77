#pragma once

#include "ui/QrCode.h"

#include <QWidget>

#include <optional>

// A QR code on a white card with rounded corners, 200 × 200 points. With no
// code (the message could not be encoded) it draws nothing and keeps its
// place, so the layout around it does not move.
class QrCodeView : public QWidget
{
    Q_OBJECT
public:
    static constexpr int side = 200;
    static constexpr qreal cornerRadius = 12;

    explicit QrCodeView(QWidget *parent = nullptr);

    // Encodes `message` (its bytes as given, e.g. a link's UTF-8) and shows it.
    void setMessage(const QByteArray &message);
    [[nodiscard]] QByteArray message() const { return m_message; }
    [[nodiscard]] const std::optional<QrCode> &code() const { return m_code; }

    [[nodiscard]] QSize sizeHint() const override { return QSize(side, side); }
    [[nodiscard]] QSize minimumSizeHint() const override { return sizeHint(); }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QByteArray m_message;
    std::optional<QrCode> m_code;
};
