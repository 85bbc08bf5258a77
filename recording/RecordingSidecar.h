#pragma once

#include <QDateTime>
#include <QString>

#include <optional>

// The small JSON file beside a recording's audio (RecordingFiles::sidecar()) that lets a later run
// offer a recording this one could not send:
//   {"stamp": "1763977200.25", "startedAt": "2026-11-24T09:40:00.250Z",
//    "recordedSeconds": 1380.5, "stage": "uploaded", "recordingKey": "…", "saved": true}
// `stage` is how far the recording got: "recording" (still capturing when last
// written: recordedSeconds cannot be trusted, the files can), "recorded" (both files
// closed, not mixed), "mixed", "uploaded" (the mix is at the service under
// `recordingKey`, which only this stage carries) or "noted" (the note exists: the
// recording is done with, whatever is left of it goes). `saved`: the user asked for it
// to be sent (Save, "Send again"), so a later run sends it without asking. Written
// whole at each step, private (0600).
struct RecordingSidecar
{
    enum class Stage { recording, recorded, mixed, uploaded, noted };

    QString stamp;
    QDateTime startedAt;
    double recordedSeconds = 0;
    Stage stage = Stage::recording;
    QString recordingKey;
    bool saved = false;

    // Writes the sidecar of the recording whose mix goes to `mixedPath`, keeping what
    // an earlier one said of `saved` (`saved` here only adds to it). A sidecar that
    // cannot be written is logged and the recording goes on: its files can still say
    // how long it is.
    static void keep(const QString &mixedPath, const QDateTime &startedAt, double seconds, Stage stage,
        bool saved = false);
    // The sidecar of the recording whose mix goes to `mixedPath`, if one can be read.
    [[nodiscard]] static std::optional<RecordingSidecar> of(const QString &mixedPath);
    // Writes this as the sidecar of the recording whose mix goes to `mixedPath`; logged
    // when it cannot be.
    void keepFor(const QString &mixedPath) const;
    // Deletes the sidecar of the recording whose mix goes to `mixedPath`.
    static void remove(const QString &mixedPath);

    // Replaces `path` atomically (a new file renamed over it), mode 0600. The reason
    // on failure.
    [[nodiscard]] std::optional<QString> write(const QString &path) const;
    // Nothing when absent or unreadable.
    [[nodiscard]] static std::optional<RecordingSidecar> read(const QString &path);
};
