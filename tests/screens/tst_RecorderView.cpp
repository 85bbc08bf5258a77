// The recorder screen: drawn from preview flows for every state, and driven
// through a real RecorderFlow (stand-in capture and sound server, hand-moved
// clock) to check what each control calls.
#include "ScreenTestSupport.h"

#include "account/SessionStore.h"
#include "recording/RecordingTestSupport.h"
#include "ui/EqualColumnsLayout.h"
#include "ui/PermissionRow.h"
#include "ui/PillButton.h"
#include "ui/PlatformWording.h"
#include "ui/RecorderView.h"
#include "ui/StepBadge.h"
#include "ui/TextLabel.h"
#include "ui/WaveformIndicator.h"

#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QNetworkAccessManager>
#include <QPushButton>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTest>

#include <atomic>

using namespace ScreenTest;
using namespace RecordingTest;
using State = RecorderState;
using Pane = SoundSettings::Pane;

Q_DECLARE_METATYPE(Permission)

namespace {

const QString couldNotStart =
    QStringLiteral("The recording could not start. Check the microphone and system audio permissions.");
// A token whose "id" claim is "acc1".
const QString tokenOfAcc1 = QStringLiteral("hdr.eyJpZCI6ImFjYzEifQ.sig");

// A recorder screen in the window's content area; every "Settings" press is noted
// instead of starting a program.
struct Screen
{
    explicit Screen(std::unique_ptr<RecorderFlow> flowToShow)
        : flow(std::move(flowToShow))
        , view(new RecorderView(flow.get(), [this](Pane pane) { panes << pane; }))
        , frame(view)
    {
    }
    Screen(const State &state, double elapsed = 0, Permission microphone = Permission::granted,
           Permission systemAudio = Permission::granted)
        : Screen(RecorderFlow::preview(state, elapsed, microphone, systemAudio))
    {
    }

    template <typename T = QWidget>
    T *child(const char *name) const
    {
        return ScreenTest::child<T>(view, name);
    }
    bool shows(const char *name) const { return ScreenTest::shows(view, name); }
    void click(const char *name) const { QTest::mouseClick(child(name), Qt::LeftButton); }
    PermissionRow *row(int number) const
    {
        return child<PermissionRow>(number == 1 ? "microphoneRow" : "systemAudioRow");
    }

    std::unique_ptr<RecorderFlow> flow;
    RecorderView *view;
    Frame frame;
    QList<Pane> panes;
};

// Answers the probes of each source on its own, so that a test can let one
// permission through while the other stays unknown, whenever a probe runs.
class TwoSourceServer final : public SoundServer
{
public:
    std::atomic<Permission> microphone{Permission::unknown};
    std::atomic<Permission> systemAudio{Permission::unknown};

    std::variant<OutputDevice, AudioObjectError> defaultOutput() override
    {
        return AudioObjectError{QStringLiteral("no output in this test")};
    }
    std::variant<std::unique_ptr<Capture>, QString> startCapture(CaptureSource, const SampleSpec &,
                                                                 BlockHandler) override
    {
        return QStringLiteral("no capture in this test");
    }
    Permission probe(CaptureSource source) override
    {
        return source == CaptureSource::defaultInput ? microphone.load() : systemAudio.load();
    }
};

QString rowAction(const PermissionRow *row)
{
    if (row->allowButton()->isVisibleTo(row))
        return QStringLiteral("Allow");
    if (row->settingsButton()->isVisibleTo(row))
        return QStringLiteral("Settings");
    return QStringLiteral("none");
}

} // namespace

class TestRecorderView : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QApplication::installTranslator(&m_wording); }
    void init();
    void cleanup();

    void clockText_data();
    void clockText();
    void textsAsShown();
    void clockIsDimmedUnlessLive_data();
    void clockIsDimmedUnlessLive();
    void controlsPerState_data();
    void controlsPerState();
    void pauseSitsWhereResumeSits();
    void permissionsBox_data();
    void permissionsBox();
    void rowDimmingIsEased();
    void sendAgainOnlyWhenRetryable();
    void controlsCallTheFlow();
    void permissionButtonsCallTheFlow();
    void settingsOpenTheRowsPane();
    void unlinkAsksFirst();
    void soundSettingsCommand_data();
    void soundSettingsCommand();
    void renders_data();
    void renders();

