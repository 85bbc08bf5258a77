// The recorder flow's state machine, display clock and permissions, with a stand-in
// capture and a clock the test moves by hand. Sends here go nowhere (no session, or
// a port nobody listens on); the send pipeline against the service is tst_sendpipeline.
#include "RecordingTestSupport.h"

#include "account/SessionStore.h"
#include "recording/RecorderFlow.h"
#include "support/LogCapture.h"

#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using namespace RecordingTest;
using State = RecorderFlow::State;

namespace {
const QString notLinked = QStringLiteral("This Mac is not linked to a Selvaro account any more.");
const QString couldNotStart =
    QStringLiteral("The recording could not start. Check the microphone and system audio permissions.");
const QString finishing = QStringLiteral("Finishing the recording…");
// A token whose "id" claim is "acc1".
const QString tokenOfAcc1 = QStringLiteral("hdr.eyJpZCI6ImFjYzEifQ.sig");
} // namespace

class TestRecorderFlow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void stateEquality();
    void elapsedCountsOnlyRecordedTime();
    void recordOnlyFromIdleSentOrFailed();
    void pauseAndResumeOnlyInTheirStates();
    void startFailure_data();
    void startFailure();
    void failedStartAfterFailedSendKeepsTheRecording();
    void discard_data();
    void discard();
    void discardWhileSavingDoesNotCancelTheSend();
    void anOldSendLeavesANewerRecordingAlone();
    void tickerShowsRunningTimeAndMakesALastUpdate();
    void permissionsFollowTheProbes();
    void requestSystemAudioPollsAtMostTenTimes();
    void requestSystemAudioStopsPollingOnceKnown();
    void previewIsFrozen();
    void destroyingTheFlowWhileSavingIsSafe();

private:
    std::unique_ptr<RecorderFlow> makeFlow(QUrl serviceUrl = {});
    // Records for `seconds` of the manual clock, then pauses.
    void recordFor(RecorderFlow &flow, std::chrono::milliseconds duration);

    std::unique_ptr<QTemporaryDir> m_dir;
    std::shared_ptr<ManualClock> m_clock;
    std::shared_ptr<ProbeOnlyServer> m_server;
    StandInFactory m_captures;
    QNetworkAccessManager m_network;
    std::unique_ptr<SessionStore> m_store;
};

void TestRecorderFlow::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    m_clock = std::make_shared<ManualClock>();
    m_server = std::make_shared<ProbeOnlyServer>();
    m_captures = StandInFactory();
    m_store = std::make_unique<SessionStore>(SessionStore::Load::nothing);
}

void TestRecorderFlow::cleanup()
{
    m_store.reset();
}

std::unique_ptr<RecorderFlow> TestRecorderFlow::makeFlow(QUrl serviceUrl)
{
    if (serviceUrl.isEmpty())
        serviceUrl = QUrl(QStringLiteral("http://127.0.0.1:1"));
    return std::make_unique<RecorderFlow>(
        SelvaroAPI(&m_network, serviceUrl), *m_store,
        standInPlatform(m_server, m_captures, m_clock, m_dir->filePath(QStringLiteral("Recordings"))));
}

void TestRecorderFlow::recordFor(RecorderFlow &flow, std::chrono::milliseconds duration)
{
    flow.record();
    QCOMPARE(flow.state(), State::recording());
    m_clock->advanceInTicks(duration);
    flow.pause();
    QCOMPARE(flow.state(), State::paused());
}

void TestRecorderFlow::stateEquality()
{
    QCOMPARE(State::saving(QStringLiteral("a")), State::saving(QStringLiteral("a")));
    QVERIFY(State::saving(QStringLiteral("a")) != State::saving(QStringLiteral("b")));
    QVERIFY(State::saving(QStringLiteral("a")) != State::failed(QStringLiteral("a")));
    QVERIFY(State::idle() != State::sent());
    QCOMPARE(State(), State::idle());
    QCOMPARE(State::failed(QStringLiteral("boom")).toString(), QStringLiteral("failed(boom)"));
    QCOMPARE(State::paused().toString(), QStringLiteral("paused"));
}

