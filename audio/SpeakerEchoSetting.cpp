#include "audio/SpeakerEchoSetting.h"

#include "common/SettingsFile.h"

namespace {

const QString key = QStringLiteral("removeSpeakerEcho");

} // namespace

bool SpeakerEchoSetting::isOn()
{
    return settingsFile().value(key, true).toBool();
}

void SpeakerEchoSetting::set(bool on)
{
    settingsFile().setValue(key, on);
}
