#include "ui/PermissionsBox.h"

#include "recording/RecorderFlow.h"
#include "ui/Palette.h"
#include "ui/PermissionRow.h"
#include "ui/TextLabel.h"
#include "ui/Typography.h"

#include <QVBoxLayout>

namespace {

QWidget *divider(QWidget *parent)
{
    auto *line = new QWidget(parent);
    line->setFixedHeight(1);
    QPalette palette = line->palette();
    palette.setColor(QPalette::Window, Palette::divider());
    line->setPalette(palette);
    line->setAutoFillBackground(true);
    return line;
}

} // namespace

PermissionsBox::PermissionsBox(RecorderFlow *flow, SoundSettings::Opener openSettings, QWidget *parent)
    : OutlinedBox(parent)
    , m_flow(flow)
    , m_openSettings(std::move(openSettings))
{
    setObjectName(QStringLiteral("permissionsBox"));
    setMaximumWidth(320);
    auto *layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    auto *heading = new TextLabel(tr("Two permissions, one after the other"),
        Typography::system(10, QFont::Medium), Palette::secondaryText(), this);
    heading->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    heading->setContentsMargins(16, 14, 16, 12);
    layout->addWidget(heading);
    layout->addWidget(divider(this));
    m_microphoneRow = new PermissionRow(1, tr("Microphone"), tr("Your voice."), this);
    m_microphoneRow->setObjectName(QStringLiteral("microphoneRow"));
    layout->addWidget(m_microphoneRow);
    layout->addWidget(divider(this));
    m_systemAudioRow = new PermissionRow(2, tr("System audio"), tr("What the other apps play."), this);
    m_systemAudioRow->setObjectName(QStringLiteral("systemAudioRow"));
    layout->addWidget(m_systemAudioRow);

    connect(m_microphoneRow, &PermissionRow::settingsClicked, this,
        [this] { openPane(SoundSettings::Pane::microphone); });
    connect(m_systemAudioRow, &PermissionRow::settingsClicked, this,
        [this] { openPane(SoundSettings::Pane::systemAudio); });
    if (m_flow) {
        RecorderPermissions *permissions = &m_flow->permissions();
        connect(m_microphoneRow, &PermissionRow::allowClicked, permissions,
            &RecorderPermissions::requestMicrophone);
        connect(m_systemAudioRow, &PermissionRow::allowClicked, permissions,
            &RecorderPermissions::requestSystemAudio);
        for (auto changed :
            { &RecorderPermissions::microphoneChanged, &RecorderPermissions::systemAudioChanged })
            connect(permissions, changed, this, &PermissionsBox::showPermissions);
        connect(m_flow, &RecorderFlow::systemAudioStepEnabledChanged, this, &PermissionsBox::showPermissions);
    }
    showPermissions();
}

void PermissionsBox::setAnimated(bool animated)
{
    m_microphoneRow->setAnimated(animated);
    m_systemAudioRow->setAnimated(animated);
}

void PermissionsBox::showPermissions()
{
    if (!m_flow)
        return;
    m_microphoneRow->setStatus(m_flow->permissions().microphone(), true);
    m_systemAudioRow->setStatus(m_flow->permissions().systemAudio(), m_flow->systemAudioStepEnabled());
}

void PermissionsBox::openPane(SoundSettings::Pane pane) const
{
    if (m_openSettings)
        m_openSettings(pane);
}
