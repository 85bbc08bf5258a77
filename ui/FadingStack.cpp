#include "ui/FadingStack.h"

#include "ui/Motion.h"

#include <QGraphicsOpacityEffect>
#include <QStackedLayout>
#include <QVBoxLayout>

FadingStack::FadingStack(QWidget *parent)
    : QWidget(parent)
    , m_layout(new QStackedLayout(this))
{
    m_layout->setContentsMargins(0, 0, 0, 0);
    // Both pages must be visible during a fade; visibility is managed here.
    m_layout->setStackingMode(QStackedLayout::StackAll);
    m_fade.setStartValue(0.0);
    m_fade.setEndValue(1.0);
    m_fade.setDuration(Motion::stateMs);
    m_fade.setEasingCurve(Motion::easeInOut());
    connect(&m_fade, &QVariantAnimation::valueChanged, this, [this](const QVariant &value) {
        const qreal progress = value.toReal();
        setOpacity(m_current, progress);
        setOpacity(m_outgoing, 1.0 - progress);
    });
    connect(&m_fade, &QVariantAnimation::finished, this, &FadingStack::finishFade);
}

QVBoxLayout *FadingStack::topAligned(QWidget *page)
{
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    return layout;
}

int FadingStack::addPage(QWidget *page)
{
    const int index = m_layout->addWidget(page);
    if (!m_current) {
        m_current = page;
        page->show();
    } else {
        page->hide();
    }
    return index;
}

int FadingStack::count() const
{
    return m_layout->count();
}

QWidget *FadingStack::page(int index) const
{
    return m_layout->widget(index);
}

void FadingStack::setCurrentPage(QWidget *page)
{
    if (!page || page == m_current || m_layout->indexOf(page) < 0)
        return;
    // A fade in progress ends where it was heading before the next begins.
    settle();
    m_outgoing = m_current;
    m_current = page;
    m_current->show();
    m_current->raise();
    if (m_animated && isVisible() && m_outgoing && !insideFadingPage()) {
        for (QWidget *fading : { m_current.data(), m_outgoing.data() })
            for (FadingStack *inner : fading->findChildren<FadingStack *>())
                inner->settle();
        setOpacity(m_current, 0.0);
        setOpacity(m_outgoing, 1.0);
        m_fade.start();
    } else {
        finishFade();
    }
    emit currentPageChanged(page);
}

void FadingStack::settle()
{
    if (!isFading())
        return;
    m_fade.stop();
    finishFade();
}

bool FadingStack::insideFadingPage() const
{
    for (const QWidget *widget = parentWidget(); widget; widget = widget->parentWidget())
        if (widget->graphicsEffect())
            return true;
    return false;
}

void FadingStack::finishFade()
{
    if (m_outgoing && m_outgoing != m_current) {
        m_outgoing->hide();
        m_outgoing->setGraphicsEffect(nullptr);
    }
    m_outgoing = nullptr;
    if (m_current)
        m_current->setGraphicsEffect(nullptr);
}

void FadingStack::setOpacity(QWidget *page, qreal opacity)
{
    if (!page)
        return;
    auto *effect = qobject_cast<QGraphicsOpacityEffect *>(page->graphicsEffect());
    if (!effect) {
        effect = new QGraphicsOpacityEffect(page);
        page->setGraphicsEffect(effect);
    }
    effect->setOpacity(opacity);
}
