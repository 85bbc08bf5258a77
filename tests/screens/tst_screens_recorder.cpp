// The recorder screen, offscreen: what it shows for each state of a preview flow, and
// a real RecorderFlow on stand-ins driven through its controls.
#include "ScreenTestSupport.h"

#include "audio/ChosenSourceServer.h"
#include "recording/RecordingTestSupport.h"
#include "support/StandInSoundServer.h"
#include "ui/LevelMeter.h"
#include "ui/Palette.h"
#include "ui/PermissionRow.h"
#include "ui/PillButton.h"
#include "ui/PlatformWording.h"
#include "ui/RecorderView.h"
#include "ui/StepBadge.h"
#include "ui/SystemAudioSourceButton.h"
#include "ui/TextLabel.h"
#include "ui/UploadProgressBar.h"
#include "ui/WaveformIndicator.h"

#include <QLayout>
#include <QMenu>
#include <QMessageBox>
#include <QSignalSpy>
#include <QTest>

using namespace ScreenTest;
using namespace RecordingTest;
using Pane = SoundSettings::Pane;

Q_DECLARE_METATYPE(Permission)

namespace {
const QString couldNotStart
    = u"The recording could not start. Check the microphone and system audio permissions."_s;

// The server's streams as a test sets them.
struct ListedStreams final : StreamWatch
{
    QList<ClientStream> listed;
    [[nodiscard]] QList<ClientStream> streams() const override { return listed; }
};

// The level meters as assistive technology reads them, each after its caption.
const QString meters = u"System audio: System audio level %1, Microphone: Microphone level %2"_s;

// A recorder screen, shown in the window's content area, changing at once; a
// "Settings" press is noted instead of starting a program.
struct Screen
{
    explicit Screen(std::unique_ptr<RecorderFlow> shown)
        : flow(std::move(shown))
        , view(new RecorderView(flow.get(), [this](Pane pane) { panes << pane; }))
        , frame(view)
    {
        view->setAnimated(false);
        frame.show();
        QVERIFY(QTest::qWaitForWindowExposed(&frame));
    }
    bool shows(const char *name) const { return ScreenTest::shows(view, name); }
    // The shown meters as `meters` words them, "dimmed " first when they are.
    QString shownMeters() const
    {
        QStringList shown;
        bool dimmed = false;
        for (LevelMeter *meter : view->findChildren<LevelMeter *>()) {
            if (!meter->isVisibleTo(view))
                continue;
            QAccessibleInterface *read = QAccessible::queryAccessibleInterface(meter);
            const QLayout *row = meter->parentWidget()->layout();
            const auto *caption = qobject_cast<QLabel *>(row->itemAt(row->indexOf(meter) - 1)->widget());
            shown << u"%1: %2 %3"_s.arg(caption->text(), read->text(QAccessible::Name))
                         .arg(read->valueInterface()->currentValue().toInt());
            dimmed = meter->isDimmed();
        }
        if (auto *bar = view->findChild<UploadProgressBar *>(); bar->isVisibleTo(view))
            shown << bar->accessibleName() + u' '
                    + QAccessible::queryAccessibleInterface(bar)->valueInterface()->currentValue().toString();
        return (dimmed ? u"dimmed "_s : QString()) + shown.join(u", "_s);
    }
    void click(const char *name) const { QTest::mouseClick(child(view, name), Qt::LeftButton); }
    PermissionRow *row(const char *name) const { return child<PermissionRow>(view, name); }
    // Each step as "Allow", "Settings", "none" or "done" (a checked badge); " dimmed" while closed.
    QString steps() const
    {
        QStringList steps;
        for (const PermissionRow *shown : { row("microphoneRow"), row("systemAudioRow") }) {
            QString action = shown->badge()->isDone() ? u"done"_s : u"none"_s;
            for (PillButton *button : { shown->allowButton(), shown->settingsButton() })
                action = button->isVisibleTo(shown) ? button->text() : action;
            steps << action + (shown->opacity() < 1 ? u" dimmed"_s : QString());
        }
        return steps.join(u" | "_s);
    }

    std::unique_ptr<RecorderFlow> flow;
    RecorderView *view;
    ScreenFrame frame;
    QList<Pane> panes;
};
} // namespace

class TestScreensRecorder : public QObject
{
    Q_OBJECT
    PlatformWording m_wording;

private Q_SLOTS:
    void initTestCase() { QCoreApplication::installTranslator(&m_wording); }

