// The application around the screens, without the real sound server or keyring:
// the options the usage shows, the update check against its feed, the window's one
// menu and fixed size, the snapshot mode as a process, and a secret store that
// never answers.
#include "account/PairingFlow.h"
#include "app/AppModel.h"
#include "app/CommandLine.h"
#include "app/ContentView.h"
#include "app/MainWindow.h"
#include "app/QuitOnSignals.h"
#include "app/ScreenFrame.h"
#include "app/Snapshot.h"
#include "app/Updater.h"
#include "audio/SpeakerEchoSetting.h"
#include "support/LogCapture.h"
#include "ui/PairingView.h"

#include <QAbstractButton>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QDir>
#include <QLabel>
#include <QMenuBar>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTest>
#include <QTimer>

#include <qcoro/qcorotask.h>

#include <csignal>
#include <utility>

using namespace Qt::StringLiterals;
using Outcome = Updater::Check::Outcome;
Q_DECLARE_METATYPE(Outcome)
using Action = CommandLine::Action;
Q_DECLARE_METATYPE(Action)

namespace {

// Holds the Secret Service's name on a private bus and keeps every call unanswered
// until answer(); from then on it refuses each, as a locked keyring would.
class SilentSecretService : public QDBusVirtualObject
{
public:
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &call, const QDBusConnection &) override
    {
        m_held.append(call);
        if (m_answering)
            answer();
        return true;
    }
    void answer()
    {
        m_answering = true;
        for (const QDBusMessage &call : std::exchange(m_held, {}))
            QDBusConnection(u"keyring"_s).send(call.createErrorReply(QDBusError::AccessDenied, u"locked"_s));
    }

    bool m_answering = false;
    QList<QDBusMessage> m_held;
};

} // namespace

class AppShellTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // One row per option the usage shows, long and short, named by it and followed by a
    // directory (or a later "--snapshot"): each must do what the table says, and a new
    // one needs a row.
    void everyOptionShownWorks_data()
    {
        QTest::addColumn<Action>("action");
        const QHash<QString, Action> does { { u"-h"_s, Action::help }, { u"--help"_s, Action::help },
            { u"--version"_s, Action::version }, { u"--snapshot"_s, Action::snapshot },
            { u"--toggle"_s, Action::toggle }, { u"--save"_s, Action::save } };
        const QRegularExpression shown(u"(?<=^  |, )--?[a-z][\\w-]*"_s, QRegularExpression::MultilineOption);
        for (const QRegularExpressionMatch &option : shown.globalMatch(CommandLine::usage()))
            QTest::newRow(qPrintable(option.captured())) << does.value(option.captured(), Action::misuse);
    }
    void everyOptionShownWorks()
    {
        QFETCH(Action, action);
        const QString option = QString::fromLatin1(QTest::currentDataTag());
        // The others take no folder, and "--snapshot" as the last argument is ignored.
        const bool folder = action == Action::snapshot;
        const CommandLine line
            = CommandLine::parse({ u"selvaro-recorder"_s, option, folder ? u"shots"_s : u"--snapshot"_s });
        QCOMPARE(line.action(), action);
        QCOMPARE(line.snapshotDirectory(), folder ? u"shots"_s : QString());
    }

    // The feed is read from a file URL through the same network path as an https one.
    void updateCheck_data()
    {
        QTest::addColumn<QByteArray>("feed"); // empty: the build has no feed
        QTest::addColumn<qint64>("ownBuild");
        QTest::addColumn<Outcome>("outcome");
        const QByteArray feed("{\"version\":\"0.3.0\",\"build\":8,\"url\":\"https://example.org/get\"}");
        QTest::newRow("newer build") << feed << qint64(7) << Outcome::available;
        QTest::newRow("same build") << feed << qint64(8) << Outcome::upToDate;
        QTest::newRow("not a web page") << QByteArray("{\"version\":\"1\",\"build\":9,\"url\":\"file:///x\"}")
                                        << qint64(1) << Outcome::failed;
        QTest::newRow("no feed") << QByteArray() << qint64(1) << Outcome::failed;
    }
    void updateCheck()
    {
        QFETCH(QByteArray, feed);
        QFETCH(qint64, ownBuild);
        QTemporaryFile file;
        QVERIFY(file.open() && file.write(feed) == feed.size() && file.flush());
        QNetworkAccessManager network;
        const Updater updater(
            &network, feed.isEmpty() ? QUrl() : QUrl::fromLocalFile(file.fileName()), ownBuild);
        QTEST(QCoro::waitFor(updater.check()).outcome, "outcome");
    }

    void menuAndFixedSize()
    {
        QNetworkAccessManager network;
        Updater inert(&network, QUrl(), 1);
        auto *frame = new ScreenFrame(new QLabel(u"content"_s));
        MainWindow window(frame, inert);
        // One menu: About, directly followed by "Check for Updates…", inert without a feed.
        const QList<QAction *> menus = window.menuBar()->actions();
        QCOMPARE(menus.size(), 1);
        const QList<QAction *> items = menus.first()->menu()->actions();
        QCOMPARE(items.value(items.indexOf(window.aboutAction()) + 1), window.checkForUpdatesAction());
        QCOMPARE(window.checkForUpdatesAction()->text(), u"Check for Updates…"_s);
        QVERIFY(!window.checkForUpdatesAction()->isEnabled());
        // "Remove Speaker Echo": checkable, on until turned off, and remembered.
        const auto echo = std::ranges::find(items, u"Remove Speaker Echo"_s, &QAction::text);
        QVERIFY(echo != items.end() && (*echo)->isCheckable() && (*echo)->isChecked());
        (*echo)->trigger();
        QVERIFY(!SpeakerEchoSetting::isOn());
        (*echo)->trigger();
        QVERIFY(SpeakerEchoSetting::isOn());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        window.resize(800, 900);
        QCoreApplication::processEvents();
        QCOMPARE(frame->size(), QSize(380, 430));
    }

    // As documentation builds run it: no display, and nobody said "offscreen".
    void snapshotModeWritesTwelveScreens()
    {
        QTemporaryDir dir;
        const QDir out(dir.filePath(u"nested/shots"_s));
        QProcess app;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char *name : { "QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY" })
            environment.remove(QString::fromLatin1(name));
        app.setProcessEnvironment(environment);
        app.start(QStringLiteral(SELVARO_RECORDER_EXECUTABLE), { u"--snapshot"_s, out.path() });
        QVERIFY(app.waitForFinished(60000) && app.exitCode() == 0);
        QCOMPARE(out.entryList(QDir::Files).size(), 12);
        for (const QString &name : Snapshot::names())
            QCOMPARE(QImage(out.filePath(name + u".png"_s)).size(), QSize(760, 860));
    }

    void silentKeyringIsSaidAndReadAgain()
    {
        QProcess daemon;
        daemon.start(u"dbus-daemon"_s, { u"--session"_s, u"--nofork"_s, u"--print-address=1"_s });
        QVERIFY(daemon.waitForReadyRead(5000));
        const QByteArray address = daemon.readLine().trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        SilentSecretService service;
        auto bus = QDBusConnection::connectToBus(QString::fromUtf8(address), u"keyring"_s);
        QVERIFY(bus.registerVirtualObject(u"/"_s, &service, QDBusConnection::SubPath));
        QVERIFY(bus.registerService(u"org.freedesktop.secrets"_s));

        LogCapture log;
        AppModel model(QUrl(u"http://127.0.0.1:9"_s), std::chrono::milliseconds(300));
        ContentView content(model);
        content.show();
        QVERIFY(QTest::qWaitForWindowExposed(&content));
        QCOMPARE(content.currentScreen(), nullptr); // blank at first, as on every start
        QTRY_COMPARE(content.currentScreen(), content.storeSilentView());
        QCOMPARE(content.storeSilentView()->findChild<QLabel *>()->text(),
            u"The keyring did not answer. It may be locked: unlock it, then try again."_s);
        // No pairing starts before the store has said whether this computer is linked.
        QCOMPARE(model.pairing().state().kind(), PairingState::Kind::idle);
        auto *tryAgain = content.storeSilentView()->findChild<QAbstractButton *>();
        QCOMPARE(tryAgain->text(), u"Try again"_s);
        QTest::mouseClick(tryAgain, Qt::LeftButton);
        // The keyring answers at last, refusing; QtKeychain runs one job at a time, so
        // the second read reaches it only after the first has its answer.
        service.answer();
        QTRY_COMPARE(content.currentScreen(), static_cast<QWidget *>(content.pairingView()));
        QTRY_COMPARE(log.lines(u"session"_s).filter(u"keychain read failed"_s).size(), 2);
    }

    // SIGTERM (a logout, `kill`) ends the event loop as Quit does, so main() returns and
    // a running recording is closed on the way out; without it the signal kills the test.
    void terminateQuits()
    {
        QuitOnSignals quitOnSignals;
        QTimer::singleShot(0, [] { ::raise(SIGTERM); });
        QCOMPARE(QCoreApplication::exec(), 0);
    }
};

QTEST_MAIN(AppShellTest)
#include "tst_app_shell.moc"
