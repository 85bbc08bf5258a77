// The service as a process: its address line, its options, clean shutdown, and the
// state it keeps in --data across a restart.

#include "ServiceClient.h"

#include <QJsonArray>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

class TestProcess : public QObject
{
    Q_OBJECT

private:
    QString m_program = qEnvironmentVariable("SELVARO_DEVSERVICE");

    // Starts the service and returns its URL from the first line, or an empty URL.
    QUrl start(QProcess &process, const QStringList &arguments)
    {
        process.start(m_program, arguments);
        if (!process.waitForStarted(5000))
            return {};
        while (!process.canReadLine()) {
            if (!process.waitForReadyRead(5000))
                return {};
        }
        return QUrl(QString::fromUtf8(process.readLine()).trimmed());
    }
    static int stop(QProcess &process)
    {
        ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
        if (!process.waitForFinished(5000))
            return -1;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    }

private slots:
    void initTestCase() { QVERIFY2(!m_program.isEmpty(), "SELVARO_DEVSERVICE names the service binary"); }

    void printsItsAddressFirstAndStopsOnSigterm()
    {
        QProcess process;
        const QUrl url = start(process, {QStringLiteral("--port"), QStringLiteral("0")});
        QCOMPARE(url.scheme(), QStringLiteral("http"));
        QCOMPARE(url.host(), QStringLiteral("127.0.0.1"));
        QVERIFY(url.port() > 0);
        DevService dev(url);
        QCOMPARE(dev.send("GET", QStringLiteral("/admin/config")).status, 200);
        QCOMPARE(stop(process), 0);
    }

    void optionsSetTheStartConfig()
    {
        QProcess process;
        const QUrl url = start(process, {QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--expires-in"), QStringLiteral("33"),
                                         QStringLiteral("--interval"), QStringLiteral("2"), QStringLiteral("--max-body"), QStringLiteral("64")});
        DevService dev(url);
        const QJsonObject config = dev.send("GET", QStringLiteral("/admin/config")).json();
        QCOMPARE(config.value(QLatin1String("expiresIn")).toInt(), 33);
        QCOMPARE(config.value(QLatin1String("interval")).toInt(), 2);
        QCOMPARE(config.value(QLatin1String("maxBodyBytes")).toInt(), 64);
        // Reset goes back to the command line's values, not the built-in ones.
        dev.setConfig({{QStringLiteral("interval"), 9}});
        dev.reset();
        QCOMPARE(dev.send("GET", QStringLiteral("/admin/config")).json().value(QLatin1String("interval")).toInt(), 2);
        QCOMPARE(stop(process), 0);
    }

    void refusesBadArgumentsAndBusyPorts()
    {
        QProcess bad;
        bad.start(m_program, {QStringLiteral("--port"), QStringLiteral("seven")});
        QVERIFY(bad.waitForFinished(5000));
        QVERIFY(bad.exitCode() != 0);
        QVERIFY(bad.readAllStandardError().contains("--port"));

        QProcess first;
        const QUrl url = start(first, {QStringLiteral("--port"), QStringLiteral("0")});
        QProcess second;
        second.start(m_program, {QStringLiteral("--port"), QString::number(url.port())});
        QVERIFY(second.waitForFinished(5000));
        QVERIFY(second.exitCode() != 0);
        QVERIFY(second.readAllStandardOutput().isEmpty());
        QCOMPARE(stop(first), 0);
    }

    void dataSurvivesARestart()
    {
        QTemporaryDir data;
        const QStringList arguments{QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--data"), data.path()};
        QProcess process;
        DevService dev(start(process, arguments));
        ServiceClient client(dev);
        const auto account = client.newAccount(false);
        const QString key = client.upload(account, "kept audio");
        QCOMPARE(client.post(QStringLiteral("/api/collections/notes/records"), ServiceClient::noteBody(account, key), account.token).status, 200);
        const QString userCode = client.post(QStringLiteral("/pair"), {{QStringLiteral("device"), QJsonObject{}}}).json().value(QLatin1String("userCode")).toString();
        const QJsonArray notes = dev.notes();
        QCOMPARE(stop(process), 0);

        QProcess again;
        DevService restarted(start(again, arguments));
        QVERIFY(restarted.available());
        QCOMPARE(restarted.notes().size(), 1);
        QCOMPARE(restarted.notes().first().toObject().value(QLatin1String("id")), notes.first().toObject().value(QLatin1String("id")));
        QCOMPARE(restarted.download(key), QByteArray("kept audio"));
        QCOMPARE(restarted.sessions().size(), 1);
        // Tokens issued before the restart still verify: the signing key is kept too.
        ServiceClient again_client(restarted);
        QCOMPARE(again_client.get(QStringLiteral("/upload-recording-url?ext=m4a"), account.token).status, 200);
        Q_UNUSED(userCode);
        QCOMPARE(stop(again), 0);
    }
};

QTEST_GUILESS_MAIN(TestProcess)
#include "tst_process.moc"
