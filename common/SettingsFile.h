#pragma once

#include <QSettings>
#include <QString>

// The one settings file of the application, fixed rather than the default one, so that
// what it keeps does not depend on the names the process gives itself (tests,
// snapshots, the app).
inline constexpr char settingsOrganization[] = "Selvaro";
inline constexpr char settingsApplication[] = "Selvaro Recorder";
