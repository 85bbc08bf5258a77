#include "ui/WrappedText.h"

#include <QPainter>
#include <QRectF>
#include <QTextLayout>
#include <QTextOption>

#include <algorithm>
#include <utility>

namespace {

// Lays `text` out at `width` and hands every line to `visit`.
template <typename Visit> void layOut(const QString &text, const QFont &font, qreal width, Visit &&visit)
{
    QString lines = text;
    lines.replace(QLatin1Char('\n'), QChar::LineSeparator);
    QTextLayout layout(lines, font);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    option.setAlignment(Qt::AlignHCenter);
    layout.setTextOption(option);
    layout.setCacheEnabled(true);
    layout.beginLayout();
    qreal y = 0;
    for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
        line.setLineWidth(width);
        line.setPosition(QPointF(0, y));
        y += line.height();
    }
    layout.endLayout();
    visit(layout);
}

} // namespace

WrappedText::WrappedText(QString text, QFont font)
    : m_text(std::move(text))
    , m_font(std::move(font))
{ }

QSizeF WrappedText::measure(qreal width) const
{
    QSizeF size(0, 0);
    layOut(m_text, m_font, width, [&size](const QTextLayout &layout) {
        for (int i = 0; i < layout.lineCount(); ++i) {
            const QTextLine line = layout.lineAt(i);
            size.setWidth(std::max(size.width(), line.naturalTextWidth()));
            size.setHeight(size.height() + line.height());
        }
    });
    return size;
}

QStringList WrappedText::lines(qreal width) const
{
    QStringList result;
    layOut(m_text, m_font, width, [&result](const QTextLayout &layout) {
        for (int i = 0; i < layout.lineCount(); ++i) {
            const QTextLine line = layout.lineAt(i);
            result << layout.text().mid(line.textStart(), line.textLength());
        }
    });
    return result;
}

void WrappedText::draw(QPainter &painter, const QRectF &rect, qreal width) const
{
    layOut(m_text, m_font, width, [&](const QTextLayout &layout) {
        const QRectF bounds = layout.boundingRect();
        // The lines are centred within `width` by the layout; centre that band in rect.
        const QPointF origin(rect.center().x() - width / 2, rect.center().y() - bounds.height() / 2);
        layout.draw(&painter, origin);
    });
}
