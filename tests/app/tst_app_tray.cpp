// The tray icon and what closing the window does, on the recorder flow's stand-ins:
// the icon, tooltip and menu of every state, and the choice between closing, hiding
// to the tray and asking first.
#include "app/SelvaroRecorderApp.h"
#include "app/TrayIcon.h"
#include "app/WindowClose.h"
#include "recording/RecordingTestSupport.h"

#include <QMenu>
#include <QSystemTrayIcon>
#include <QTest>

using namespace RecordingTest;
using Outcome = WindowClose::Outcome;
Q_DECLARE_METATYPE(Outcome)

class AppTrayTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { SelvaroRecorderApp::describe(); }

    void followsEveryState_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<State::Kind>("kind");
        QTest::addColumn<QString>("status"); // the tooltip's second line
        QTest::addColumn<QString>("menu"); // the visible items, "-" a disabled one
        QTest::newRow("idle") << QString() << State::Kind::idle << u"Ready to record"_s
                              << u"Record|Show Selvaro Recorder|Quit"_s;
        QTest::newRow("recording") << u"record, tick"_s << State::Kind::recording << u"Recording 00:01"_s
                                   << u"Pause|Show Selvaro Recorder|Quit"_s;
        QTest::newRow("paused") << u"record, tick, pause"_s << State::Kind::paused << u"Paused at 00:01"_s
                                << u"Resume|Save|Show Selvaro Recorder|Quit"_s;
        QTest::newRow("sending") << u"record, pause, save"_s << State::Kind::saving
                                 << u"Finishing the recording…"_s << u"-Record|Show Selvaro Recorder|Quit"_s;
        QTest::newRow("failed") << u"fail, record"_s << State::Kind::failed
                                << u"The recording could not start. Check the microphone and system audio "
                                   "permissions."_s
                                << u"Record|Show Selvaro Recorder|Quit"_s;
    }
    void followsEveryState()
    {
        QFETCH(QString, steps);
        QFETCH(State::Kind, kind);
        static const QHash<QString, void (RecorderFlow::*)()> actions { { u"record"_s,
                                                                            &RecorderFlow::record },
            { u"pause"_s, &RecorderFlow::pause }, { u"save"_s, &RecorderFlow::save } };
        StandIns bench;
        bench.holdStop = true;
        auto flow = bench.makeFlow();
        QStringList taken;
        TrayIcon tray(*flow, { [&](RecorderCommand::Name) { taken << u"take"_s; }, [] {}, [] {} });
        for (const QString &step : steps.split(u", "_s, Qt::SkipEmptyParts)) {
            if (step == u"fail"_s)
                bench.startError = u"no microphone"_s;
            else if (step == u"tick"_s)
                bench.clock->advanceInTicks(1s);
            else
                (flow.get()->*actions.value(step))();
        }
        QCoreApplication::processEvents();
        QCOMPARE(tray.icon().icon().pixmap(22).toImage(), TrayIcon::symbolFor(kind).pixmap(22).toImage());
        QTEST(tray.icon().toolTip().section(u'\n', 1), "status");
        QStringList menu;
        for (const QAction *item : tray.menu().actions()) {
            if (item->isVisible() && !item->isSeparator())
                menu << (item->isEnabled() ? QString() : u"-"_s) + item->text();
        }
        QTEST(menu.join(u'|'), "menu");
        // The first item hands its choice on, unless it is disabled.
        QAction *first = tray.menu().actions().constFirst();
        first->trigger();
        QCOMPARE(taken.size(), first->isEnabled() ? 1 : 0);
    }

    // Each state its own icon; a recording is a red dot.
    void symbolsAreDistinct()
    {
        QSet<QByteArray> seen;
        for (const auto kind : { State::Kind::idle, State::Kind::recording, State::Kind::paused,
                 State::Kind::saving, State::Kind::failed }) {
            const QImage image = TrayIcon::symbolFor(kind).pixmap(32).toImage();
            seen.insert(QByteArray(reinterpret_cast<const char *>(image.constBits()), image.sizeInBytes()));
        }
        QCOMPARE(seen.size(), 5);
        const QColor centre
            = TrayIcon::symbolFor(State::Kind::recording).pixmap(32).toImage().pixelColor(16, 16);
        QVERIFY(centre.red() > 200 && centre.green() < 100 && centre.blue() < 100);
    }

    void windowClose_data()
    {
        QTest::addColumn<State::Kind>("kind");
        QTest::addColumn<Outcome>("withTray");
        QTest::addColumn<Outcome>("withoutTray");
        using enum State::Kind;
        QTest::newRow("idle") << idle << Outcome::quit << Outcome::quit;
        QTest::newRow("recording") << recording << Outcome::hideToTray << Outcome::askFirst;
        QTest::newRow("paused") << paused << Outcome::hideToTray << Outcome::askFirst;
        QTest::newRow("sending") << saving << Outcome::hideToTray << Outcome::quit;
        QTest::newRow("sent") << sent << Outcome::quit << Outcome::quit;
        QTest::newRow("failed") << failed << Outcome::quit << Outcome::quit;
    }
    void windowClose()
    {
        QFETCH(State::Kind, kind);
        QTEST(WindowClose::decide(kind, true), "withTray");
        QTEST(WindowClose::decide(kind, false), "withoutTray");
    }
};

QTEST_MAIN(AppTrayTest)
#include "tst_app_tray.moc"
