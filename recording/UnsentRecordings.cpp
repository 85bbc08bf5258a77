#include "recording/UnsentRecordings.h"

#include "audio/KeptRecording.h"
#include "recording/RecordingSidecar.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace {

const QRegularExpression audioName(QStringLiteral("^(.+)_(system\\.wav|microphone\\.wav|mixed\\.m4a)$"));

} // namespace

QList<UnsentRecordings::Recording> UnsentRecordings::in(const QString &folder)
{
    const QDir dir(folder);
    QStringList stamps;
    for (const QString &name : dir.entryList(QDir::Files)) {
        const QRegularExpressionMatch match = audioName.match(name);
        if (match.hasMatch() && !stamps.contains(match.captured(1)))
            stamps << match.captured(1);
    }
    QList<Recording> found;
    for (const QString &stamp : stamps) {
        const auto sidecar = RecordingSidecar::read(dir.filePath(stamp + QStringLiteral(".json")));
        const KeptRecording kept(folder, stamp);
        Recording recording { stamp, {}, 0 };
        const double stampSeconds = stamp.toDouble();
        recording.startedAt = sidecar
            ? sidecar->startedAt
            : QDateTime::fromMSecsSinceEpoch(std::llround(stampSeconds * 1000), Qt::UTC);
        if (sidecar && (sidecar->stage != RecordingSidecar::Stage::recording || !kept.hasCaptures()))
            recording.recordedSeconds = sidecar->recordedSeconds;
        else
            recording.recordedSeconds = kept.capturedSeconds();
        found << recording;
    }
    std::sort(found.begin(), found.end(),
        [](const Recording &a, const Recording &b) { return a.startedAt < b.startedAt; });
    return found;
}

void UnsentRecordings::removeAll(const QString &folder)
{
    const QDir dir(folder);
    for (const Recording &recording : in(folder)) {
        KeptRecording(folder, recording.stamp).cancel();
        QFile::remove(dir.filePath(recording.stamp + QStringLiteral(".json")));
    }
}