private:
    std::unique_ptr<RecorderFlow> makeFlow(QUrl serviceUrl = QUrl(QStringLiteral("http://127.0.0.1:1")),
                                           std::shared_ptr<SoundServer> server = {});

    PlatformWording m_wording;
    std::unique_ptr<QTemporaryDir> m_dir;
    std::shared_ptr<ManualClock> m_clock;
    std::shared_ptr<ProbeOnlyServer> m_server;
    StandInFactory m_captures;
    QNetworkAccessManager m_network;
    std::unique_ptr<SessionStore> m_store;
};

void TestRecorderView::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_clock = std::make_shared<ManualClock>();
    m_server = std::make_shared<ProbeOnlyServer>();
    m_captures = StandInFactory();
    m_store = std::make_unique<SessionStore>(SessionStore::Load::nothing);
}

void TestRecorderView::cleanup()
{
    m_store.reset();
}

std::unique_ptr<RecorderFlow> TestRecorderView::makeFlow(QUrl serviceUrl, std::shared_ptr<SoundServer> server)
{
    if (!server)
        server = m_server;
    return std::make_unique<RecorderFlow>(
        SelvaroAPI(&m_network, serviceUrl), *m_store,
        standInPlatform(server, m_captures, m_clock, m_dir->filePath(QStringLiteral("Recordings"))));
}

void TestRecorderView::clockText_data()
{
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QString>("text");
    QTest::newRow("0") << 0.0 << QStringLiteral("00:00");
    QTest::newRow("59.9") << 59.9 << QStringLiteral("00:59");
    QTest::newRow("83") << 83.0 << QStringLiteral("01:23");
    QTest::newRow("3599.99") << 3599.99 << QStringLiteral("59:59");
    QTest::newRow("3600") << 3600.0 << QStringLiteral("1:00:00");
    QTest::newRow("3725") << 3725.0 << QStringLiteral("1:02:05");
    QTest::newRow("36000") << 36000.0 << QStringLiteral("10:00:00");
}

void TestRecorderView::clockText()
{
    QFETCH(double, seconds);
    QFETCH(QString, text);
    QCOMPARE(RecorderView::format(seconds), text);
    Screen screen(State::paused(), seconds);
    QCOMPARE(screen.child<QLabel>("clock")->text(), text);
}

void TestRecorderView::textsAsShown()
{
    const auto text = [](const Screen &screen, const char *name) { return screen.child<QLabel>(name)->text(); };
    Screen recording(State::recording(), 83);
    QCOMPARE(text(recording, "footer"), QStringLiteral("Record a call, a meeting or a video playing on this computer.\n"
                                                       "The note appears in Selvaro on your phone."));
    QCOMPARE(text(recording, "recordingStatus"), QStringLiteral("Recording the system audio and the microphone"));
    QCOMPARE(text(recording, "pausedStatus"), QStringLiteral("Paused"));
    QCOMPARE(text(recording, "sentStatus"), QStringLiteral("Sent. The note is being written on your phone."));
    QCOMPARE(text(recording, "idleStatus"), QStringLiteral(" "));
    QCOMPARE(recording.child<TextLabel>("sentStatus")->color(), Palette::systemGreen());
    QCOMPARE(recording.child<QLabel>("failureMessage")->palette().color(QPalette::WindowText), Palette::systemRed());
    QCOMPARE(recording.child<QAbstractButton>("unlinkButton")->text(), QStringLiteral("Unlink"));

    Screen permissions(State::idle(), 0, Permission::unknown, Permission::unknown);
    const QStringList labels = [&] {
        QStringList shown;
        for (QLabel *label : permissions.child("permissionsBox")->findChildren<QLabel *>())
            shown << label->text();
        return shown;
    }();
    QCOMPARE(labels, (QStringList{QStringLiteral("Two permissions, one after the other"), QStringLiteral("Microphone"),
                                  QStringLiteral("Your voice."), QStringLiteral("System audio"),
                                  QStringLiteral("What the other apps play.")}));
}

void TestRecorderView::clockIsDimmedUnlessLive_data()
{
    QTest::addColumn<State>("state");
    QTest::addColumn<bool>("live");
    QTest::newRow("idle") << State::idle() << false;
    QTest::newRow("recording") << State::recording() << true;
    QTest::newRow("paused") << State::paused() << true;
    QTest::newRow("saving") << State::saving(QStringLiteral("Uploading…")) << false;
    QTest::newRow("sent") << State::sent() << false;
    QTest::newRow("failed") << State::failed(couldNotStart) << false;
}

