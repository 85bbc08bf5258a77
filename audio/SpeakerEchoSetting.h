#pragma once

// Whether the mix takes the speakers' echo out of the microphone channel: the app
// menu's "Remove Speaker Echo", on unless the user turned it off, remembered in the
// settings file. A recording takes the setting it had when it started.
//
// Thread contract: main thread.
namespace SpeakerEchoSetting {

[[nodiscard]] bool isOn();
void set(bool on);

} // namespace SpeakerEchoSetting