    void whatEachStateShows_data()
    {
        QTest::addColumn<State>("state");
        QTest::addColumn<Permission>("microphone");
        QTest::addColumn<QStringList>("buttons");
        QTest::addColumn<QString>("status"); // the status line, "" while the permissions box shows
        QTest::addColumn<QString>("meters"); // as assistive technology reads them
        const Permission unknown = Permission::unknown, denied = Permission::denied,
                         granted = Permission::granted;
        const QString unlink = u"Unlink"_s, record = u"Record"_s, source = u"System audio source"_s;
        QTest::newRow("idle") << State::idle() << granted << QStringList { unlink, record, source } << u" "_s
                              << QString();
        QTest::newRow("recording, one revoked")
            << State::recording() << denied << QStringList { unlink, u"Pause"_s, source }
            << u"Recording the system audio and the microphone"_s << meters.arg(50).arg(12);
        QTest::newRow("paused") << State::paused() << granted
                                << QStringList { unlink, u"Discard"_s, u"Resume"_s, u"Save"_s, source }
                                << u"Paused"_s << u"dimmed "_s + meters.arg(50).arg(12);
        QTest::newRow("saving") << State::saving(u"Uploading…"_s) << unknown << QStringList { unlink, source }
                                << u"Uploading…"_s << QString();
        QTest::newRow("uploading") << State::saving(u"Uploading… 42 %"_s, 42) << granted
                                   << QStringList { unlink, source } << u"Uploading… 42 %"_s
                                   << u"Upload progress 42"_s;
        QTest::newRow("sent") << State::sent() << granted << QStringList { unlink, record, source }
                              << u"Sent. The note is being written on your phone."_s << QString();
        // A preview keeps no recording: the message alone, no "Send again".
        QTest::newRow("failed") << State::failed(couldNotStart) << granted
                                << QStringList { unlink, record, source } << couldNotStart << QString();
    }
    void whatEachStateShows()
    {
        QFETCH(State, state);
        QFETCH(Permission, microphone);
        Screen screen(RecorderFlow::preview(state, 83, microphone, Permission::granted));
        QTEST(shownButtons(screen.view), "buttons");
        QStringList status;
        for (const char *line : { "idleStatus", "recordingStatus", "pausedStatus", "savingStatus",
                 "sentStatus", "failureMessage" })
            status << (screen.shows(line) ? child<QLabel>(screen.view, line)->text() : QString());
        QTEST(status.join(QString()), "status");
        QTEST(screen.shownMeters(), "meters");
        QCOMPARE(screen.shows("spinner"), state.is(State::Kind::saving));
        QCOMPARE(
            screen.view->findChild<WaveformIndicator *>()->isRunning(), state.is(State::Kind::recording));
        QCOMPARE(child<TextLabel>(screen.view, "clock")->color(),
            screen.flow->isLive() ? Palette::primaryText() : Palette::secondaryText());
        QCOMPARE(outside(screen.view), QStringList());
    }

    // The permission steps, then every control, on a real flow whose sends go nowhere and
    // fail, keeping the recording.
    void controlsDriveTheFlow()
    {
        StandIns bench;
        bench.link();
        Screen screen(bench.makeFlow());
        QTRY_COMPARE(bench.server->probes, 2);
        QCOMPARE(screen.steps(), u"Allow | none dimmed"_s);
        QCOMPARE(child(screen.view, "permissionsBox")->width(), 320); // as much as it may take
        bench.server->microphone = Permission::granted;
        QTest::mouseClick(screen.row("microphoneRow")->allowButton(), Qt::LeftButton);
        QTRY_COMPARE(screen.steps(), u"done | Allow"_s);
        bench.server->systemAudio = Permission::granted;
        QTest::mouseClick(screen.row("systemAudioRow")->allowButton(), Qt::LeftButton);
        QTRY_VERIFY(screen.shows("recordButton"));
        // Whoever follows the state sees "Send again" as the state has it.
        QList<bool> sendAgainOnFailure;
        connect(screen.flow.get(), &RecorderFlow::stateChanged, this, [&] {
            if (screen.flow->state().is(State::Kind::failed))
                sendAgainOnFailure << screen.shows("sendAgainButton");
        });
        screen.click("recordButton");
        // Each meter follows its own source, one value after another.
        bench.last().levels = { 0.5f, 0.12f };
        bench.clock->advanceInTicks(3s);
        QCOMPARE(child<QLabel>(screen.view, "clock")->text(), u"00:03"_s);
        QCOMPARE(screen.shownMeters(), meters.arg(50).arg(12));
        bench.last().levels = { 0.25f, 0.75f };
        bench.clock->advanceInTicks(100ms);
        QCOMPARE(screen.shownMeters(), meters.arg(25).arg(75));
        for (const char *button : { "pauseButton", "resumeButton", "pauseButton", "discardButton" })
            screen.click(button);
        QCOMPARE(bench.last().calls.join(u' '), u"start pause resume pause close cancel"_s);

        for (const char *button : { "recordButton", "pauseButton", "saveButton" })
            screen.click(button);
        QVERIFY(screen.shows("spinner"));
        // Nothing listens: each send fails after its four tries.
        QTRY_VERIFY((bench.clock->advance(1min), screen.flow->state().is(State::Kind::failed)));
        screen.click("sendAgainButton");
        QCOMPARE(screen.flow->state(), State::saving(u"Uploading…"_s));
        QTRY_COMPARE((bench.clock->advance(1min), sendAgainOnFailure), (QList<bool> { true, true }));

        bench.server->microphone = bench.server->systemAudio = Permission::denied;
        screen.flow->permissions().probe();
        QTRY_COMPARE(screen.steps(), u"Settings | Settings dimmed"_s);
        // A closed step can still be mended.
        QTest::mouseClick(screen.row("microphoneRow")->settingsButton(), Qt::LeftButton);
        QTest::mouseClick(screen.row("systemAudioRow")->settingsButton(), Qt::LeftButton);
        QCOMPARE(screen.panes, (QList<Pane> { Pane::microphone, Pane::systemAudio }));

        QSignalSpy unlinks(screen.view, &RecorderView::unlinkRequested);
        screen.click("unlinkButton");
        QPointer<QMessageBox> confirmation = screen.view->unlinkConfirmation();
        QCOMPARE(confirmation->text(), u"Unlink this computer?"_s);
        // Cancel is the default: Return alone never unlinks.
        QTest::keyClick(confirmation, Qt::Key_Return);
        QTRY_VERIFY(!confirmation);
        QCOMPARE(unlinks.count(), 0);
        // The session forgotten while it is open: the screen goes, and the question with it.
        screen.click("unlinkButton");
        confirmation = screen.view->unlinkConfirmation();
        QVERIFY(confirmation->isVisible());
        screen.view->hide();
        QTRY_VERIFY(!confirmation);
    }

