// The recorder flow's state machine, display clock, permissions and the choices it
// makes for the screen, on stand-ins with a hand-moved clock. Sends here end without
// a session or at a port nobody listens on; recording_send sends to the service.
#include "RecordingTestSupport.h"

#include "support/LogCapture.h"

#include <QSignalSpy>
#include <QTest>

using namespace RecordingTest;

Q_DECLARE_METATYPE(Permission)

namespace {
const QString notLinked = QStringLiteral("This Mac is not linked to a Selvaro account any more.");
const QString couldNotStart =
    QStringLiteral("The recording could not start. Check the microphone and system audio permissions.");
const State finishing = State::saving(QStringLiteral("Finishing the recording…"));

// Calls the action named by the first word of `event`.
void act(RecorderFlow &flow, const QString &event)
{
    static const QHash<QString, void (RecorderFlow::*)()> actions{
        {QStringLiteral("record"), &RecorderFlow::record},   {QStringLiteral("pause"), &RecorderFlow::pause},
        {QStringLiteral("resume"), &RecorderFlow::resume},   {QStringLiteral("save"), &RecorderFlow::save},
        {QStringLiteral("discard"), &RecorderFlow::discard}, {QStringLiteral("retrySend"), &RecorderFlow::retrySend}};
    (flow.*actions.value(event.section(QLatin1Char(' '), 0, 0)))();
}

// Brings a fresh flow into `from`; every capture holds its stop() until released.
void reach(StandIns &bench, RecorderFlow &flow, const QString &from)
{
    bench.holdStop = true;
    if (from == QLatin1String("failed start")) {
        bench.nextStartError = QStringLiteral("no microphone");
        flow.record();
        bench.nextStartError.reset();
        return;
    }
    if (from == QLatin1String("idle"))
        return;
    flow.record();
    if (from == QLatin1String("recording"))
        return;
    bench.clock->advanceInTicks(1s);
    flow.pause();
    if (from == QLatin1String("paused"))
        return;
    flow.save();
    if (from == QLatin1String("failed send")) // without a session: kept for a retry
        bench.last().release();
}
} // namespace

class TestRecordingFlow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void transitions_data();
    void transitions();
    void screenChoices_data();
    void screenChoices();
    void elapsedCountsOnlyRecordedTime();
    void startFailureIsLogged_data();
    void startFailureIsLogged();
    void sendOutlivesADiscard_data();
    void sendOutlivesADiscard();
    void tickerShowsRunningTimeAndMakesALastUpdate();
    void permissionsFollowTheProbes();
    void systemAudioPoll_data();
    void systemAudioPoll();
    void previewIsFrozen();
    void destroyingTheFlowWhileSavingIsSafe();
};

