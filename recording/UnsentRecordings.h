#pragma once

#include <QDateTime>
#include <QList>
#include <QString>

#include <qcoro/qcorotask.h>

#include <memory>
#include <optional>

class KeptRecording;

// The recordings a folder holds that were never sent: every STAMP with a capture or a
// mixed file left (a sent recording leaves nothing), but for one whose sidecar says its
// note exists (the process ended between the note and the file's removal), which is
// not unsent and is deleted by oldest(). Their start and length come from the sidecar;
// where it could not say (no sidecar, or one still at "recording" because the process
// ended without closing the files), from the STAMP and the captures' frames.
//
// Thread contract: main thread; oldest() mixes on the mixer's worker thread.
class UnsentRecordings
{
public:
    struct Recording
    {
        QString stamp;
        QDateTime startedAt;
        double recordedSeconds = 0;
        // The user asked for it to be sent (sidecar's `saved`).
        bool saved = false;
    };

    // What the recorder offers to send: the oldest unsent recording, ready to send
    // unless its mix failed (kept->mixFailure() then says why).
    struct Offer
    {
        Recording recording;
        std::shared_ptr<KeptRecording> kept;
    };

    // Oldest first; empty when the folder does not exist.
    [[nodiscard]] static QList<Recording> in(const QString &folder);
    // Deletes every recording's files and sidecars in `folder`.
    static void removeAll(const QString &folder);
    // The oldest recording `folder` keeps unsent, its captures mixed first when they
    // are still there (its sidecar then says "mixed"); nothing when there is none.
    // Deletes the recordings whose note exists first.
    [[nodiscard]] static QCoro::Task<std::optional<Offer>> oldest(QString folder);
};