void TestRecorderView::clockIsDimmedUnlessLive()
{
    QFETCH(State, state);
    QFETCH(bool, live);
    Screen screen(state, 83);
    QCOMPARE(screen.view->isLive(), live);
    QCOMPARE(screen.child<TextLabel>("clock")->color(), live ? Palette::primaryText() : Palette::secondaryText());
}

void TestRecorderView::controlsPerState_data()
{
    QTest::addColumn<State>("state");
    QTest::addColumn<Permission>("microphone");
    QTest::addColumn<Permission>("systemAudio");
    QTest::addColumn<QStringList>("buttons");
    QTest::addColumn<QString>("status"); // the status line's visible label, "" when the permissions box shows

    const Permission granted = Permission::granted;
    const QString unlink = QStringLiteral("Unlink");
    const QString record = QStringLiteral("Record");
    QTest::newRow("idle") << State::idle() << granted << granted << QStringList{unlink, record}
                          << QStringLiteral("idleStatus");
    QTest::newRow("idle, microphone unknown")
        << State::idle() << Permission::unknown << granted << QStringList{unlink, QStringLiteral("Allow")} << QString();
    QTest::newRow("idle, system audio denied")
        << State::idle() << granted << Permission::denied << QStringList{unlink, QStringLiteral("Settings")}
        << QString();
    QTest::newRow("recording") << State::recording() << granted << granted
                               << QStringList{unlink, QStringLiteral("Pause")} << QStringLiteral("recordingStatus");
    // A permission lost during a recording does not take the controls away.
    QTest::newRow("recording, microphone revoked")
        << State::recording() << Permission::denied << granted << QStringList{unlink, QStringLiteral("Pause")}
        << QStringLiteral("recordingStatus");
    QTest::newRow("paused") << State::paused() << granted << granted
                            << QStringList{unlink, QStringLiteral("Discard"), QStringLiteral("Resume"),
                                           QStringLiteral("Save")}
                            << QStringLiteral("pausedStatus");
    QTest::newRow("saving") << State::saving(QStringLiteral("Uploading…")) << granted << Permission::unknown
                            << QStringList{unlink} << QStringLiteral("savingStatus");
    QTest::newRow("sent") << State::sent() << granted << granted << QStringList{unlink, record}
                          << QStringLiteral("sentStatus");
    QTest::newRow("sent, microphone unknown")
        << State::sent() << Permission::unknown << granted << QStringList{unlink, QStringLiteral("Allow")} << QString();
    QTest::newRow("failed") << State::failed(couldNotStart) << granted << granted << QStringList{unlink, record}
                            << QStringLiteral("failureMessage");
}

void TestRecorderView::controlsPerState()
{
    QFETCH(State, state);
    QFETCH(Permission, microphone);
    QFETCH(Permission, systemAudio);
    QFETCH(QStringList, buttons);
    QFETCH(QString, status);
    Screen screen(state, 83, microphone, systemAudio);

    QCOMPARE(shownButtons(screen.view), buttons);
    QCOMPARE(unreachableButtons(screen.view), QStringList());

    const bool permissions = status.isEmpty();
    QCOMPARE(screen.view->showsPermissions(), permissions);
    QCOMPARE(screen.shows("permissionsBox"), permissions);
    QCOMPARE(screen.shows("status"), !permissions);
    QCOMPARE(screen.shows("spinner"), state.is(State::Kind::saving));
    QCOMPARE(screen.view->findChild<WaveformIndicator *>()->isRunning(), state.is(State::Kind::recording));
    QCOMPARE(screen.shows("footer"), true);
    if (!permissions) {
        QVERIFY(screen.shows(qPrintable(status)));
        for (const char *other : {"idleStatus", "recordingStatus", "pausedStatus", "savingStatus", "sentStatus", "failureMessage"}) {
            if (status != QLatin1String(other))
                QVERIFY2(!screen.shows(other), other);
        }
    }
    if (state.is(State::Kind::saving))
        QCOMPARE(screen.child<QLabel>("savingStatus")->text(), state.text());
    if (state.is(State::Kind::failed))
        QCOMPARE(screen.child<QLabel>("failureMessage")->text(), state.text());
}

