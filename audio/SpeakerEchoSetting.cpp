#include "audio/SpeakerEchoSetting.h"

#include "common/SettingsFile.h"

namespace {

QSettings settings()
{
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, QString::fromLatin1(settingsOrganization),
        QString::fromLatin1(settingsApplication));
}

const QString key = QStringLiteral("removeSpeakerEcho");

} // namespace

bool SpeakerEchoSetting::isOn()
{
    return settings().value(key, true).toBool();
}

void SpeakerEchoSetting::set(bool on)
{
    settings().setValue(key, on);
}
