#include "QrReader.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

bool QrReader::available()
{
    return !QStandardPaths::findExecutable(QStringLiteral("zbarimg")).isEmpty();
}

QByteArray QrReader::decode(const QImage &image, const QString &name)
{
    static QTemporaryDir dir;
    const QString path = dir.filePath(name + QStringLiteral(".png"));
    if (!image.save(path))
        return {};
    QProcess zbar;
    zbar.start(QStringLiteral("zbarimg"), { QStringLiteral("--raw"), QStringLiteral("-q"), path });
    if (!zbar.waitForFinished(10000))
        return {};
    return zbar.readAllStandardOutput().trimmed();
}
