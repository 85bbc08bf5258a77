#include "app/WindowClose.h"

WindowClose::Outcome WindowClose::decide(RecorderState::Kind kind, bool trayShown)
{
    using Kind = RecorderState::Kind;
    const bool live = kind == Kind::recording || kind == Kind::paused;
    if (trayShown && (live || kind == Kind::saving))
        return Outcome::hideToTray;
    return live && !trayShown ? Outcome::askFirst : Outcome::quit;
}
