#include "audio/RecordingsFolder.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

mode_t modeOf(const QString &path)
{
    struct stat info {};
    ::lstat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & 0777;
}

} // namespace

class TestRecordingsFolder : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaultPathIsPerUserUnderTheTemporaryFolder()
    {
        const QString path = RecordingsFolder::defaultPath();
        QVERIFY(path.startsWith(QDir::tempPath() + QStringLiteral("/selvaro-")));
        QVERIFY(path.endsWith(QStringLiteral("/Recordings")));
    }

    void createsPrivateFolders()
    {
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
        const QString elsewhere = root.filePath(QStringLiteral("elsewhere"));
        QVERIFY(QDir().mkpath(elsewhere));
        const QString parent = root.filePath(QStringLiteral("selvaro-test"));
        QVERIFY(QDir().mkpath(parent));
        const QString path = parent + QStringLiteral("/Recordings");
        QVERIFY(QFile::link(elsewhere, path));
        const auto error = RecordingsFolder::create(path);
        QVERIFY(error);
        QVERIFY2(error->contains(QStringLiteral("not a folder of this user")), qPrintable(*error));
    }
};

QTEST_GUILESS_MAIN(TestRecordingsFolder)
#include "tst_recordingsfolder.moc"
