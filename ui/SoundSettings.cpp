#include "ui/SoundSettings.h"

#include "common/Logging.h"

#include <QProcess>
#include <QStandardPaths>

#include <algorithm>

namespace {

bool runsOn(const QString &desktop, QLatin1String name)
{
    const QStringList names = desktop.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    return std::any_of(names.begin(), names.end(),
        [name](const QString &entry) { return entry.compare(name, Qt::CaseInsensitive) == 0; });
}

} // namespace

std::optional<QStringList> SoundSettings::command(Pane pane, const QString &desktop, const FindProgram &find)
{
    const QString gnome = find(QStringLiteral("gnome-control-center"));
    const QString plasma = find(QStringLiteral("systemsettings"));
    const QString pavucontrol = find(QStringLiteral("pavucontrol"));
    const QStringList gnomeCommand { gnome, QStringLiteral("sound") };
    const QStringList plasmaCommand { plasma, QStringLiteral("kcm_pulseaudio") };

    if (!gnome.isEmpty()
        && (runsOn(desktop, QLatin1String("GNOME")) || runsOn(desktop, QLatin1String("Unity"))))
        return gnomeCommand;
    if (!plasma.isEmpty() && runsOn(desktop, QLatin1String("KDE")))
        return plasmaCommand;
    // pavucontrol's tabs: 2 recording streams, 4 input devices.
    if (!pavucontrol.isEmpty())
        return QStringList { pavucontrol,
            pane == Pane::microphone ? QStringLiteral("--tab=4") : QStringLiteral("--tab=2") };
    if (!gnome.isEmpty())
        return gnomeCommand;
    if (!plasma.isEmpty())
        return plasmaCommand;
    return std::nullopt;
}

SoundSettings::Opener SoundSettings::desktop()
{
    return [](Pane pane) {
        const std::optional<QStringList> command
            = SoundSettings::command(pane, qEnvironmentVariable("XDG_CURRENT_DESKTOP"),
                [](const QString &name) { return QStandardPaths::findExecutable(name); });
        if (!command) {
            qCWarning(lcRecorder, "no sound settings program found");
            return;
        }
        if (!QProcess::startDetached(command->first(), command->mid(1)))
            qCWarning(lcRecorder, "could not start %s", qUtf8Printable(command->first()));
    };
}