void TestRecorderFlow::elapsedCountsOnlyRecordedTime()
{
    auto flow = makeFlow();
    m_captures.configure = [](StandInCapture &capture) { capture.holdStop = true; };
    QSignalSpy elapsedChanges(flow.get(), &RecorderFlow::elapsedChanged);
    flow->record();
    const QDateTime started = m_clock->now();
    QVERIFY(QFileInfo(m_dir->filePath(QStringLiteral("Recordings"))).isDir());

    m_clock->advanceInTicks(3s);
    flow->pause();
    QCOMPARE(flow->elapsed(), 3.0);
    m_clock->advanceInTicks(10s);
    flow->resume();
    QCOMPARE(flow->state(), State::recording());
    QCOMPARE(flow->elapsed(), 3.0);
    m_clock->advanceInTicks(2s);
    flow->save();
    QCOMPARE(flow->elapsed(), 5.0);
    QCOMPARE(flow->state(), State::saving(finishing));
    // pause and save each closed one segment; nothing else moved elapsed.
    QCOMPARE(elapsedChanges.count(), 2);
    QCOMPARE(m_captures.last().calls,
             (QStringList{QStringLiteral("start"), QStringLiteral("pause"), QStringLiteral("resume"),
                          QStringLiteral("stop")}));
    QCOMPARE(started, m_clock->now().addSecs(-15));
}

void TestRecorderFlow::recordOnlyFromIdleSentOrFailed()
{
    auto flow = makeFlow();
    m_captures.configure = [](StandInCapture &capture) { capture.holdStop = true; };
    recordFor(*flow, 1s);
    flow->record(); // paused
    flow->resume();
    flow->record(); // recording
    QCOMPARE(m_captures.made.size(), 1);

    flow->save();
    QCOMPARE(flow->state(), State::saving(finishing));
    QSignalSpy stateChanges(flow.get(), &RecorderFlow::stateChanged);
    flow->record(); // saving
    flow->save();
    QCOMPARE(m_captures.made.size(), 1);
    QCOMPARE(stateChanges.count(), 0);

    // Without a session the send ends in failed; from there a press starts afresh.
    m_captures.last().release();
    QCOMPARE(flow->state(), State::failed(notLinked));
    m_clock->advanceInTicks(1s);
    flow->record();
    QCOMPARE(flow->state(), State::recording());
    QCOMPARE(m_captures.made.size(), 2);
    QCOMPARE(flow->elapsed(), 0.0);
    QVERIFY(!flow->canRetrySend());
}

void TestRecorderFlow::pauseAndResumeOnlyInTheirStates()
{
    auto flow = makeFlow();
    QSignalSpy stateChanges(flow.get(), &RecorderFlow::stateChanged);
    QSignalSpy elapsedChanges(flow.get(), &RecorderFlow::elapsedChanged);
    flow->pause(); // idle
    flow->resume();
    QCOMPARE(stateChanges.count(), 0);

    flow->record();
    flow->resume(); // already recording
    m_clock->advanceInTicks(2s);
    flow->pause();
    m_clock->advanceInTicks(2s);
    flow->pause(); // already paused: nothing moves, nothing is announced
    QCOMPARE(flow->elapsed(), 2.0);
    QCOMPARE(stateChanges.count(), 2);
    QCOMPARE(elapsedChanges.count(), 1);
    QCOMPARE(m_captures.last().calls, (QStringList{QStringLiteral("start"), QStringLiteral("pause")}));
}

void TestRecorderFlow::startFailure_data()
{
    QTest::addColumn<bool>("folderBlocked");
    QTest::addColumn<QString>("logged");
    QTest::newRow("capture") << false << QStringLiteral("start: Failed to start microphone recording");
    QTest::newRow("folder") << true << QStringLiteral("start: ");
}

