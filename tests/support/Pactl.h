#pragma once

#include <QString>
#include <QStringList>

// Runs `pactl` against the test's private sound server (PULSE_SERVER from the
// fixture) and returns its standard output; empty and `ok` false on failure.
QString pactl(const QStringList &arguments, bool *ok = nullptr);

// Unloads every sink and source of the fixture: a computer without audio devices.
[[nodiscard]] bool unloadAllDevices();
