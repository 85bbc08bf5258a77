#pragma once

#include <QString>
#include <QtGlobal>

#include <optional>

// The private folder that holds the recordings: "Recordings" under the user's own
// state folder, on disk and kept across reboots (an unsent recording must survive
// them), never a folder other users can read or plant files in.
class RecordingsFolder
{
public:
    // "$XDG_STATE_HOME/selvaro-recorder/Recordings" (XDG_STATE_HOME defaults to
    // ~/.local/state; a relative one is ignored, as the base directory rules say).
    [[nodiscard]] static QString defaultPath();

    // Creates `path` (and missing parents) as mode 0700, or tightens an existing
    // folder to 0700. Fails when it or its parent made for us belongs to someone
    // else or is a symbolic link. Returns the reason on failure.
    [[nodiscard]] static std::optional<QString> create(const QString &path);

    // Creates (or empties) the file `path` with mode 0600, and makes it 0600 if it
    // existed with another mode: every file the folder holds is private. Answers the
    // open descriptor, which the caller closes, or -1 with errno set.
    [[nodiscard]] static int createPrivateFile(const QString &path);

    // Bytes free for the user on the file system that holds `path`; nothing when it
    // cannot be told (no such folder).
    [[nodiscard]] static std::optional<qint64> freeSpace(const QString &path);
};
