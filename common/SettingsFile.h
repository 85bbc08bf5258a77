#pragma once

#include <QSettings>
#include <QString>

// The one settings file of the application, fixed rather than the default one, so that
// what it keeps does not depend on the names the process gives itself (tests,
// snapshots, the app).
[[nodiscard]] inline QSettings settingsFile()
{
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Selvaro"),
        QStringLiteral("Selvaro Recorder"));
}
