#include "recording/UnsentRecordings.h"

#include "audio/KeptRecording.h"
#include "audio/RecordingFiles.h"
#include "audio/SpeakerEchoSetting.h"
#include "common/Logging.h"
#include "recording/RecordingSidecar.h"

#include <QFile>

#include <algorithm>
#include <cmath>

QList<UnsentRecordings::Recording> UnsentRecordings::in(const QString &folder)
{
    QList<Recording> found;
    for (const QString &stamp : RecordingFiles::stampsIn(folder)) {
        const RecordingFiles files(folder, stamp);
        const auto sidecar = RecordingSidecar::read(files.sidecar());
        if (sidecar && sidecar->stage == RecordingSidecar::Stage::noted)
            continue;
        const KeptRecording kept(files);
        Recording recording { stamp, {}, 0, sidecar && sidecar->saved };
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
    for (const Recording &recording : in(folder)) {
        const RecordingFiles files(folder, recording.stamp);
        KeptRecording(files).cancel();
        QFile::remove(files.sidecar());
    }
}

QCoro::Task<std::optional<UnsentRecordings::Offer>> UnsentRecordings::oldest(QString folder)
{
    for (const QString &stamp : RecordingFiles::stampsIn(folder)) {
        const RecordingFiles files(folder, stamp);
        const auto sidecar = RecordingSidecar::read(files.sidecar());
        if (!sidecar || sidecar->stage != RecordingSidecar::Stage::noted)
            continue;
        // Sending it again would make a second note.
        qCInfo(lcRecorder, "deleting the recording %s, whose note exists", qUtf8Printable(stamp));
        KeptRecording(files).cancel();
        QFile::remove(files.sidecar());
    }
    const QList<Recording> unsent = in(folder);
    if (unsent.isEmpty())
        co_return std::nullopt;
    Offer offer { unsent.first(),
        std::make_shared<KeptRecording>(
            RecordingFiles(folder, unsent.first().stamp), SpeakerEchoSetting::isOn()) };
    if (offer.kept->hasCaptures()) {
        qCInfo(lcRecorder, "mixing the recording %s left unsent", qUtf8Printable(offer.recording.stamp));
        QCoro::Task<> mixing = offer.kept->stop();
        co_await std::move(mixing);
        if (!offer.kept->mixFailure())
            RecordingSidecar::keep(offer.kept->finalMixedPath(), offer.recording.startedAt,
                offer.recording.recordedSeconds, RecordingSidecar::Stage::mixed);
    }
    co_return offer;
}
