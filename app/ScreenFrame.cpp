#include "app/ScreenFrame.h"

#include "ui/Palette.h"

#include <QPainter>
#include <QVBoxLayout>

ScreenFrame::ScreenFrame(QWidget *content, QWidget *parent)
    : QWidget(parent)
{
    setFixedSize(width, height);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(padding, padding, padding, padding);
    layout->setSpacing(0);
    layout->addWidget(content);
}

void ScreenFrame::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), Palette::selvaroBackground());
}