void TestRecorderView::pauseSitsWhereResumeSits()
{
    Screen screen(State::recording(), 83);
    screen.frame.show();
    QVERIFY(QTest::qWaitForWindowExposed(&screen.frame));
    const auto place = [&](const char *name) {
        QWidget *button = screen.child(name);
        return QRect(button->mapTo(screen.view, QPoint(0, 0)), button->size());
    };
    const QRect pause = place("pauseButton");
    screen.view->setAnimated(false);
    // The preview is frozen: a real flow is not needed to look at the other row.
    auto paused = RecorderFlow::preview(State::paused(), 83, Permission::granted, Permission::granted);
    Screen other(std::move(paused));
    other.frame.show();
    QVERIFY(QTest::qWaitForWindowExposed(&other.frame));
    QWidget *resume = other.child("resumeButton");
    QCOMPARE(QRect(resume->mapTo(other.view, QPoint(0, 0)), resume->size()), pause);
    // Three equal columns 10 apart across the whole width.
    QWidget *discard = other.child("discardButton");
    QWidget *save = other.child("saveButton");
    QCOMPARE(discard->width(), pause.width());
    QCOMPARE(save->width(), pause.width());
    QCOMPARE(discard->mapTo(other.view, QPoint(0, 0)).x(), 0);
    QVERIFY(qAbs(save->mapTo(other.view, QPoint(save->width(), 0)).x() - other.view->width()) <= 2);
    QCOMPARE(pause.left() - (discard->mapTo(other.view, QPoint(discard->width(), 0)).x()), 10);
}

void TestRecorderView::permissionsBox_data()
{
    QTest::addColumn<Permission>("microphone");
    QTest::addColumn<Permission>("systemAudio");
    QTest::addColumn<QString>("row1");
    QTest::addColumn<QString>("row2");
    QTest::addColumn<bool>("row2Enabled");
    const Permission unknown = Permission::unknown;
    const Permission denied = Permission::denied;
    const Permission granted = Permission::granted;
    const QString allow = QStringLiteral("Allow");
    const QString settings = QStringLiteral("Settings");
    const QString none = QStringLiteral("none");
    QTest::newRow("both unknown") << unknown << unknown << allow << none << false;
    QTest::newRow("microphone granted") << granted << unknown << none << allow << true;
    QTest::newRow("microphone denied") << denied << unknown << settings << none << false;
    QTest::newRow("system audio granted first") << unknown << granted << allow << none << true;
    QTest::newRow("system audio denied, step closed") << unknown << denied << allow << settings << false;
    QTest::newRow("system audio denied") << granted << denied << none << settings << true;
}

void TestRecorderView::permissionsBox()
{
    QFETCH(Permission, microphone);
    QFETCH(Permission, systemAudio);
    QFETCH(QString, row1);
    QFETCH(QString, row2);
    QFETCH(bool, row2Enabled);
    Screen screen(State::idle(), 0, microphone, systemAudio);
    QVERIFY(screen.shows("permissionsBox"));
    QVERIFY(screen.child("permissionsBox")->maximumWidth() == 320);

    PermissionRow *first = screen.row(1);
    PermissionRow *second = screen.row(2);
    QCOMPARE(rowAction(first), row1);
    QCOMPARE(rowAction(second), row2);
    QCOMPARE(first->opacity(), 1.0);
    QCOMPARE(second->opacity(), row2Enabled ? 1.0 : PermissionRow::disabledOpacity);
    QCOMPARE(second->badge()->opacity(), second->opacity());
    QCOMPARE(first->badge()->isDone(), microphone == Permission::granted);
    QCOMPARE(second->badge()->isDone(), systemAudio == Permission::granted);
    QCOMPARE(first->badge()->number(), 1);
    QCOMPARE(second->badge()->number(), 2);
}

void TestRecorderView::rowDimmingIsEased()
{
    PermissionRow row(2, QStringLiteral("System audio"), QStringLiteral("What the other apps play."));
    row.show();
    QVERIFY(QTest::qWaitForWindowExposed(&row));
    row.setStatus(Permission::unknown, false);
    // Under way, not there at once.
    QCOMPARE(row.opacity(), 1.0);
    QTRY_COMPARE_WITH_TIMEOUT(row.opacity(), PermissionRow::disabledOpacity, 1000);
    QCOMPARE(rowAction(&row), QStringLiteral("none"));
    QCOMPARE(row.badge()->opacity(), PermissionRow::disabledOpacity);
    QCOMPARE(row.settingsButton()->opacity(), PermissionRow::disabledOpacity);
}

