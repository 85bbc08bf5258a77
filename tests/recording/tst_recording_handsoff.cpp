// What the recorder does without its window: the actions from outside it (bus,
// command line, tray, shortcut), on the flow's stand-ins with a hand-moved clock.
#include "RecordingTestSupport.h"

#include "recording/RecorderCommand.h"

#include <QTest>

using namespace RecordingTest;

class TestRecordingHandsOff : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void commands_data()
    {
        QTest::addColumn<QString>("from"); // the actions that reach the state, then the command
        QTest::addColumn<State::Kind>("to");
        QTest::addColumn<QString>("sentence"); // empty: taken
        using enum State::Kind;
        const QString notLinked = u"This computer is not linked yet."_s;
        QTest::newRow("idle, toggle") << u"toggle"_s << recording << QString();
        QTest::newRow("not linked, toggle") << u"unlink, toggle"_s << idle << notLinked;
        QTest::newRow("not allowed, toggle")
            << u"deny, toggle"_s << idle << u"Allow the microphone and system audio first."_s;
        QTest::newRow("recording, toggle") << u"record, toggle"_s << paused << QString();
        QTest::newRow("paused, toggle") << u"record, pause, toggle"_s << recording << QString();
        QTest::newRow("failed start, toggle") << u"fail, record"_s << failed
                                              << u"The recording could not start. Check the microphone and "
                                                 "system audio permissions."_s;
        QTest::newRow("recording, save") << u"record, save"_s << recording << u"Nothing to save."_s;
        QTest::newRow("paused, save") << u"record, pause, save"_s << saving << QString();
        QTest::newRow("saving, toggle")
            << u"record, pause, save, toggle"_s << saving << u"The last recording is still being sent."_s;
        QTest::newRow("idle, pause") << u"pause"_s << idle << u"Nothing is being recorded."_s;
        QTest::newRow("recording, record") << u"record, record"_s << recording << QString();
    }
    void commands()
    {
        QFETCH(QString, from);
        StandIns bench;
        bench.link();
        bench.holdStop = true;
        bench.server->microphone = bench.server->systemAudio = Permission::granted;
        if (from.startsWith(u"deny"_s))
            bench.server->systemAudio = Permission::denied;
        if (from.startsWith(u"unlink"_s))
            bench.store->setSession(std::nullopt);
        bench.startError = from.startsWith(u"fail"_s) ? std::optional(u"no microphone"_s) : std::nullopt;
        auto flow = bench.makeFlow();
        QTRY_COMPARE(flow->showsPermissions(), from.startsWith(u"deny"_s));
        const QStringList steps = from.split(u", "_s);
        for (const QString &step : steps.mid(0, steps.size() - 1)) {
            if (const auto command = RecorderCommand::named(step))
                QCOMPARE(RecorderCommand::take(*command, *flow, *bench.store), std::nullopt);
        }
        const auto command = RecorderCommand::named(steps.last());
        QVERIFY(command);
        QTEST(RecorderCommand::take(*command, *flow, *bench.store).value_or(QString()), "sentence");
        QTEST(flow->state().kind(), "to");
    }
};

QTEST_MAIN(TestRecordingHandsOff)
#include "tst_recording_handsoff.moc"