void TestRecordingFlow::transitions_data()
{
    QTest::addColumn<QString>("from");
    QTest::addColumn<QString>("event");
    QTest::addColumn<State>("to");
    QTest::addColumn<bool>("canRetrySend");
    QTest::addColumn<double>("elapsed");
    QTest::addColumn<QStringList>("calls"); // of every capture made, in order
    const QString start = QStringLiteral("start"), pause = QStringLiteral("pause"), stop = QStringLiteral("stop");
    const QString cancel = QStringLiteral("cancel"), resume = QStringLiteral("resume");
    const auto row = [](const char *from, const char *event) -> QTestData & {
        return QTest::addRow("%s, %s", from, event) << QString::fromLatin1(from) << QString::fromLatin1(event);
    };
    row("idle", "record") << State::recording() << false << 0.0 << QStringList{start};
    row("idle", "record failing") << State::failed(couldNotStart) << false << 0.0 << QStringList{start};
    row("idle", "pause") << State::idle() << false << 0.0 << QStringList{};
    row("idle", "save") << State::idle() << false << 0.0 << QStringList{};
    row("recording", "record") << State::recording() << false << 0.0 << QStringList{start};
    row("recording", "resume") << State::recording() << false << 0.0 << QStringList{start};
    row("recording", "pause") << State::paused() << false << 0.0 << QStringList{start, pause};
    row("recording", "save") << finishing << false << 0.0 << QStringList{start, stop};
    // Cancelled as it runs, not paused first: the capture then keeps its files.
    row("recording", "discard") << State::idle() << false << 0.0 << QStringList{start, cancel};
    row("paused", "pause") << State::paused() << false << 1.0 << QStringList{start, pause};
    row("paused", "record") << State::paused() << false << 1.0 << QStringList{start, pause};
    row("paused", "resume") << State::recording() << false << 1.0 << QStringList{start, pause, resume};
    row("paused", "save") << finishing << false << 1.0 << QStringList{start, pause, stop};
    row("paused", "discard") << State::idle() << false << 0.0 << QStringList{start, pause, cancel};
    row("saving", "record") << finishing << false << 1.0 << QStringList{start, pause, stop};
    row("saving", "save") << finishing << false << 1.0 << QStringList{start, pause, stop};
    row("saving", "discard") << State::idle() << false << 0.0 << QStringList{start, pause, stop, cancel};
    row("failed send", "record") << State::recording() << false << 0.0 << QStringList{start, pause, stop, start};
    // The mixed file is sent again as it is: not stopped or mixed again.
    row("failed send", "retrySend") << State::failed(notLinked) << true << 1.0 << QStringList{start, pause, stop};
    row("failed send", "discard") << State::idle() << false << 0.0 << QStringList{start, pause, stop, cancel};
    // A start that fails keeps the earlier recording: "Send again" still sends it.
    row("failed send", "record failing") << State::failed(couldNotStart) << true << 1.0
                                          << QStringList{start, pause, stop, start};
    row("failed start", "record") << State::recording() << false << 0.0 << QStringList{start, start};
    row("failed start", "retrySend") << State::failed(couldNotStart) << false << 0.0 << QStringList{start};
}

void TestRecordingFlow::transitions()
{
    QFETCH(QString, from);
    QFETCH(QString, event);
    StandIns bench;
    auto flow = bench.makeFlow();
    reach(bench, *flow, from);
    if (event == QLatin1String("record failing"))
        bench.nextStartError = QStringLiteral("no microphone");
    act(*flow, event);
    QTEST(flow->state(), "to");
    QTEST(flow->canRetrySend(), "canRetrySend");
    QTEST(flow->elapsed(), "elapsed");
    QStringList calls;
    for (const auto &capture : bench.made)
        calls << capture->calls;
    QTEST(calls, "calls");
}

void TestRecordingFlow::screenChoices_data()
{
    QTest::addColumn<State>("state");
    QTest::addColumn<Permission>("microphone");
    QTest::addColumn<Permission>("systemAudio");
    QTest::addColumn<bool>("isLive");
    QTest::addColumn<bool>("showsPermissions");
    QTest::addColumn<bool>("systemAudioStepEnabled");
    const Permission unknown = Permission::unknown, denied = Permission::denied, granted = Permission::granted;
    QTest::newRow("idle") << State::idle() << granted << granted << false << false << true;
    QTest::newRow("idle, none yet") << State::idle() << unknown << unknown << false << true << false;
    QTest::newRow("idle, microphone denied") << State::idle() << denied << unknown << false << true << false;
    QTest::newRow("idle, microphone granted") << State::idle() << granted << unknown << false << true << true;
    QTest::newRow("idle, system audio first") << State::idle() << unknown << granted << false << true << true;
    QTest::newRow("recording, microphone revoked") << State::recording() << denied << granted << true << false << true;
    QTest::newRow("paused") << State::paused() << granted << granted << true << false << true;
    QTest::newRow("saving, one missing") << finishing << granted << unknown << false << false << true;
    QTest::newRow("sent, one missing") << State::sent() << unknown << granted << false << true << true;
    QTest::newRow("failed") << State::failed(couldNotStart) << granted << granted << false << false << true;
}