    // The menu lists "All apps", then what plays by name (one entry per binary, a name
    // shared by two binaries told apart, never our own, never a capture) and marks the
    // choice; the choice is remembered and listed at the next start though nothing plays.
    void systemAudioSourceMenu()
    {
        const auto stream = [](const QString &name, const QString &binary, bool ours = false) {
            ClientStream made { ClientStream::Kind::playback, 0, name, binary };
            made.ours = ours;
            return made;
        };
        auto standIn = std::make_shared<StandInSoundServer>();
        auto server = std::make_shared<ChosenSourceServer>(standIn);
        auto watch = std::make_unique<ListedStreams>();
        ClientStream microphone = stream(u"Zoom"_s, u"zoom"_s);
        microphone.kind = ClientStream::Kind::capture;
        watch->listed = { stream(u"Zoom Meeting"_s, u"zoom"_s), stream(u"Firefox"_s, u"firefox"_s),
            stream(u"Firefox"_s, u"firefox"_s), stream(u"Firefox"_s, u"firefox-esr"_s),
            stream({}, u"spotify"_s), stream(u"Selvaro Recorder"_s, u"selvaro-recorder"_s, true), microphone,
            stream(u"Zoom"_s, {}) };
        const auto items = [](SystemAudioSourceButton &button) {
            const std::unique_ptr<QMenu> menu(button.makeMenu());
            QStringList shown { button.text() };
            for (const QAction *item : menu->actions())
                shown << (item->isChecked() ? u"• "_s : u""_s) + item->text();
            return shown;
        };
        {
            SystemAudioSource source(server, std::move(watch));
            SystemAudioSourceButton button(&source);
            QCOMPARE(items(button),
                (QStringList { u"All apps"_s, u"• All apps"_s, u"Firefox (firefox)"_s,
                    u"Firefox (firefox-esr)"_s, u"spotify"_s, u"Zoom Meeting"_s }));
            source.chooseProgram(u"spotify"_s); // a call's program: no name of its own
            QCOMPARE(server->chosen(), u"spotify"_s);
            const std::unique_ptr<QMenu> menu(button.makeMenu());
            menu->actions().constLast()->trigger();
            QCOMPARE(server->chosen(), u"zoom"_s);
            QCOMPARE(source.recordingText(), u"Recording Zoom Meeting and the microphone"_s);
        }
        SystemAudioSource restarted(std::make_shared<ChosenSourceServer>(standIn), nullptr);
        SystemAudioSourceButton button(&restarted);
        QCOMPARE(items(button), (QStringList { u"Zoom Meeting"_s, u"All apps"_s, u"• Zoom Meeting"_s }));
    }
};

QTEST_MAIN(TestScreensRecorder)
#include "tst_screens_recorder.moc"
