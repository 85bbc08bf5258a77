#pragma once

#include <QString>

#include <optional>

// The instance already running in this session, as a second start of the program
// reaches it: raised by a plain start, handed "--toggle" and "--save". Needs a
// QCoreApplication; writes the user's sentence to standard error itself.
class RunningInstance
{
public:
    // Raises the running instance's window. False when it did not answer.
    static bool activate();

    // Takes `action` in the running instance, starting one first when none runs (the
    // bus starts it where the package installed its service file, else this program
    // is started again). The exit status: 0 taken, 1 not taken (its sentence on
    // standard error). Nothing without a session bus: the caller runs the program
    // itself.
    [[nodiscard]] static std::optional<int> take(const QString &action);
};
