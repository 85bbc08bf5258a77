#include "ui/SystemAudioSourceButton.h"

#include "recording/SystemAudioSource.h"

#include <QActionGroup>
#include <QMenu>

SystemAudioSourceButton::SystemAudioSourceButton(SystemAudioSource *source, QWidget *parent)
    : TextButton(QString(), parent)
    , m_source(source)
{
    setObjectName(QStringLiteral("systemAudioSourceButton"));
    setAccessibleName(tr("System audio source"));
    if (m_source) {
        connect(m_source, &SystemAudioSource::chosenChanged, this, &SystemAudioSourceButton::showChoice);
        connect(this, &QAbstractButton::clicked, this, [this] {
            QMenu *menu = makeMenu();
            menu->setAttribute(Qt::WA_DeleteOnClose);
            menu->popup(mapToGlobal(QPoint(0, height())));
        });
    }
    showChoice();
}

QMenu *SystemAudioSourceButton::makeMenu()
{
    auto *menu = new QMenu(this);
    menu->setAccessibleName(tr("System audio source"));
    auto *group = new QActionGroup(menu);
    for (const SystemAudioSource::Entry &entry : m_source->entries()) {
        QAction *item = menu->addAction(entry.name);
        item->setCheckable(true);
        item->setChecked(entry.binary == m_source->chosen().binary);
        group->addAction(item);
        connect(item, &QAction::triggered, m_source,
            [source = m_source, binary = entry.binary] { source->choose(binary); });
    }
    return menu;
}

void SystemAudioSourceButton::showChoice()
{
    setText(m_source ? m_source->label() : tr("All apps"));
    updateGeometry();
}