void TestRecorderView::sendAgainOnlyWhenRetryable()
{
    // A failure with nothing kept (the start failed): the message alone.
    Screen preview(State::failed(couldNotStart));
    QVERIFY(preview.shows("failureMessage"));
    QVERIFY(!preview.shows("sendAgainButton"));

    // A failed send keeps the recording: "Send again", which sends it again.
    QTcpServer closed;
    QVERIFY(closed.listen(QHostAddress::LocalHost));
    const QUrl nobody(QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort()));
    closed.close();
    m_store->setSession(SessionPayload{QStringLiteral("s"), QStringLiteral("p"), tokenOfAcc1, false});
    m_server->access = Permission::granted;
    Screen screen(makeFlow(nobody));
    screen.flow->record();
    m_clock->advanceInTicks(std::chrono::seconds(2));
    screen.flow->save();
    QTRY_VERIFY(screen.flow->state().is(State::Kind::failed));
    QVERIFY(screen.flow->canRetrySend());
    QVERIFY(screen.shows("sendAgainButton"));
    QVERIFY(screen.child<QLabel>("failureMessage")->text().startsWith(QStringLiteral("Sending failed: ")));
    screen.view->setAnimated(false);
    render(screen.frame, QStringLiteral("recorder-failed-retry"));

    QSignalSpy states(screen.flow.get(), &RecorderFlow::stateChanged);
    screen.click("sendAgainButton");
    QCOMPARE(screen.flow->state(), State::saving(QStringLiteral("Uploading…")));
    QVERIFY(!screen.shows("sendAgainButton"));
    QVERIFY(screen.shows("savingStatus"));
    QTRY_VERIFY(screen.flow->state().is(State::Kind::failed));
    QVERIFY(screen.shows("sendAgainButton"));
}

void TestRecorderView::controlsCallTheFlow()
{
    m_server->access = Permission::granted;
    Screen screen(makeFlow());
    screen.view->setAnimated(false);
    screen.frame.show();
    QVERIFY(QTest::qWaitForWindowExposed(&screen.frame));
    QTRY_VERIFY(screen.shows("recordButton"));

    // Record from the keyboard: Tab reaches it, Space presses it.
    screen.child("recordButton")->setFocus(Qt::TabFocusReason);
    QTest::keyClick(screen.child("recordButton"), Qt::Key_Space);
    QCOMPARE(screen.flow->state(), State::recording());
    QCOMPARE(m_captures.last().calls, QStringList{QStringLiteral("start")});
    m_clock->advanceInTicks(std::chrono::seconds(3));
    QCOMPARE(screen.child<QLabel>("clock")->text(), QStringLiteral("00:03"));

    screen.click("pauseButton");
    QCOMPARE(screen.flow->state(), State::paused());
    screen.click("resumeButton");
    QCOMPARE(screen.flow->state(), State::recording());
    screen.click("pauseButton");
    screen.click("discardButton");
    QCOMPARE(screen.flow->state(), State::idle());
    QCOMPARE(m_captures.last().calls, (QStringList{QStringLiteral("start"), QStringLiteral("pause"),
                                                   QStringLiteral("resume"), QStringLiteral("pause"),
                                                   QStringLiteral("cancel")}));
    QTRY_COMPARE(screen.child<QLabel>("clock")->text(), QStringLiteral("00:00"));

    // Save from the paused row; without a session the send ends in words, and the
    // recording is kept for later.
    m_captures.configure = [](StandInCapture &capture) { capture.holdStop = true; };
    screen.click("recordButton");
    m_clock->advanceInTicks(std::chrono::seconds(1));
    screen.click("pauseButton");
    screen.click("saveButton");
    QCOMPARE(screen.flow->state(), State::saving(QStringLiteral("Finishing the recording…")));
    QVERIFY(screen.shows("spinner"));
    QCOMPARE(shownButtons(screen.view), QStringList{QStringLiteral("Unlink")});
    m_captures.last().release();
    QTRY_COMPARE(screen.flow->state(),
                 State::failed(QStringLiteral("This computer is not linked to a Selvaro account any more.")));
    QCOMPARE(m_captures.last().calls.last(), QStringLiteral("stop"));
    QVERIFY(screen.shows("failureMessage"));
    QVERIFY(screen.shows("sendAgainButton"));
}