void TestRecorderFlow::startFailure()
{
    QFETCH(bool, folderBlocked);
    QFETCH(QString, logged);
    if (folderBlocked) {
        QFile blocker(m_dir->filePath(QStringLiteral("Recordings")));
        QVERIFY(blocker.open(QIODevice::WriteOnly));
    } else {
        m_captures.nextStartError = QStringLiteral("Failed to start microphone recording");
    }
    LogCapture log;
    auto flow = makeFlow();
    flow->record();
    QCOMPARE(flow->state(), State::failed(couldNotStart));
    QVERIFY(!flow->canRetrySend());
    const QStringList lines = log.lines(QStringLiteral("recorder"));
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().startsWith(logged), qPrintable(lines.first()));
    // Nothing runs: no ticker was started.
    QCOMPARE(m_clock->sleepsOf(RecorderFlow::tickInterval), 0);
}

void TestRecorderFlow::failedStartAfterFailedSendKeepsTheRecording()
{
    QTcpServer closed;
    QVERIFY(closed.listen(QHostAddress::LocalHost));
    const QUrl nobody(QStringLiteral("http://127.0.0.1:%1").arg(closed.serverPort()));
    closed.close();
    m_store->setSession(SessionPayload{QStringLiteral("s"), QStringLiteral("p"), tokenOfAcc1, false});

    auto flow = makeFlow(nobody);
    recordFor(*flow, 2s);
    flow->save();
    QTRY_VERIFY(flow->state().is(State::Kind::failed));
    QVERIFY2(flow->state().text().startsWith(QStringLiteral("Sending failed: ")), qPrintable(flow->state().toString()));
    QVERIFY(flow->canRetrySend());
    const QString kept = m_captures.last().finalMixedPath();
    QVERIFY(QFileInfo::exists(kept));

    QSignalSpy retryChanges(flow.get(), &RecorderFlow::canRetrySendChanged);
    m_captures.nextStartError = QStringLiteral("Failed to start microphone recording");
    flow->record();
    QCOMPARE(flow->state(), State::failed(couldNotStart));
    QVERIFY(flow->canRetrySend());
    QCOMPARE(retryChanges.count(), 0);
    QCOMPARE(flow->elapsed(), 2.0);

    // The retry sends the earlier recording: its file passes the empty check.
    QSignalSpy states(flow.get(), &RecorderFlow::stateChanged);
    flow->retrySend();
    QCOMPARE(flow->state(), State::saving(QStringLiteral("Uploading…")));
    QVERIFY(!flow->canRetrySend());
    QTRY_VERIFY(flow->state().is(State::Kind::failed));
    QVERIFY(flow->canRetrySend());
    QCOMPARE(m_captures.made.first()->calls.count(QStringLiteral("stop")), 1); // not stopped or mixed again
    QVERIFY(QFileInfo::exists(kept));
}

void TestRecorderFlow::discard_data()
{
    QTest::addColumn<bool>("paused");
    QTest::newRow("recording") << false;
    QTest::newRow("paused") << true;
}

void TestRecorderFlow::discard()
{
    QFETCH(bool, paused);
    auto flow = makeFlow();
    flow->record();
    m_clock->advanceInTicks(2s);
    if (paused)
        flow->pause();
    flow->discard();
    // Cancelled as it stands: a running capture is not paused first (it then ignores
    // the cancel and its files stay; see tst_recordingchain).
    QStringList expected{QStringLiteral("start")};
    if (paused)
        expected << QStringLiteral("pause");
    expected << QStringLiteral("cancel");
    QCOMPARE(m_captures.last().calls, expected);
    QCOMPARE(flow->state(), State::idle());
    QCOMPARE(flow->elapsed(), 0.0);
    QVERIFY(!flow->canRetrySend());
    // Nothing left to save.
    flow->save();
    QCOMPARE(flow->state(), State::idle());
}

