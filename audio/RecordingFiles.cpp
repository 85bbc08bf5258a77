#include "audio/RecordingFiles.h"

#include <QDir>
#include <QFileInfo>

namespace {

const QLatin1String systemSuffix("_system.wav");
const QLatin1String microphoneSuffix("_microphone.wav");
const QLatin1String mixedSuffix("_mixed.m4a");
const QLatin1String sidecarSuffix(".json");

} // namespace

RecordingFiles::RecordingFiles(const QString &folder, const QString &stamp)
    : m_folder(folder)
    , m_stamp(stamp)
{ }

RecordingFiles RecordingFiles::ofMixed(const QString &mixedPath)
{
    const QFileInfo info(mixedPath);
    const QString name = info.fileName();
    return { info.path(),
        name.endsWith(mixedSuffix) ? name.chopped(mixedSuffix.size()) : info.completeBaseName() };
}

QStringList RecordingFiles::stampsIn(const QString &folder)
{
    QStringList stamps;
    for (const QString &name : QDir(folder).entryList(QDir::Files)) {
        for (const QLatin1String suffix : { systemSuffix, microphoneSuffix, mixedSuffix }) {
            if (name.size() > suffix.size() && name.endsWith(suffix)) {
                const QString stamp = name.chopped(suffix.size());
                if (!stamps.contains(stamp))
                    stamps << stamp;
                break;
            }
        }
    }
    return stamps;
}

QString RecordingFiles::path(QLatin1String suffix) const
{
    return QDir(m_folder).filePath(m_stamp + suffix);
}

QString RecordingFiles::systemAudio() const
{
    return path(systemSuffix);
}

QString RecordingFiles::microphone() const
{
    return path(microphoneSuffix);
}

QString RecordingFiles::mixed() const
{
    return path(mixedSuffix);
}

QString RecordingFiles::sidecar() const
{
    return path(sidecarSuffix);
}
