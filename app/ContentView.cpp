#include "app/ContentView.h"

#include "app/AppModel.h"
#include "ui/FadingStack.h"
#include "ui/Motion.h"
#include "ui/PairingView.h"
#include "ui/RecorderView.h"

#include <QVBoxLayout>

ContentView::ContentView(AppModel &model, QWidget *parent)
    : QWidget(parent)
    , m_model(model)
{
    m_stack = new FadingStack(this);
    m_stack->setDuration(Motion::screenMs);
    m_loading = new QWidget;
    m_pairing = new PairingView(&model.pairing());
    m_recorder = new RecorderView(&model.recorder());
    m_stack->addPage(m_loading);
    m_stack->addPage(m_pairing);
    m_stack->addPage(m_recorder);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_stack);

    connect(m_recorder, &RecorderView::unlinkRequested, this, [this] { m_model.unlink(); });
    connect(&model.store(), &SessionStore::sessionChanged, this, &ContentView::chooseScreen);
    connect(&model.store(), &SessionStore::loadedChanged, this, &ContentView::chooseScreen);
    chooseScreen();
}

QWidget *ContentView::currentScreen() const
{
    QWidget *page = m_stack->currentPage();
    return page == m_loading ? nullptr : page;
}

void ContentView::chooseScreen()
{
    const SessionStore &store = m_model.store();
    if (!store.isLoaded() && !store.isLinked()) {
        m_stack->setCurrentPage(m_loading);
        return;
    }
    m_stack->setCurrentPage(store.isLinked() ? static_cast<QWidget *>(m_recorder) : m_pairing);
}

void ContentView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (m_refreshStarted)
        return;
    m_refreshStarted = true;
    m_model.refreshAtStart();
}
