// One instance per session, with the real program on a private session bus: a second
// start raises the first and ends, and "--toggle"/"--save" reach the running instance
// (starting one when none runs) and answer with their exit status and sentence. The
// actions' rules themselves are recording_handsoff's.
#include "app/ApplicationInterface.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QProcess>
#include <QTest>

#include <csignal>

using namespace Qt::StringLiterals;

namespace {

// The PID of whoever owns the application's name; 0 for nobody.
uint owner()
{
    return QDBusConnection::sessionBus().interface()->servicePid(
        QLatin1String(ApplicationInterface::serviceName));
}

} // namespace

class AppInstanceTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void actionsReachTheRunningInstance_data()
    {
        QTest::addColumn<bool>("alreadyRunning");
        QTest::addColumn<QString>("option");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("sentence");
        QTest::newRow("second start") << true << QString() << 0 << QString();
        QTest::newRow("toggle, not linked")
            << true << u"--toggle"_s << 1 << u"This computer is not linked yet."_s;
        QTest::newRow("save, nothing paused") << true << u"--save"_s << 1 << u"Nothing to save."_s;
        QTest::newRow("toggle starts one")
            << false << u"--toggle"_s << 1 << u"This computer is not linked yet."_s;
    }
    void actionsReachTheRunningInstance()
    {
        QFETCH(bool, alreadyRunning);
        QFETCH(QString, option);
        QProcess first;
        if (alreadyRunning) {
            first.start(QStringLiteral(SELVARO_RECORDER_EXECUTABLE), {});
            QTRY_VERIFY_WITH_TIMEOUT(owner(), 20000);
        }
        QProcess second;
        second.start(QStringLiteral(SELVARO_RECORDER_EXECUTABLE),
            option.isEmpty() ? QStringList() : QStringList { option });
        QVERIFY(second.waitForFinished(40000));
        QTEST(second.exitCode(), "status");
        const QByteArray said = second.readAllStandardError();
        QFETCH(QString, sentence);
        QVERIFY2(sentence.isEmpty() || said.split('\n').contains(sentence.toUtf8()), said.constData());
        // Still one instance, now raised or started; stopped here by its PID.
        const uint pid = owner();
        QVERIFY(pid > 0 && pid != uint(second.processId())
            && (!alreadyRunning || pid == uint(first.processId())));
        QByteArray log;
        if (option.isEmpty())
            QTRY_VERIFY((log += first.readAllStandardError()).contains("window raised"));
        ::kill(pid_t(pid), SIGTERM);
        QTRY_VERIFY_WITH_TIMEOUT(!owner(), 20000);
        QTRY_COMPARE_WITH_TIMEOUT(first.state(), QProcess::NotRunning, 20000);
    }
};

QTEST_MAIN(AppInstanceTest)
#include "tst_app_instance.moc"