void TestRecorderFlow::discardWhileSavingDoesNotCancelTheSend()
{
    auto flow = makeFlow();
    m_captures.configure = [](StandInCapture &capture) { capture.holdStop = true; };
    recordFor(*flow, 1s);
    flow->save();
    flow->discard();
    QCOMPARE(flow->state(), State::idle());
    QCOMPARE(m_captures.last().calls.last(), QStringLiteral("cancel"));

    // The send goes on and overwrites idle with its own outcome.
    m_captures.last().release();
    QCOMPARE(flow->state(), State::failed(notLinked));
    // The recording was dropped by the discard: nothing to send again.
    QVERIFY(!flow->canRetrySend());
}

// Not in the design's letter: once a newer recording runs, the outcome of the
// discarded one's send would strand it (a "sent" screen over a running capture).
void TestRecorderFlow::anOldSendLeavesANewerRecordingAlone()
{
    auto flow = makeFlow();
    m_captures.configure = [](StandInCapture &capture) { capture.holdStop = true; };
    recordFor(*flow, 1s);
    flow->save();
    flow->discard();
    flow->record();
    QCOMPARE(m_captures.made.size(), 2);

    m_captures.made.first()->release();
    QCOMPARE(flow->state(), State::recording());
    flow->pause();
    QCOMPARE(m_captures.last().calls, (QStringList{QStringLiteral("start"), QStringLiteral("pause")}));
}

void TestRecorderFlow::tickerShowsRunningTimeAndMakesALastUpdate()
{
    auto flow = makeFlow();
    QSignalSpy shown(flow.get(), &RecorderFlow::displayedElapsedChanged);
    flow->record();
    QCOMPARE(flow->displayedElapsed(), 0.0);
    m_clock->advance(500ms);
    QCOMPARE(flow->displayedElapsed(), 0.5);
    m_clock->advanceInTicks(1s);
    QCOMPARE(flow->displayedElapsed(), 1.5);
    m_clock->advance(200ms); // between two ticks: the screen keeps its value
    QCOMPARE(flow->displayedElapsed(), 1.5);
    flow->pause();
    const int beforePause = int(shown.count());
    m_clock->advanceInTicks(3s); // paused: the ticker runs but announces nothing new
    QCOMPARE(flow->displayedElapsed(), 1.7);
    QCOMPARE(shown.count(), beforePause + 1);
    flow->resume();
    m_clock->advance(300ms);
    flow->save();
    // The cancelled ticker's last update brings the clock to the final elapsed.
    QTRY_COMPARE(flow->displayedElapsed(), 2.0);
    QCOMPARE(flow->elapsed(), 2.0);
    const int sleeps = m_clock->sleepsOf(RecorderFlow::tickInterval);
    m_clock->advanceInTicks(2s);
    QCOMPARE(m_clock->sleepsOf(RecorderFlow::tickInterval), sleeps); // it has ended

    // After a discard the last update leaves 0, though discard itself does not touch it.
    flow->record();
    m_clock->advanceInTicks(1s);
    QCOMPARE(flow->displayedElapsed(), 1.0);
    flow->discard();
    QCOMPARE(flow->displayedElapsed(), 1.0);
    QTRY_COMPARE(flow->displayedElapsed(), 0.0);
}

void TestRecorderFlow::permissionsFollowTheProbes()
{
    m_server->access = Permission::granted;
    auto flow = makeFlow();
    QTRY_COMPARE(flow->microphone(), Permission::granted);
    QTRY_COMPARE(flow->systemAudio(), Permission::granted);

    QSignalSpy microphoneChanges(flow.get(), &RecorderFlow::microphoneChanged);
    QSignalSpy systemChanges(flow.get(), &RecorderFlow::systemAudioChanged);
    flow->refreshPermissions();
    flow->refreshPermissions();
    QCOMPARE(microphoneChanges.count(), 0);
    QCOMPARE(systemChanges.count(), 0);

    m_server->access = Permission::denied;
    const int probes = m_server->probes;
    flow->requestMicrophone();
    QTRY_COMPARE(flow->microphone(), Permission::denied);
    QCOMPARE(m_server->probes, probes + 1);
    QCOMPARE(flow->systemAudio(), Permission::granted); // not asked again
    QCOMPARE(microphoneChanges.count(), 1);
}