void TestRecorderView::permissionButtonsCallTheFlow()
{
    auto server = std::make_shared<TwoSourceServer>();
    Screen screen(makeFlow(QUrl(QStringLiteral("http://127.0.0.1:1")), server));
    screen.view->setAnimated(false);
    screen.frame.show();
    QVERIFY(QTest::qWaitForWindowExposed(&screen.frame));
    QCOMPARE(screen.flow->microphone(), Permission::unknown);
    QVERIFY(screen.shows("permissionsBox"));
    QCOMPARE(rowAction(screen.row(1)), QStringLiteral("Allow"));
    QCOMPARE(rowAction(screen.row(2)), QStringLiteral("none"));

    // The microphone can be had now: its "Allow" asks for it.
    server->microphone = Permission::granted;
    QTest::mouseClick(screen.row(1)->allowButton(), Qt::LeftButton);
    QTRY_COMPARE(screen.flow->microphone(), Permission::granted);
    QCOMPARE(screen.flow->systemAudio(), Permission::unknown);
    QVERIFY(screen.row(1)->badge()->isDone());
    QCOMPARE(screen.row(2)->opacity(), 1.0);
    QCOMPARE(rowAction(screen.row(2)), QStringLiteral("Allow"));

    server->systemAudio = Permission::granted;
    QTest::mouseClick(screen.row(2)->allowButton(), Qt::LeftButton);
    QTRY_COMPARE(screen.flow->systemAudio(), Permission::granted);
    QVERIFY(!screen.shows("permissionsBox"));
    QVERIFY(screen.shows("recordButton"));
    QVERIFY(screen.panes.isEmpty());
}

void TestRecorderView::settingsOpenTheRowsPane()
{
    Screen screen(State::idle(), 0, Permission::denied, Permission::denied);
    screen.frame.show();
    QVERIFY(QTest::qWaitForWindowExposed(&screen.frame));
    QTest::mouseClick(screen.row(1)->settingsButton(), Qt::LeftButton);
    // The second step is still closed but a denial can always be mended.
    QCOMPARE(screen.row(2)->opacity(), PermissionRow::disabledOpacity);
    QTest::mouseClick(screen.row(2)->settingsButton(), Qt::LeftButton);
    QCOMPARE(screen.panes, (QList<Pane>{Pane::microphone, Pane::systemAudio}));
}

void TestRecorderView::unlinkAsksFirst()
{
    Screen screen(State::paused(), 83);
    QSignalSpy unlinks(screen.view, &RecorderView::unlinkRequested);
    screen.frame.show();
    QVERIFY(QTest::qWaitForWindowExposed(&screen.frame));
    auto *unlink = screen.child<QAbstractButton>("unlinkButton");
    QCOMPARE(unlink->font().pixelSize(), 10);

    screen.click("unlinkButton");
    QMessageBox *confirmation = screen.view->unlinkConfirmation();
    QVERIFY(confirmation);
    QCOMPARE(confirmation->text(), QStringLiteral("Unlink this computer?"));
    QCOMPARE(confirmation->informativeText(), QString());
    auto *confirm = confirmation->findChild<QPushButton *>(QStringLiteral("confirmUnlinkButton"));
    QCOMPARE(confirm->text(), QStringLiteral("Unlink this computer"));
    // Cancel is the default: Return alone never unlinks.
    QCOMPARE(confirmation->defaultButton(), confirmation->button(QMessageBox::Cancel));
    QTest::mouseClick(confirmation->button(QMessageBox::Cancel), Qt::LeftButton);
    QTRY_VERIFY(!screen.view->unlinkConfirmation());
    QCOMPARE(unlinks.count(), 0);

    screen.click("unlinkButton");
    QVERIFY(screen.view->unlinkConfirmation());
    QTest::mouseClick(screen.view->unlinkConfirmation()->findChild<QPushButton *>(QStringLiteral("confirmUnlinkButton")),
                      Qt::LeftButton);
    QCOMPARE(unlinks.count(), 1);
    // The screen only asks; the flow is left to whoever unlinks.
    QCOMPARE(screen.flow->state(), State::paused());
}

