#include "support/Pactl.h"

#include <QProcess>

QString pactl(const QStringList &arguments, bool *ok)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    const bool finished = process.waitForFinished(5000);
    const bool success = finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (ok)
        *ok = success;
    return success ? QString::fromUtf8(process.readAllStandardOutput()).trimmed() : QString();
}

bool unloadAllDevices()
{
    for (const char *module : { "module-remap-source", "module-null-sink" }) {
        bool ok = false;
        pactl({ QStringLiteral("unload-module"), QLatin1String(module) }, &ok);
        if (!ok)
            return false;
    }
    return true;
}
