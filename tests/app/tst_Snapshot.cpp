// The real executable in snapshot mode, as documentation builds run it.
#include "app/Snapshot.h"

#include <QDir>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class SnapshotTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void rendersTheTwelveStatesAndExits()
    {
        QTemporaryDir dir;
        const QString output = dir.filePath(QStringLiteral("nested/shots"));
        QProcess app;
        // As on a server or in CI: no display, and nobody said "offscreen".
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char *name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"})
            environment.remove(QString::fromLatin1(name));
        app.setProcessEnvironment(environment);
        app.start(QStringLiteral(SELVARO_RECORDER_EXECUTABLE),
                  {QStringLiteral("--snapshot"), output, QStringLiteral("--snapshot"), dir.filePath(QStringLiteral("no"))});
        QVERIFY(app.waitForFinished(60000));
        QCOMPARE(app.exitStatus(), QProcess::NormalExit);
        QCOMPARE(app.exitCode(), 0);

        const QStringList expected{
            QStringLiteral("pairing"),           QStringLiteral("pairing-code"),     QStringLiteral("pairing-expired"),
            QStringLiteral("pairing-failed"),    QStringLiteral("recorder-idle"),    QStringLiteral("permissions-1"),
            QStringLiteral("permissions-2"),     QStringLiteral("recorder-recording"), QStringLiteral("recorder-paused"),
            QStringLiteral("recorder-saving"),   QStringLiteral("recorder-sent"),    QStringLiteral("recorder-failed"),
        };
        QCOMPARE(Snapshot::names(), expected);

        QStringList files = QDir(output).entryList(QDir::Files, QDir::Name);
        QStringList wanted;
        for (const QString &name : expected)
            wanted.append(name + QLatin1String(".png"));
        wanted.sort();
        QCOMPARE(files, wanted);
        for (const QString &file : files) {
            const QImage image(QDir(output).filePath(file));
            QCOMPARE(image.size(), QSize(760, 860));
        }
        // Only the first "--snapshot" counts.
        QVERIFY(!QFileInfo::exists(dir.filePath(QStringLiteral("no"))));

        // States differ, so the renders must too.
        QVERIFY(QImage(QDir(output).filePath(QStringLiteral("pairing.png"))) !=
                QImage(QDir(output).filePath(QStringLiteral("pairing-code.png"))));
    }

    void unwritableDirectoryStillExitsCleanly()
    {
        QProcess app;
        app.start(QStringLiteral(SELVARO_RECORDER_EXECUTABLE),
                  {QStringLiteral("--snapshot"), QStringLiteral("/proc/selvaro-cannot-be-here")});
        QVERIFY(app.waitForFinished(60000));
        QCOMPARE(app.exitCode(), 0);
    }

    // "--snapshot" with nothing after it starts the application as usual.
    void lastArgumentStartsTheApplication()
    {
        QProcess app;
        app.start(QStringLiteral(SELVARO_RECORDER_EXECUTABLE), {QStringLiteral("--snapshot")});
        QVERIFY(app.waitForStarted());
        QVERIFY(!app.waitForFinished(1500));
        app.terminate();
        if (!app.waitForFinished(5000))
            app.kill();
    }
};

QTEST_MAIN(SnapshotTest)
#include "tst_Snapshot.moc"
