#pragma once

#include "recording/RecorderState.h"

// What closing the window does. A recording must never go on unseen: with a tray the
// window hides there while something is under way (recording, paused, sending) and
// the tray icon shows it; without one, closing while recording or paused asks
// first, as quitting keeps the recording but stops it. Otherwise the window closes
// and the program ends, as it always has.
class WindowClose
{
public:
    enum class Outcome { quit, hideToTray, askFirst };

    [[nodiscard]] static Outcome decide(RecorderState::Kind kind, bool trayShown);
};
