#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// The desktop's sound settings, where Linux keeps what stands in for the
// privacy panes: which microphone is used and whether it is muted, and which
// streams record what. The permission rows' "Settings" buttons open them.
//
// The choice of program, in order:
//   GNOME (and desktops built on its settings): gnome-control-center sound
//   KDE Plasma:                                systemsettings kcm_pulseaudio
//   anywhere pavucontrol is installed:         pavucontrol --tab=4 (input devices,
//                                              for the microphone) or --tab=2
//                                              (recording streams, for system audio)
//   else the first of gnome-control-center and systemsettings that is installed.
// With none of them nothing is opened; like the platform's own request, the
// outcome is not reported to the user.
class SoundSettings
{
public:
    enum class Pane : quint8 { microphone, systemAudio };

    // What a "Settings" button calls; RecorderView takes one so that tests never
    // start a program.
    using Opener = std::function<void(Pane)>;
    // Finds a program on the PATH; empty when it is not installed.
    using FindProgram = std::function<QString(const QString &name)>;

    // The program and its arguments for `pane` on `desktop` (the colon-separated
    // $XDG_CURRENT_DESKTOP), or nothing.
    [[nodiscard]] static std::optional<QStringList> command(
        Pane pane, const QString &desktop, const FindProgram &find);

    // Starts the command for this session, detached; logs when there is none.
    [[nodiscard]] static Opener desktop();
};
