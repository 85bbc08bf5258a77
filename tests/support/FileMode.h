#pragma once

#include <QFile>

#include <sys/stat.h>

// The permission bits of `path` itself (a link is not followed); 0 when it is missing.
inline mode_t modeOf(const QString &path)
{
    struct stat info = {};
    ::lstat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & 0777;
}
