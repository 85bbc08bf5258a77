// What the recorder does without its window, on the flow's stand-ins with a
// hand-moved clock: the actions from outside it (bus, command line, tray, shortcut),
// calls told from stream lists, the offer to record one, and the pauses at a call's
// end and after a long silence.
#include "RecordingTestSupport.h"

#include "recording/AutoPause.h"
#include "recording/CallOffer.h"
#include "recording/CallWatch.h"
#include "recording/Notifier.h"
#include "recording/RecorderCommand.h"

#include <QTest>

using namespace RecordingTest;

namespace {

// Keeps every notice as "sentence [key key]"; invoke() clicks a button of the last.
struct StandInNotifier final : Notifier
{
    QStringList shown;
    void notify(const QString &sentence, const QList<Action> &actions) override
    {
        // Every notice here has no button or two.
        shown << sentence
                + (actions.isEmpty() ? QString()
                                     : u" [%1 %2]"_s.arg(actions.first().key, actions.last().key));
    }
    void invoke(const QString &key) { Q_EMIT actionInvoked(key); }
};

// "Firefox:mic Firefox:play" → a capture of the microphone and a playback of Firefox.
// Kinds: mic, play, paused (a playback its program paused), monitor, meter, ours.
QList<ClientStream> streams(const QString &spec)
{
    QList<ClientStream> list;
    for (const QString &item : spec.split(u' ', Qt::SkipEmptyParts)) {
        const QString kind = item.section(u':', 1);
        const bool playback = kind == u"play"_s || kind == u"paused"_s;
        list << ClientStream { playback ? ClientStream::Kind::playback : ClientStream::Kind::capture, 0,
            item.section(u':', 0, 0), {}, 0, 0, kind == u"monitor"_s, kind == u"meter"_s, kind == u"ours"_s,
            kind == u"paused"_s };
    }
    return list;
}

// A flow that may record: linked, both permissions granted (once read), stops held.
std::unique_ptr<RecorderFlow> readyFlow(StandIns &bench, Permission systemAudio = Permission::granted)
{
    bench.link();
    bench.holdStop = true;
    bench.server->microphone = Permission::granted;
    bench.server->systemAudio = systemAudio;
    auto flow = bench.makeFlow();
    [[maybe_unused]] const bool read
        = QTest::qWaitFor([&] { return flow->showsPermissions() == (systemAudio != Permission::granted); });
    return flow;
}

} // namespace

