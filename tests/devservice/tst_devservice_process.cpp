// The service as a process: its two lines of output, its admin-token file, its
// options, a busy port, SIGTERM, and what --data keeps across a restart.

#include "support/DevService.h"
#include "support/FileMode.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class TestProcess : public QObject
{
    Q_OBJECT

    const QString m_program = qEnvironmentVariable("SELVARO_DEVSERVICE");

    // Starts the service with space-separated arguments; its address and admin token are its first lines.
    static DevService start(QProcess &process, const QString &arguments)
    {
        process.start(qEnvironmentVariable("SELVARO_DEVSERVICE"), arguments.split(QLatin1Char(' ')));
        QStringList lines;
        while (lines.size() < 2 && (process.canReadLine() || process.waitForReadyRead(5000)))
            lines.append(QString::fromUtf8(process.readLine()).trimmed());
        return lines.size() == 2 ? DevService(QUrl(lines[0]), lines[1].toLatin1()) : DevService(QUrl(), {});
    }
    static int stop(QProcess &process)
    {
        process.terminate(); // SIGTERM
        return process.waitForFinished(5000) && process.exitStatus() == QProcess::NormalExit
            ? process.exitCode()
            : -1;
    }

private slots:
    void initTestCase() { QVERIFY2(!m_program.isEmpty(), "SELVARO_DEVSERVICE names the service binary"); }

    void printsAddressThenTokenAndTakesItsOptions()
    {
        QProcess process;
        DevService dev = start(
            process, QStringLiteral("--port 0 --expires-in 33 --interval 2 --max-body 64 --max-upload 1000"));
        QCOMPARE(dev.baseUrl().host(), QStringLiteral("127.0.0.1"));
        // Without --data the token file is in the runtime folder, named by the port, and goes with it.
        QFile file(qEnvironmentVariable("XDG_RUNTIME_DIR")
            + QStringLiteral("/selvaro-devservice-%1.admin-token").arg(dev.baseUrl().port()));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), dev.adminToken() + '\n');
        QVERIFY(modeOf(file.fileName()) == 0600);
        QCOMPARE(dev.adminToken().size(), 64);
        dev.setConfig({ { QStringLiteral("interval"), 9 } });
        dev.reset(); // back to the command line's values, not the built-in ones
        QCOMPARE(dev.send("GET", QStringLiteral("/admin/config")).body,
            R"({"expiresIn":33,"interval":2,"maxBodyBytes":64,"maxUploadBytes":1000,"tokenTtl":2592000,"uploadUrlTtl":900})");
        // A second service on a busy port ends before printing anything.
        QProcess second;
        second.start(m_program, { QStringLiteral("--port"), QString::number(dev.baseUrl().port()) });
        QVERIFY(second.waitForFinished(5000) && second.exitCode() != 0);
        QVERIFY(second.readAllStandardOutput().isEmpty());
        QCOMPARE(stop(process), 0);
        QVERIFY(!file.exists());
    }

    void dataSurvivesARestartWithANewAdminToken()
    {
        QTemporaryDir data;
        QProcess process;
        DevService dev = start(process, QStringLiteral("--port 0 --data ") + data.path());
        const DevService::Account account = dev.newAccount(false);
        const QString key = dev.upload(account, "kept audio");
        QCOMPARE(stop(process), 0);

        QProcess again;
        DevService restarted = start(again, QStringLiteral("--port 0 --data ") + data.path());
        QCOMPARE(restarted.download(key), QByteArray("kept audio"));
        // Session tokens still verify (the signing key is kept); the old admin token does not.
        QVERIFY(!restarted.upload(account, "more audio").isEmpty());
        DevService withOldToken(restarted.baseUrl(), dev.adminToken());
        QCOMPARE(withOldToken.send("GET", QStringLiteral("/admin/config")).status, 403);
        QCOMPARE(stop(again), 0);
    }
};

QTEST_GUILESS_MAIN(TestProcess)
#include "tst_devservice_process.moc"