void TestRecordingFlow::screenChoices()
{
    QFETCH(State, state);
    QFETCH(Permission, microphone);
    QFETCH(Permission, systemAudio);
    const auto flow = RecorderFlow::preview(state, 0, microphone, systemAudio);
    QTEST(flow->isLive(), "isLive");
    QTEST(flow->showsPermissions(), "showsPermissions");
    QTEST(flow->systemAudioStepEnabled(), "systemAudioStepEnabled");
}

void TestRecordingFlow::elapsedCountsOnlyRecordedTime()
{
    StandIns bench;
    bench.holdStop = true;
    auto flow = bench.makeFlow();
    QSignalSpy elapsedChanges(flow.get(), &RecorderFlow::elapsedChanged);
    flow->record();
    bench.clock->advanceInTicks(3s);
    flow->pause();
    bench.clock->advanceInTicks(10s);
    flow->resume();
    QCOMPARE(flow->elapsed(), 3.0);
    bench.clock->advanceInTicks(2s);
    flow->save();
    QCOMPARE(flow->elapsed(), 5.0);
    QCOMPARE(elapsedChanges.count(), 2); // pause and save each closed one segment
}

void TestRecordingFlow::startFailureIsLogged_data()
{
    QTest::addColumn<bool>("folderBlocked");
    QTest::addColumn<QString>("logged");
    QTest::newRow("capture") << false << QStringLiteral("start: no microphone");
    QTest::newRow("folder") << true << QStringLiteral("start: ");
}

void TestRecordingFlow::startFailureIsLogged()
{
    QFETCH(bool, folderBlocked);
    QFETCH(QString, logged);
    StandIns bench;
    QFile blocker(bench.folder());
    if (folderBlocked)
        QVERIFY(blocker.open(QIODevice::WriteOnly));
    else
        bench.nextStartError = QStringLiteral("no microphone");
    LogCapture log;
    auto flow = bench.makeFlow();
    flow->record();
    QCOMPARE(flow->state(), State::failed(couldNotStart));
    const QStringList lines = log.lines(QStringLiteral("recorder"));
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith(logged), qPrintable(lines.first()));
    QCOMPARE(bench.clock->sleepsOf(RecorderFlow::tickInterval), 0); // no ticker started
}

void TestRecordingFlow::sendOutlivesADiscard_data()
{
    QTest::addColumn<bool>("recordAgain");
    QTest::addColumn<State>("outcome");
    // Deliberately not cancelled: the send overwrites idle with its own outcome.
    QTest::newRow("discarded") << false << State::failed(notLinked);
    // But it never strands a newer recording under a "sent" or "failed" screen.
    QTest::newRow("a new recording since") << true << State::recording();
}

void TestRecordingFlow::sendOutlivesADiscard()
{
    QFETCH(bool, recordAgain);
    StandIns bench;
    auto flow = bench.makeFlow();
    reach(bench, *flow, QStringLiteral("saving"));
    flow->discard();
    if (recordAgain)
        flow->record();
    bench.made.first()->release();
    QTEST(flow->state(), "outcome");
    QVERIFY(!flow->canRetrySend()); // the discard dropped the recording
    QCOMPARE(bench.last().calls.size(), recordAgain ? 1 : 4);
}

void TestRecordingFlow::tickerShowsRunningTimeAndMakesALastUpdate()
{
    StandIns bench;
    auto flow = bench.makeFlow();
    QSignalSpy shown(flow.get(), &RecorderFlow::displayedElapsedChanged);
    flow->record();
    bench.clock->advance(500ms);
    QCOMPARE(flow->displayedElapsed(), 0.5);
    bench.clock->advanceInTicks(1s);
    bench.clock->advance(200ms); // between two ticks: the screen keeps its value
    QCOMPARE(flow->displayedElapsed(), 1.5);
    flow->pause();
    const qsizetype beforePause = shown.count();
    bench.clock->advanceInTicks(3s); // paused: the ticker runs but has no news
    QCOMPARE(flow->displayedElapsed(), 1.7);
    QCOMPARE(shown.count(), beforePause + 1);
    flow->resume();
    bench.clock->advance(300ms);
    flow->save();
    QTRY_COMPARE(flow->displayedElapsed(), 2.0); // the cancelled ticker's last update
    const int sleeps = bench.clock->sleepsOf(RecorderFlow::tickInterval);
    bench.clock->advanceInTicks(2s);
    QCOMPARE(bench.clock->sleepsOf(RecorderFlow::tickInterval), sleeps); // it has ended

    flow->record();
    bench.clock->advanceInTicks(1s);
    flow->discard();
    QCOMPARE(flow->displayedElapsed(), 1.0); // discard itself does not touch it…
    QTRY_COMPARE(flow->displayedElapsed(), 0.0); // …the last update does
}

