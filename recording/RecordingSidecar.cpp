#include "recording/RecordingSidecar.h"

#include "audio/RecordingFiles.h"
#include "audio/RecordingsFolder.h"
#include "common/Logging.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <unistd.h>

namespace {

constexpr std::array stageNames { "recording", "recorded", "mixed", "uploaded", "noted" };

} // namespace

void RecordingSidecar::keep(
    const QString &mixedPath, const QDateTime &startedAt, double seconds, Stage stage, bool saved)
{
    const std::optional<RecordingSidecar> earlier = of(mixedPath);
    RecordingSidecar { RecordingFiles::ofMixed(mixedPath).stamp(), startedAt, seconds, stage, {},
        saved || (earlier && earlier->saved) }
        .keepFor(mixedPath);
}

std::optional<RecordingSidecar> RecordingSidecar::of(const QString &mixedPath)
{
    return read(RecordingFiles::ofMixed(mixedPath).sidecar());
}

void RecordingSidecar::keepFor(const QString &mixedPath) const
{
    if (auto error = write(RecordingFiles::ofMixed(mixedPath).sidecar()))
        qCWarning(lcRecorder, "sidecar: %s", qUtf8Printable(*error));
}

void RecordingSidecar::remove(const QString &mixedPath)
{
    QFile::remove(RecordingFiles::ofMixed(mixedPath).sidecar());
}

std::optional<QString> RecordingSidecar::write(const QString &path) const
{
    QJsonObject json { { QStringLiteral("stamp"), stamp },
        { QStringLiteral("startedAt"), startedAt.toUTC().toString(Qt::ISODateWithMs) },
        { QStringLiteral("recordedSeconds"), recordedSeconds },
        { QStringLiteral("stage"), QLatin1String(stageNames.at(static_cast<std::size_t>(stage))) },
        { QStringLiteral("saved"), saved } };
    if (stage == Stage::uploaded)
        json.insert(QStringLiteral("recordingKey"), recordingKey);
    const QByteArray bytes = QJsonDocument(json).toJson(QJsonDocument::Compact);
    const QString next = path + QStringLiteral(".new");
    const int descriptor = RecordingsFolder::createPrivateFile(next);
    if (descriptor < 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    const bool written
        = ::write(descriptor, bytes.constData(), static_cast<size_t>(bytes.size())) == bytes.size()
        && ::fsync(descriptor) == 0;
    const int error = errno;
    ::close(descriptor);
    if (!written
        || std::rename(QFile::encodeName(next).constData(), QFile::encodeName(path).constData()) != 0) {
        const QString reason = QString::fromLocal8Bit(std::strerror(written ? errno : error));
        QFile::remove(next);
        return reason;
    }
    return std::nullopt;
}

std::optional<RecordingSidecar> RecordingSidecar::read(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QJsonObject json = QJsonDocument::fromJson(file.read(64 * 1024)).object();
    const QString stage = json.value(QStringLiteral("stage")).toString();
    const auto known = std::find_if(stageNames.begin(), stageNames.end(),
        [&stage](const char *name) { return stage == QLatin1String(name); });
    const QDateTime startedAt
        = QDateTime::fromString(json.value(QStringLiteral("startedAt")).toString(), Qt::ISODateWithMs);
    if (known == stageNames.end() || !startedAt.isValid())
        return std::nullopt;
    const QString key = json.value(QStringLiteral("recordingKey")).toString();
    auto reached = static_cast<Stage>(std::distance(stageNames.begin(), known));
    // An upload without its key cannot be built on: the mix is sent again.
    if (reached == Stage::uploaded && key.isEmpty())
        reached = Stage::mixed;
    return RecordingSidecar { json.value(QStringLiteral("stamp")).toString(), startedAt,
        json.value(QStringLiteral("recordedSeconds")).toDouble(), reached, key,
        json.value(QStringLiteral("saved")).toBool() };
}
