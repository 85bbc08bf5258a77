#include "ui/LevelMetersRow.h"

#include "recording/RecorderFlow.h"
#include "ui/LevelMeter.h"
#include "ui/Palette.h"
#include "ui/TextLabel.h"
#include "ui/Typography.h"

#include <QHBoxLayout>

LevelMetersRow::LevelMetersRow(RecorderFlow *flow, bool dimmed, QWidget *parent)
    : QWidget(parent)
    , m_flow(flow)
{
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addStretch(1);
    const auto add = [&](const QString &caption, const QString &name, const char *objectName) {
        auto *label = new TextLabel(caption, Typography::system(9), Palette::tertiaryText(), this);
        auto *meter = new LevelMeter(this);
        meter->setObjectName(QLatin1String(objectName));
        meter->setAccessibleName(name);
        meter->setDimmed(dimmed);
        layout->addWidget(label, 0, Qt::AlignVCenter);
        layout->addWidget(meter, 0, Qt::AlignVCenter);
        return meter;
    };
    m_systemAudio = add(tr("System audio"), tr("System audio level"), "systemAudioLevel");
    layout->addSpacing(14);
    m_microphone = add(tr("Microphone"), tr("Microphone level"), "microphoneLevel");
    layout->addStretch(1);

    if (m_flow) {
        connect(&m_flow->levels(), &LevelWatch::systemLevelChanged, this, &LevelMetersRow::showLevels);
        connect(&m_flow->levels(), &LevelWatch::microphoneLevelChanged, this, &LevelMetersRow::showLevels);
    }
    showLevels();
}

void LevelMetersRow::showLevels()
{
    if (!m_flow)
        return;
    m_systemAudio->setLevel(m_flow->levels().systemLevel());
    m_microphone->setLevel(m_flow->levels().microphoneLevel());
}
