#pragma once

#include <QDateTime>
#include <QList>
#include <QString>

// The recordings a folder holds that were never sent: every STAMP with a capture or a
// mixed file left (a sent recording leaves nothing). Their start and length come from
// the sidecar; where it could not say (no sidecar, or one still at "recording" because
// the process ended without closing the files), from the STAMP and the captures' frames.
class UnsentRecordings
{
public:
    struct Recording
    {
        QString stamp;
        QDateTime startedAt;
        double recordedSeconds = 0;
    };

    // Oldest first; empty when the folder does not exist.
    [[nodiscard]] static QList<Recording> in(const QString &folder);
    // Deletes every recording's files and sidecars in `folder`.
    static void removeAll(const QString &folder);
};
