#include "audio/RecordingsFolder.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

mode_t modeOf(const QString &path)
{
    struct stat info
    {
    };
    ::lstat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & 0777;
}

} // namespace

class AudioFolderTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void createsPrivateFolders()
    {
        QVERIFY(RecordingsFolder::defaultPath().startsWith(QDir::tempPath() + QStringLiteral("/selvaro-")));
        QTemporaryDir root;
        const QString parent = root.filePath(QStringLiteral("selvaro-test"));
        const QString path = parent + QStringLiteral("/Recordings");
        QVERIFY(!RecordingsFolder::create(path));
        QCOMPARE(modeOf(path), mode_t(0700));
        QCOMPARE(modeOf(parent), mode_t(0700));
        // An existing folder left open to others is tightened.
        QVERIFY(QFile::setPermissions(path, QFileDevice::Permissions(0x7755)));
        QVERIFY(!RecordingsFolder::create(path));
        QCOMPARE(modeOf(path), mode_t(0700));
    }

    void refusesALinkInItsPlace()
    {
        QTemporaryDir root;
        const QString parent = root.filePath(QStringLiteral("selvaro-test"));
        QVERIFY(QDir().mkpath(parent) && QDir().mkpath(root.filePath(QStringLiteral("elsewhere"))));
        QVERIFY(
            QFile::link(root.filePath(QStringLiteral("elsewhere")), parent + QStringLiteral("/Recordings")));
        const auto error = RecordingsFolder::create(parent + QStringLiteral("/Recordings"));
        QVERIFY(error && error->contains(QStringLiteral("not a folder of this user")));
    }
};

QTEST_GUILESS_MAIN(AudioFolderTest)
#include "tst_audio_folder.moc"
