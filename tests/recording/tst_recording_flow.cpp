// The recorder flow's state machine, display clock, permissions and the choices it
// makes for the screen, on stand-ins with a hand-moved clock. Sends here end without
// a session; recording_send sends to the service.
#include "RecordingTestSupport.h"

#include "recording/RecordingSidecar.h"

#include "support/LogCapture.h"

#include <QDir>
#include <QSignalSpy>
#include <QTest>

using namespace RecordingTest;

Q_DECLARE_METATYPE(Permission)

namespace {
const QString notLinked = u"This Mac is not linked to a Selvaro account any more."_s;
const QString couldNotStart
    = u"The recording could not start. Check the microphone and system audio permissions."_s;
const QString empty = u"The recording is empty. Was anything playing or said?"_s;
const State finishing = State::saving(u"Finishing the recording…"_s);

// Calls the actions `events` names, in order: "record failing" starts with an error,
// "tick" moves the clock a second, "release" ends the first capture's held stop(),
// "link [token]" stores a session, "mix none" and "mix empty" set what stop() leaves,
// "mix fails" fails the next stop()'s mix, "disk fails <how>" the first capture's file,
// "disk full" leaves too little room to start.
void act(StandIns &bench, RecorderFlow &flow, const QString &events)
{
    static const QHash<QString, WriteFailure> diskFailures { { u"full"_s, WriteFailure::diskFull },
        { u"large"_s, WriteFailure::fileTooLarge }, { u"io"_s, WriteFailure::ioError },
        { u"removed"_s, WriteFailure::fileRemoved } };
    static const QHash<QString, void (RecorderFlow::*)()> actions { { u"record"_s, &RecorderFlow::record },
        { u"pause"_s, &RecorderFlow::pause }, { u"resume"_s, &RecorderFlow::resume },
        { u"save"_s, &RecorderFlow::save }, { u"discard"_s, &RecorderFlow::discard },
        { u"retrySend"_s, &RecorderFlow::retrySend } };
    for (const QString &event : events.split(u", "_s, Qt::SkipEmptyParts)) {
        bench.startError = event == u"record failing"_s ? std::optional(u"no microphone"_s) : std::nullopt;
        if (event == u"tick"_s)
            bench.clock->advanceInTicks(1s);
        else if (event.startsWith(u"link"_s))
            bench.link(event.size() > 4 ? event.mid(5) : tokenOfAcc1);
        else if (event == u"mix fails"_s)
            bench.made.first()->mixError = u"Could not start AVAssetWriter"_s;
        else if (event.startsWith(u"disk fails"_s))
            bench.made.first()->failure = diskFailures.value(event.section(u' ', 2));
        else if (event == u"disk full"_s)
            bench.freeSpace = 10 * 60 * 480000 - 1;
        else if (event.startsWith(u"mix"_s))
            bench.made.first()->mix = event.endsWith(u"none"_s) ? QByteArray() : QByteArray("");
        else if (event == u"release"_s)
            bench.made.first()->release();
        else if (event == u"sleep"_s || event == u"wake"_s)
            bench.sleep ? bench.sleep(event == u"sleep"_s) : void();
        else
            (flow.*actions.value(event.section(u' ', 0, 0)))();
    }
}

// Brings a fresh flow into `from`; every capture holds its stop() until released.
void reach(StandIns &bench, RecorderFlow &flow, const QString &from)
{
    static const QHash<QString, QString> ways { { u"idle"_s, QString() }, { u"recording"_s, u"record"_s },
        { u"paused"_s, u"record, tick, pause"_s }, { u"saving"_s, u"record, tick, pause, save"_s },
        { u"failed send"_s, u"record, tick, pause, save, release"_s },
        { u"failed start"_s, u"record failing"_s } };
    bench.holdStop = true;
    act(bench, flow, ways.value(from));
}
} // namespace