class TestRecordingHandsOff : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // What the server lists at given seconds ("8: …" from second 8 on), over 70 s.
    void callsFromStreams_data()
    {
        QTest::addColumn<QString>("timeline");
        QTest::addColumn<QString>("calls"); // what the watch said, and at which second
        const QString call = u"Firefox:mic Firefox:play"_s;
        QTest::newRow("microphone and playback") << u"0: "_s + call << u"started Firefox 8"_s;
        // Each one's mistake would start a call named after it.
        QTest::newRow("no call for 60 s")
            << u"0: Dictation:mic Music:play OBS:monitor OBS:play Meter:meter Meter:play Selvaro:ours "
               "Selvaro:play Zoom:mic Zoom:paused"_s
            << QString();
        QTest::newRow("a 5 s hold") << u"0: %1; 5: "_s.arg(call) << QString();
        QTest::newRow("ends 10 s after both went")
            << u"0: %1; 20: "_s.arg(call) << u"started Firefox 8, ended Firefox 30"_s;
        QTest::newRow("one kept is no end")
            << u"0: %1; 20: Firefox:mic"_s.arg(call) << u"started Firefox 8"_s;
        QTest::newRow("back within 10 s: the same call")
            << u"0: %1; 20: ; 29: %1"_s.arg(call) << u"started Firefox 8"_s;
        QTest::newRow("the next call") << u"0: %1; 20: ; 40: %1"_s.arg(call)
                                       << u"started Firefox 8, ended Firefox 30, started Firefox 48"_s;
    }
    void callsFromStreams()
    {
        QFETCH(QString, timeline);
        const auto clock = std::make_shared<ManualClock>();
        CallWatch watch(clock);
        QStringList said;
        const auto note = [&, start = clock->monotonicNow()](const char *what, const QString &program) {
            const auto at = std::chrono::duration_cast<std::chrono::seconds>(clock->monotonicNow() - start);
            said << u"%1 %2 %3"_s.arg(QLatin1String(what), program).arg(at.count());
        };
        connect(&watch, &CallWatch::callStarted, this, [&](const QString &p) { note("started", p); });
        connect(&watch, &CallWatch::callEnded, this, [&](const QString &p) { note("ended", p); });
        QHash<int, QString> at;
        for (const QString &entry : timeline.split(u"; "_s))
            at.insert(entry.section(u':', 0, 0).toInt(), entry.section(u": "_s, 1));
        for (int second = 0; second <= 70; ++second) {
            if (at.contains(second))
                watch.update(streams(at.value(second)));
            clock->advance(1s);
        }
        QTEST(said.join(u", "_s), "calls");
    }

    // The steps (seconds, the recorder's commands, "levels SYSTEM MICROPHONE" of the
    // capture, the Firefox call's streams, a click on the last notice), then what was
    // said (notices, refusals, the call chosen) and where the flow is.
    void handsOff_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QString>("said");
        QTest::addColumn<State::Kind>("to");
        using enum State::Kind;
        const QString offer = u"Firefox is in a call. Record it? [record-call not-now]"_s;
        const QString ended
            = offer + u" | chose Firefox | The call ended, so the recording is paused. [save resume]"_s;
        const QString silent
            = u"Nothing was heard for 5 minutes, so the recording is paused. [save resume]"_s;
        const auto row = [](const char *name, const QString &steps, const QString &said, State::Kind to) {
            QTest::newRow(name) << steps << said << to;
        };
        row("toggle: record", u"toggle"_s, {}, recording);
        row("toggle: pause", u"toggle, toggle"_s, {}, paused);
        row("toggle: resume", u"toggle, toggle, toggle"_s, {}, recording);
        row("not linked", u"unlink, toggle"_s, u"This computer is not linked yet."_s, idle);
        row("not allowed", u"deny, toggle"_s, u"Allow the microphone and system audio first."_s, idle);
        row("failed start", u"fail, toggle"_s,
            u"The recording could not start. Check the microphone and system audio permissions."_s, failed);
        row("save: only paused", u"toggle, save"_s, u"Nothing to save."_s, recording);
        row("save", u"toggle, pause, save"_s, {}, saving);
        row("toggle: sending", u"toggle, pause, save, toggle"_s, u"The last recording is still being sent."_s,
            saving);
        row("silence: not yet", u"toggle, levels 0 0, 299"_s, {}, recording);
        row("a quiet room", u"toggle, levels 0.005 0.008, 300"_s, silent, paused);
        row("speech with long pauses",
            u"toggle, levels 0.3 0.05, 2, levels 0 0, 240, levels 0.01 0.2, 3, levels 0 0, 299"_s, {},
            recording);
        row("the other side only", u"toggle, levels 0.2 0, 900"_s, {}, recording);
        row("offer, its end, resume", u"call, 8, record-call, hang up, 9, 1, resume"_s, ended, recording);
        row("offer, its end, save", u"call, 8, record-call, hang up, 10, save"_s, ended, saving);
        row("offer, not linked", u"unlink, call, 8, record-call"_s,
            offer + u" | This computer is not linked yet."_s, idle);
        row("not now: once per call", u"call, 8, not-now, 60, record-call"_s, offer, idle);
        row("none while recording", u"toggle, call, 8"_s, {}, recording);
        row("turned off", u"off, call, 8"_s, {}, idle);
        row("a call not chosen does not pause", u"call, 8, not-now, toggle, hang up, 10"_s, offer, recording);
        row("clicked after the call", u"call, 8, hang up, 10, record-call"_s, offer, idle);
    }
    void handsOff()
    {
        QFETCH(QString, steps);
        StandIns bench;
        auto flow = readyFlow(bench, steps.startsWith(u"deny"_s) ? Permission::denied : Permission::granted);
        StandInNotifier notifier;
        CallWatch calls(bench.clock);
        AutoPause autoPause(*flow, notifier, calls, bench.clock);
        CallOffer offer(*flow, *bench.store, notifier, calls, autoPause);
        offer.setEnabled(!steps.startsWith(u"off"_s));
        connect(&offer, &CallOffer::recordingCall, this,
            [&](const QString &p) { notifier.shown << u"chose "_s + p; });
        for (const QString &step : steps.split(u", "_s)) {
            const QStringList words = step.split(u' ');
            if (step.front().isDigit())
                bench.clock->advanceInTicks(std::chrono::seconds(step.toInt()));
            else if (const auto command = RecorderCommand::named(step))
                notifier.shown << RecorderCommand::take(*command, *flow, *bench.store).value_or(QString());
            else if (words.first() == u"levels"_s)
                bench.last().levels = { words.at(1).toFloat(), words.at(2).toFloat() };
            else if (step == u"call"_s || step == u"hang up"_s)
                calls.update(streams(step == u"call"_s ? u"Firefox:mic Firefox:play"_s : QString()));
            else if (step == u"unlink"_s)
                bench.store->setSession(std::nullopt);
            else if (step == u"fail"_s)
                bench.startError = u"no microphone"_s;
            else if (step != u"off"_s && step != u"deny"_s)
                notifier.invoke(step);
        }
        notifier.shown.removeAll(QString());
        QTEST(notifier.shown.join(u" | "_s), "said");
        QTEST(flow->state().kind(), "to");
        // The setting is the user's, kept for the next start.
        QCOMPARE(CallOffer(*flow, *bench.store, notifier, calls, autoPause).isEnabled(),
            !steps.startsWith(u"off"_s));
    }
};

QTEST_GUILESS_MAIN(TestRecordingHandsOff)
#include "tst_recording_handsoff.moc"
