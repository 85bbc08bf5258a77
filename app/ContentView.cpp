#include "app/ContentView.h"

#include "app/AppModel.h"
#include "ui/BalancedLabel.h"
#include "ui/FadingStack.h"
#include "ui/Motion.h"
#include "ui/PairingView.h"
#include "ui/Palette.h"
#include "ui/PillButton.h"
#include "ui/RecorderView.h"
#include "ui/Typography.h"

#include <QVBoxLayout>

namespace {

// What shows while the secret store does not answer its first read.
QWidget *storeSilentPage(AppModel &model)
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(16);
    layout->addStretch(1);
    auto *message = new BalancedLabel(
        ContentView::tr("The keyring did not answer. It may be locked: unlock it, then try again."), page);
    message->setFont(Typography::body());
    message->setColor(Palette::primaryText());
    layout->addWidget(message);
    auto *tryAgain = new PillButton(
        ContentView::tr("Try again"), { PillButtonStyle::Kind::primary, PillButtonStyle::Size::regular });
    QObject::connect(tryAgain, &QAbstractButton::clicked, &model, &AppModel::readStoreAgain);
    layout->addWidget(tryAgain, 0, Qt::AlignHCenter);
    layout->addStretch(1);
    return page;
}

} // namespace

ContentView::ContentView(AppModel &model, QWidget *parent)
    : QWidget(parent)
    , m_model(model)
{
    m_stack = new FadingStack(this);
    m_stack->setDuration(Motion::screenMs);
    m_loading = new QWidget;
    m_storeSilent = storeSilentPage(model);
    m_pairing = new PairingView(&model.pairing());
    m_recorder = new RecorderView(&model.recorder());
    m_stack->addPage(m_loading);
    m_stack->addPage(m_storeSilent);
    m_stack->addPage(m_pairing);
    m_stack->addPage(m_recorder);

    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_stack);

    connect(m_recorder, &RecorderView::unlinkRequested, this, [this] { m_model.unlink(); });
    connect(&model.store(), &SessionStore::sessionChanged, this, &ContentView::chooseScreen);
    connect(&model.store(), &SessionStore::loadedChanged, this, &ContentView::chooseScreen);
    connect(&model, &AppModel::storeSilentChanged, this, &ContentView::chooseScreen);
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
        m_stack->setCurrentPage(m_model.isStoreSilent() ? m_storeSilent : m_loading);
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