void TestRecorderView::soundSettingsCommand_data()
{
    QTest::addColumn<QString>("desktop");
    QTest::addColumn<QStringList>("installed");
    QTest::addColumn<int>("pane");
    QTest::addColumn<QStringList>("command");
    const QString gnome = QStringLiteral("gnome-control-center");
    const QString plasma = QStringLiteral("systemsettings");
    const QString pavu = QStringLiteral("pavucontrol");
    const QStringList all{gnome, plasma, pavu};
    const auto path = [](const QString &name) { return QStringLiteral("/usr/bin/") + name; };
    const int mic = int(Pane::microphone);
    const int sys = int(Pane::systemAudio);
    QTest::newRow("GNOME") << QStringLiteral("GNOME") << all << mic << QStringList{path(gnome), QStringLiteral("sound")};
    QTest::newRow("Ubuntu's GNOME") << QStringLiteral("ubuntu:GNOME") << all << sys
                                    << QStringList{path(gnome), QStringLiteral("sound")};
    QTest::newRow("Plasma") << QStringLiteral("KDE") << all << mic
                            << QStringList{path(plasma), QStringLiteral("kcm_pulseaudio")};
    QTest::newRow("XFCE, microphone") << QStringLiteral("XFCE") << all << mic
                                      << QStringList{path(pavu), QStringLiteral("--tab=4")};
    QTest::newRow("XFCE, system audio") << QStringLiteral("XFCE") << all << sys
                                        << QStringList{path(pavu), QStringLiteral("--tab=2")};
    QTest::newRow("GNOME without its settings") << QStringLiteral("GNOME") << QStringList{plasma} << mic
                                                << QStringList{path(plasma), QStringLiteral("kcm_pulseaudio")};
    QTest::newRow("nothing installed") << QStringLiteral("GNOME") << QStringList() << mic << QStringList();
}

void TestRecorderView::soundSettingsCommand()
{
    QFETCH(QString, desktop);
    QFETCH(QStringList, installed);
    QFETCH(int, pane);
    QFETCH(QStringList, command);
    const auto find = [&installed](const QString &name) {
        return installed.contains(name) ? QStringLiteral("/usr/bin/") + name : QString();
    };
    QCOMPARE(SoundSettings::command(Pane(pane), desktop, find).value_or(QStringList()), command);
}

void TestRecorderView::renders_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<State>("state");
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<Permission>("microphone");
    QTest::addColumn<Permission>("systemAudio");
    const Permission granted = Permission::granted;
    const Permission unknown = Permission::unknown;
    QTest::newRow("recorder-idle") << QStringLiteral("recorder-idle") << State::idle() << 0.0 << granted << granted;
    QTest::newRow("permissions-1") << QStringLiteral("permissions-1") << State::idle() << 0.0 << unknown << unknown;
    QTest::newRow("permissions-2") << QStringLiteral("permissions-2") << State::idle() << 0.0 << granted << unknown;
    QTest::newRow("recorder-recording") << QStringLiteral("recorder-recording") << State::recording() << 83.0 << granted
                                        << granted;
    QTest::newRow("recorder-paused") << QStringLiteral("recorder-paused") << State::paused() << 83.0 << granted
                                     << granted;
    QTest::newRow("recorder-saving") << QStringLiteral("recorder-saving") << State::saving(QStringLiteral("Uploading…"))
                                     << 83.0 << granted << granted;
    QTest::newRow("recorder-sent") << QStringLiteral("recorder-sent") << State::sent() << 83.0 << granted << granted;
    QTest::newRow("recorder-failed") << QStringLiteral("recorder-failed") << State::failed(couldNotStart) << 0.0
                                     << granted << granted;
    QTest::newRow("permissions-denied") << QStringLiteral("permissions-denied") << State::idle() << 0.0
                                        << Permission::denied << Permission::denied;
    QTest::newRow("recorder-long") << QStringLiteral("recorder-long") << State::recording() << 36000.0 << granted
                                   << granted;
}

void TestRecorderView::renders()
{
    QFETCH(QString, name);
    QFETCH(State, state);
    QFETCH(double, elapsed);
    QFETCH(Permission, microphone);
    QFETCH(Permission, systemAudio);
    Screen screen(state, elapsed, microphone, systemAudio);
    screen.view->setAnimated(false);
    screen.view->findChild<WaveformIndicator *>()->setPhase(2);
    const QImage image = render(screen.frame, name);
    QCOMPARE(image.size(), QSize(760, 860));
    render(screen.frame, name, 1);
    QCOMPARE(screen.view->geometry(), QRect(24, 24, 332, 382));
    QCOMPARE(outside(screen.view), QStringList());
}

QTEST_MAIN(TestRecorderView)
#include "tst_RecorderView.moc"