void TestRecorderFlow::requestSystemAudioPollsAtMostTenTimes()
{
    m_server->access = Permission::unknown;
    auto flow = makeFlow();
    QTRY_COMPARE(m_server->probes, 2);
    flow->requestSystemAudio();
    for (int second = 0; second < 15; ++second) {
        m_clock->advance(1s);
        QCoreApplication::processEvents();
    }
    QCOMPARE(m_clock->sleepsOf(RecorderFlow::permissionPollInterval), RecorderFlow::permissionPollAttempts);
    QCOMPARE(flow->systemAudio(), Permission::unknown);
}

void TestRecorderFlow::requestSystemAudioStopsPollingOnceKnown()
{
    auto flow = makeFlow();
    QTRY_COMPARE(m_server->probes, 2);
    m_server->access = Permission::granted;
    flow->requestSystemAudio();
    QTRY_COMPARE(flow->systemAudio(), Permission::granted);
    for (int second = 0; second < 5; ++second)
        m_clock->advance(1s);
    QCOMPARE(m_clock->sleepsOf(RecorderFlow::permissionPollInterval), 1);
}

void TestRecorderFlow::previewIsFrozen()
{
    const auto flow = RecorderFlow::preview(State::failed(QStringLiteral("boom")), 42.5, Permission::granted,
                                            Permission::denied);
    QCOMPARE(flow->state(), State::failed(QStringLiteral("boom")));
    QCOMPARE(flow->displayedElapsed(), 42.5);
    QCOMPARE(flow->elapsed(), 0.0);
    QCOMPARE(flow->microphone(), Permission::granted);
    QCOMPARE(flow->systemAudio(), Permission::denied);
    QVERIFY(!flow->canRetrySend());

    QSignalSpy states(flow.get(), &RecorderFlow::stateChanged);
    QSignalSpy microphone(flow.get(), &RecorderFlow::microphoneChanged);
    QSignalSpy systemAudio(flow.get(), &RecorderFlow::systemAudioChanged);
    QSignalSpy shown(flow.get(), &RecorderFlow::displayedElapsedChanged);
    flow->refreshPermissions();
    flow->requestMicrophone();
    flow->requestSystemAudio();
    flow->record();
    flow->retrySend();
    flow->discard();
    QTest::qWait(50);
    QCOMPARE(states.count() + microphone.count() + systemAudio.count() + shown.count(), 0);
    QCOMPARE(flow->state(), State::failed(QStringLiteral("boom")));
    QCOMPARE(flow->microphone(), Permission::granted);

    const auto recording = RecorderFlow::preview(State::recording(), 754, Permission::unknown, Permission::unknown);
    QCOMPARE(recording->displayedElapsed(), 754.0);
    QTest::qWait(600); // no ticker runs in a preview
    QCOMPARE(recording->displayedElapsed(), 754.0);
}

void TestRecorderFlow::destroyingTheFlowWhileSavingIsSafe()
{
    auto flow = makeFlow();
    m_captures.configure = [](StandInCapture &capture) { capture.holdStop = true; };
    recordFor(*flow, 1s);
    flow->save();
    flow.reset();
    // The capture outlives the flow for the running task, which ends quietly.
    QCOMPARE(m_captures.made.first().use_count(), 2);
    m_captures.last().release();
    QCOMPARE(m_captures.made.first().use_count(), 1);
    m_clock->advanceInTicks(2s);
}

QTEST_GUILESS_MAIN(TestRecorderFlow)
#include "tst_recorderflow.moc"
