#pragma once

#include <QString>

#include <optional>

class RecorderFlow;
class SessionStore;

// The recorder's actions taken from outside its window: the desktop's launcher
// actions and the command line (over the application's bus interface), the tray's
// menu and the global shortcut. Each either moves the flow as its button would, or
// answers the one sentence that says why it could not (the window's buttons are
// simply not offered in those states, so they need no sentence).
//
// Main thread only.
class RecorderCommand
{
public:
    enum class Name {
        toggle, // idle/sent/failed → record, recording → pause, paused → resume
        record,
        pause,
        save, // only from paused: "Save" is offered there
    };

    // The name the desktop file's actions and the bus use ("toggle", "record", …).
    [[nodiscard]] static std::optional<Name> named(const QString &name);

    // Nothing when the action was taken, else the sentence for the user.
    [[nodiscard]] static std::optional<QString> take(
        Name name, RecorderFlow &flow, const SessionStore &store);
};
