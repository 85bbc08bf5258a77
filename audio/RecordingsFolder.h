#pragma once

#include <QString>

#include <optional>

// The private folder that holds the recordings: "Recordings" under the user's own
// temporary location, never a folder other users can read or plant files in.
class RecordingsFolder
{
public:
    // "$TMPDIR/selvaro-<uid>/Recordings" (TMPDIR defaults to /tmp). The per-user
    // parent keeps a shared /tmp from handing us a folder someone else made.
    [[nodiscard]] static QString defaultPath();

    // Creates `path` (and missing parents) as mode 0700, or tightens an existing
    // folder to 0700. Fails when it or its parent made for us belongs to someone
    // else or is a symbolic link. Returns the reason on failure.
    [[nodiscard]] static std::optional<QString> create(const QString &path);

    // Creates (or empties) the file `path` with mode 0600, and makes it 0600 if it
    // existed with another mode: every file the folder holds is private. Answers the
    // open descriptor, which the caller closes, or -1 with errno set.
    [[nodiscard]] static int createPrivateFile(const QString &path);
};