void TestRecordingFlow::permissionsFollowTheProbes()
{
    StandIns bench;
    bench.server->setBoth(Permission::granted);
    auto flow = bench.makeFlow();
    QTRY_COMPARE(flow->microphone(), Permission::granted);
    QTRY_COMPARE(flow->systemAudio(), Permission::granted);
    QSignalSpy microphoneChanges(flow.get(), &RecorderFlow::microphoneChanged);
    flow->refreshPermissions();
    flow->refreshPermissions();
    QCOMPARE(microphoneChanges.count(), 0);

    bench.server->setBoth(Permission::denied);
    const int probes = bench.server->probes;
    flow->requestMicrophone();
    QTRY_COMPARE(flow->microphone(), Permission::denied);
    QCOMPARE(bench.server->probes, probes + 1);
    QCOMPARE(flow->systemAudio(), Permission::granted); // not asked again
}

void TestRecordingFlow::systemAudioPoll_data()
{
    QTest::addColumn<Permission>("answer");
    QTest::addColumn<int>("polls");
    QTest::newRow("stays unknown: ten reads") << Permission::unknown << RecorderFlow::permissionPollAttempts;
    QTest::newRow("known at the first read") << Permission::granted << 1;
}

void TestRecordingFlow::systemAudioPoll()
{
    QFETCH(Permission, answer);
    StandIns bench;
    auto flow = bench.makeFlow();
    QTRY_COMPARE(bench.server->probes, 2);
    bench.server->systemAudio = answer;
    flow->requestSystemAudio();
    QTRY_COMPARE(bench.server->probes, 3);
    QTRY_COMPARE(flow->systemAudio(), answer);
    for (int second = 0; second < 15; ++second) {
        bench.clock->advance(1s);
        QCoreApplication::processEvents();
    }
    QTEST(bench.clock->sleepsOf(RecorderFlow::permissionPollInterval), "polls");
}

void TestRecordingFlow::previewIsFrozen()
{
    const auto flow = RecorderFlow::preview(State::paused(), 42.5, Permission::granted, Permission::denied);
    QCOMPARE(flow->displayedElapsed(), 42.5);
    QCOMPARE(flow->elapsed(), 0.0);
    QSignalSpy states(flow.get(), &RecorderFlow::stateChanged);
    QSignalSpy microphone(flow.get(), &RecorderFlow::microphoneChanged);
    QSignalSpy shown(flow.get(), &RecorderFlow::displayedElapsedChanged);
    flow->refreshPermissions();
    flow->requestMicrophone();
    flow->requestSystemAudio();
    for (const char *action : {"record", "resume", "save", "retrySend", "discard"})
        act(*flow, QString::fromLatin1(action));
    QTest::qWait(50);
    QCOMPARE(states.count() + microphone.count() + shown.count(), 0);
    QCOMPARE(flow->state(), State::paused());
    QCOMPARE(flow->systemAudio(), Permission::denied);
}

void TestRecordingFlow::destroyingTheFlowWhileSavingIsSafe()
{
    StandIns bench;
    auto flow = bench.makeFlow();
    reach(bench, *flow, QStringLiteral("saving"));
    flow.reset();
    // The capture outlives the flow for the running task, which ends quietly.
    QCOMPARE(bench.made.first().use_count(), 2);
    bench.last().release();
    QCOMPARE(bench.made.first().use_count(), 1);
}

QTEST_GUILESS_MAIN(TestRecordingFlow)
#include "tst_recording_flow.moc"
