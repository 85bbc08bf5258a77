#include "audio/RecordingsFolder.h"

#include <QDir>
#include <QFile>
#include <QStorageInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Makes one folder 0700 and checks that it is ours and not a link.
std::optional<QString> makePrivate(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    if (::mkdir(name.constData(), 0700) != 0 && errno != EEXIST)
        return QStringLiteral("Cannot create %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    struct stat info
    {
    };
    if (::lstat(name.constData(), &info) != 0)
        return QStringLiteral("Cannot read %1: %2").arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    if (!S_ISDIR(info.st_mode) || info.st_uid != ::getuid())
        return QStringLiteral("%1 is not a folder of this user").arg(path);
    if ((info.st_mode & 0777) != 0700 && ::chmod(name.constData(), 0700) != 0)
        return QStringLiteral("Cannot protect %1: %2")
            .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
    return std::nullopt;
}

} // namespace

QString RecordingsFolder::defaultPath()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (!QDir::isAbsolutePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/selvaro-recorder/Recordings");
}

std::optional<QString> RecordingsFolder::create(const QString &path)
{
    const QString parent = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(parent))
        return QStringLiteral("Cannot create %1").arg(parent);
    // The folder this class names for us sits in a parent of our own; that one must
    // be private too, or anyone could swap the Recordings folder underneath.
    if (QFileInfo(parent).fileName().startsWith(QLatin1String("selvaro-"))) {
        if (auto error = makePrivate(parent))
            return error;
    }
    return makePrivate(path);
}

int RecordingsFolder::createPrivateFile(const QString &path)
{
    const int descriptor
        = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (descriptor >= 0 && ::fchmod(descriptor, 0600) != 0) {
        const int error = errno;
        ::close(descriptor);
        errno = error;
        return -1;
    }
    return descriptor;
}

std::optional<qint64> RecordingsFolder::freeSpace(const QString &path)
{
    const QStorageInfo storage(path);
    return storage.isValid() ? std::optional(storage.bytesAvailable()) : std::nullopt;
}