class TestRecordingFlow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void transitions_data()
    {
        QTest::addColumn<QString>("from");
        QTest::addColumn<QString>("event");
        QTest::addColumn<State>("to");
        QTest::addColumn<bool>("canRetrySend");
        QTest::addColumn<double>("elapsed");
        QTest::addColumn<QString>("calls"); // of every capture made, in order
        const auto row = [](const char *from, const char *event, const State &to, bool retry, double elapsed,
                             const char *calls) {
            QTest::addRow("%s, %s", from, event) << QString::fromLatin1(from) << QString::fromLatin1(event)
                                                 << to << retry << elapsed << QString::fromLatin1(calls);
        };
        const State recording = State::recording(), paused = State::paused(), idle = State::idle();
        const State failedStart = State::failed(couldNotStart), failedSend = State::failed(notLinked);
        row("idle", "record", recording, false, 0, "start");
        row("idle", "record failing", failedStart, false, 0, "start");
        row("recording", "record", recording, false, 0, "start");
        row("recording", "resume", recording, false, 0, "start");
        row("recording", "pause", paused, false, 0, "start pause");
        row("recording", "save", finishing, false, 0, "start stop");
        // Closed first: a running capture ignores a cancel, and nothing of it may stay.
        row("recording", "discard", idle, false, 0, "start close cancel");
        row("paused", "pause", paused, false, 1, "start pause");
        row("paused", "record", paused, false, 1, "start pause");
        row("paused", "resume", recording, false, 1, "start pause resume");
        row("paused", "save", finishing, false, 1, "start pause stop");
        row("paused", "discard", idle, false, 0, "start pause close cancel");
        // Paused before the computer sleeps (the slept time not counted), and still after
        // it woke, until Resume.
        const State asleep = State::paused(u"Paused while the computer was asleep."_s);
        row("recording", "tick, sleep, tick, wake", asleep, false, 1, "start pause flush");
        row("paused", "sleep, wake", paused, false, 1, "start pause flush");
        row("saving", "record", finishing, false, 1, "start pause stop");
        row("saving", "save", finishing, false, 1, "start pause stop");
        row("saving", "discard", idle, false, 0, "start pause stop");
        // Deliberately not cancelled: the send overwrites idle with its own outcome…
        row("saving", "discard, release", failedSend, false, 0, "start pause stop");
        // …but never the state of a newer recording.
        row("saving", "discard, record, release", recording, false, 0, "start pause stop start");
        row("failed send", "record", recording, false, 0, "start pause stop start");
        // The mixed file is sent again as it is: not stopped or mixed again.
        row("failed send", "retrySend", failedSend, true, 1, "start pause stop");
        row("failed send", "discard", idle, false, 0, "start pause stop cancel");
        // A start that fails keeps the earlier recording: "Send again" still sends it.
        row("failed send", "record failing", failedStart, true, 1, "start pause stop start");
        // Without an account id in the token, as without a session: kept for when it is linked again.
        row("paused", "link a.b.c, save, release", failedSend, true, 1, "start pause stop");
        // Nothing to send, now or later. Sent nowhere: a request would end in "Sending failed: …".
        row("paused", "link, mix none, save, release", State::failed(empty), false, 1,
            "start pause stop cancel");
        row("paused", "link, mix empty, save, release", State::failed(empty), false, 1,
            "start pause stop cancel");
        // A file that stops taking audio stops the recording; "Send again" mixes what it holds.
        const auto diskFails = [&](const char *how, const QString &why, bool kept) {
            const QString rest = kept
                ? u" The recording stopped at 00:01; what was recorded can still be sent."_s
                : u" The recording stopped at 00:01 and could not be kept."_s;
            row("recording", qPrintable(u"tick, disk fails %1, tick"_s.arg(QLatin1String(how))),
                State::failed(why + rest), kept, 1.5, "start close");
        };
        diskFails("full", u"The disk is full."_s, true);
        diskFails("large", u"The recording reached the largest file the disk allows."_s, true);
        diskFails("io", u"The disk could not be written."_s, true);
        diskFails("removed", u"The recordings folder was removed."_s, false);
        row("recording", "tick, disk fails full, tick, retrySend", finishing, false, 1.5, "start close stop");
        // A failed mix keeps the recording, and "Send again" mixes again.
        const State mixFailed = State::failed(u"Sending failed: Could not start AVAssetWriter"_s);
        row("paused", "mix fails, save, release", mixFailed, true, 1, "start pause stop");
        row("paused", "mix fails, save, release, retrySend", finishing, false, 1, "start pause stop stop");
        const State noRoom
            = State::failed(u"There is not enough free disk space to record: ten minutes need 288 MB."_s);
        row("idle", "disk full, record", noRoom, false, 0, "");
        row("failed start", "record", recording, false, 0, "start start");
        row("failed start", "retrySend", failedStart, false, 0, "start");
    }
    void transitions()
    {
        QFETCH(QString, from);
        QFETCH(QString, event);
        StandIns bench;
        auto flow = bench.makeFlow();
        reach(bench, *flow, from);
        LogCapture log;
        act(bench, *flow, event);
        QTEST(flow->state(), "to");
        QCOMPARE(log.lines(u"recorder"_s).filter(u"start: no"_s),
            QStringList(event.endsWith(u"failing"_s) ? 1 : 0, u"start: no microphone"_s));
        QTEST(flow->canRetrySend(), "canRetrySend");
        QTEST(flow->elapsed(), "elapsed");
        QStringList calls;
        for (const auto &capture : bench.made)
            calls << capture->calls;
        QTEST(calls.join(u' '), "calls");
        QCOMPARE(bench.awake, flow->state().is(State::Kind::recording));
    }

    // The way out closes a running recording for the next start; unlinking deletes them all.
    void quitKeepsAndUnlinkDeletes()
    {
        StandIns bench;
        auto flow = bench.makeFlow();
        flow->record();
        bench.clock->advanceInTicks(2s);
        flow.reset();
        QCOMPARE(bench.last().calls, (QStringList { u"start"_s, u"close"_s }));
        const auto sidecar = RecordingSidecar::read(bench.folder() + u"/1000.json"_s);
        QVERIFY(
            sidecar && sidecar->stage == RecordingSidecar::Stage::recorded && sidecar->recordedSeconds == 2);
        QVERIFY(QFile(bench.folder() + u"/1000_system.wav"_s).open(QIODevice::WriteOnly));
        flow = bench.makeFlow();
        QVERIFY(flow->hasUnsentRecordings());
        flow->deleteAllRecordings();
        QCOMPARE(QDir(bench.folder()).entryList(QDir::Files), QStringList());
    }

    void screenChoices_data()
    {
        QTest::addColumn<State>("state");
        QTest::addColumn<Permission>("microphone");
        QTest::addColumn<Permission>("systemAudio");
        QTest::addColumn<QList<bool>>("choices"); // isLive, showsPermissions, systemAudioStepEnabled
        const Permission unknown = Permission::unknown, denied = Permission::denied,
                         granted = Permission::granted;
        QTest::newRow("idle, none yet")
            << State::idle() << unknown << unknown << QList { false, true, false };
        QTest::newRow("sent, system audio first")
            << State::sent() << unknown << granted << QList { false, true, true };
        QTest::newRow("recording, one revoked")
            << State::recording() << denied << granted << QList { true, false, true };
        QTest::newRow("failed, one missing")
            << State::failed(notLinked) << granted << denied << QList { false, true, true };
    }
    void screenChoices()
    {
        QFETCH(State, state);
        QFETCH(Permission, microphone);
        QFETCH(Permission, systemAudio);
        const auto flow = RecorderFlow::preview(state, 0, microphone, systemAudio);
        QTEST(
            (QList { flow->isLive(), flow->showsPermissions(), flow->systemAudioStepEnabled() }), "choices");
    }

    void tickerShowsRecordedTimeAndMakesALastUpdate()
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
        bench.clock->advanceInTicks(3s); // paused: the ticker runs, with one piece of news
        QCOMPARE(flow->displayedElapsed(), 1.7);
        QCOMPARE(shown.count(), 4);
        flow->resume();
        bench.clock->advance(300ms);
        flow->save();
        QCOMPARE(flow->elapsed(), 2.0); // the paused 3 s are not in it
        QTRY_COMPARE(flow->displayedElapsed(), 2.0); // the cancelled ticker's last update

        flow->record();
        bench.clock->advanceInTicks(1s);
        flow->discard();
        QCOMPARE(flow->displayedElapsed(), 1.0); // discard itself does not touch it…
        QTRY_COMPARE(flow->displayedElapsed(), 0.0); // …the last update does
    }

    // Each meter shows its own source's latest read, at most 30 times a second; paused,
    // the meters stay; saved, both fall to 0. The hint names a source silent for 30 s of
    // recording (a paused minute does not count) while the other is heard, until it is.
    void levelsAndSilenceHint_data()
    {
        QTest::addColumn<float>("system");
        QTest::addColumn<float>("microphone");
        QTest::addColumn<int>("seconds"); // of recording, with a paused minute in the middle
        QTest::addColumn<QString>("hint");
        QTest::addColumn<QString>("application"); // the one chosen, if any
        QTest::newRow("other apps silent")
            << 0.0f << 0.3f << 31 << u"Nothing heard from the other apps yet."_s << QString();
        QTest::newRow("microphone silent")
            << 0.3f << 0.0f << 31 << u"Nothing heard from the microphone yet."_s << QString();
        QTest::newRow("not long enough") << 0.0f << 0.3f << 29 << QString() << QString();
        QTest::newRow("both silent: a quiet moment") << 0.0f << 0.0f << 60 << QString() << QString();
        QTest::newRow("faint is heard") << 0.0001f << 0.3f << 60 << QString() << QString();
        const QString firefox = u"Nothing heard from Firefox yet."_s;
        QTest::newRow("chosen application silent") << 0.0f << 0.3f << 16 << firefox << u"Firefox"_s;
        QTest::newRow("… the microphone too") << 0.0f << 0.0f << 16 << firefox << u"Firefox"_s;
        QTest::newRow("… not long enough") << 0.0f << 0.3f << 14 << QString() << u"Firefox"_s;
        QTest::newRow("no microphone")
            << 0.3f << 0.0f << 2 << u"The microphone was disconnected."_s << QString();
    }
    void levelsAndSilenceHint()
    {
        QFETCH(float, system);
        QFETCH(float, microphone);
        QFETCH(int, seconds);
        QFETCH(QString, application);
        const bool missing = QTest::currentDataTag() == "no microphone"_ba; // no input left to record
        StandIns bench;
        auto flow = bench.makeFlow();
        flow->levels().setApplication({ application, application.toLower() });
        const LevelWatch &levels = flow->levels();
        const auto shown = [&] { return QList<double> { levels.systemLevel(), levels.microphoneLevel() }; };
        QSignalSpy changes(&levels, &LevelWatch::systemLevelChanged);
        flow->record();
        for (int step = 1; step <= 100; ++step) { // a new level every 10 ms, for a second
            bench.last().levels = { step / 100.0f, 0.5f };
            bench.clock->advance(10ms);
        }
        QVERIFY2(
            changes.count() >= 20 && changes.count() <= 30, qPrintable(QString::number(changes.count())));
        const auto run = [&](std::chrono::milliseconds span, RecordingCapture::Levels read) {
            bench.last().levels = read;
            for (auto done = 0ms; done < span; done += LevelWatch::interval)
                bench.clock->advance(LevelWatch::interval);
        };
        run(std::chrono::seconds(seconds / 2), { system, microphone });
        QCOMPARE(shown(), (QList<double> { system, microphone }));
        flow->pause();
        run(60s, { 0.75f, 0.75f });
        QCOMPARE(shown(), (QList<double> { system, microphone }));
        flow->resume();
        run(std::chrono::seconds(seconds - seconds / 2), { system, microphone, missing });
        QTEST(levels.silenceHint(), "hint");
        run(LevelWatch::interval, { 0.1f, 0.1f });
        QCOMPARE(levels.silenceHint(), QString());
        flow->save();
        QCOMPARE(shown(), (QList<double> { 0, 0 }));
    }

    void systemAudioPollIsBounded()
    {
        StandIns bench;
        auto flow = bench.makeFlow();
        QSignalSpy news(&flow->permissions(), &RecorderPermissions::systemAudioChanged);
        const auto requestAndWait = [&](Permission answer, int probes) {
            bench.server->systemAudio = answer;
            flow->permissions().requestSystemAudio();
            QTRY_COMPARE(bench.server->probes, probes); // the request's own probe…
            QTRY_COMPARE(flow->permissions().systemAudio(), answer); // …and its answer are in
            for (int second = 0; second < 15; ++second) {
                bench.clock->advance(1s);
                QCoreApplication::processEvents();
            }
        };
        requestAndWait(Permission::unknown, 3);
        QCOMPARE(bench.clock->sleepsOf(RecorderPermissions::pollInterval), 10); // unknown: ten reads
        QCOMPARE(news.count(), 0); // the same answer read again is no news
        requestAndWait(Permission::granted, 4);
        QCOMPARE(bench.clock->sleepsOf(RecorderPermissions::pollInterval), 11); // known: one read
    }
};

QTEST_GUILESS_MAIN(TestRecordingFlow)
#include "tst_recording_flow.moc"
