// The tray icon and what closing the window does, on the recorder flow's stand-ins:
// the icon, tooltip and menu of every state, and the choice between closing, hiding
// to the tray and asking first.
#include "app/SelvaroRecorderApp.h"
#include "app/TrayIcon.h"
#include "app/WindowClose.h"
#include "recording/RecordingTestSupport.h"
#include "ui/Palette.h"

#include <QMenu>
#include <QSystemTrayIcon>
#include <QTest>

using namespace RecordingTest;

class AppTrayTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { SelvaroRecorderApp::describe(); }

    // Each state: the tooltip's second line, the menu's visible items ("-" a disabled
    // one), and what closing the window does with a tray and without one.
    void followsEveryState_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("menu");
        QTest::addColumn<QString>("closing");
        const QString rest = u"|Show Selvaro Recorder|Quit"_s;
        QTest::newRow("idle") << QString() << u"Ready to record"_s << u"Record"_s + rest << u"quit quit"_s;
        QTest::newRow("recording") << u"record, tick"_s << u"Recording 00:01"_s << u"Pause"_s + rest
                                   << u"hide ask"_s;
        QTest::newRow("paused") << u"record, tick, pause"_s << u"Paused at 00:01"_s << u"Resume|Save"_s + rest
                                << u"hide ask"_s;
        QTest::newRow("sending") << u"record, pause, save"_s << u"Finishing the recording…"_s
                                 << u"-Record"_s + rest << u"hide quit"_s;
        QTest::newRow("failed") << u"fail, record"_s
                                << u"The recording could not start. Check the microphone and system audio "
                                   "permissions."_s
                                << u"Record"_s + rest << u"quit quit"_s;
    }
    void followsEveryState()
    {
        QFETCH(QString, steps);
        StandIns bench;
        bench.holdStop = true;
        auto flow = bench.makeFlow();
        int taken = 0;
        TrayIcon tray(*flow, { [&](RecorderCommand::Name) { ++taken; }, [] {}, [] {} });
        for (const QString &step : steps.split(u", "_s, Qt::SkipEmptyParts)) {
            if (step == u"fail"_s)
                bench.startError = u"no microphone"_s;
            else if (step == u"tick"_s)
                bench.clock->advanceInTicks(1s);
            else
                (flow.get()
                        ->*(step == u"record"_s      ? &RecorderFlow::record
                                : step == u"pause"_s ? &RecorderFlow::pause
                                                     : &RecorderFlow::save))();
        }
        QTEST(tray.icon().toolTip().section(u'\n', 1), "status");
        QStringList menu;
        for (const QAction *item : tray.menu().actions()) {
            if (item->isVisible() && !item->isSeparator())
                menu << (item->isEnabled() ? QString() : u"-"_s) + item->text();
        }
        QTEST(menu.join(u'|'), "menu");
        tray.menu().actions().constFirst()->trigger(); // handed on, unless disabled
        QCOMPARE(taken, menu.first().startsWith(u'-') ? 0 : 1);
        const char *outcomes[] = { "quit", "hide", "ask" };
        const auto closing = [&](bool tray) {
            return QLatin1String(outcomes[int(WindowClose::decide(flow->state().kind(), tray))]);
        };
        QTEST(closing(true) + u' ' + closing(false), "closing");
        // Each state its own icon; a recording is a red dot.
        static QHash<QByteArray, QString> icons;
        const QString row = QString::fromLatin1(QTest::currentDataTag());
        const QImage icon = tray.icon().icon().pixmap(32).toImage();
        const QByteArray bytes(reinterpret_cast<const char *>(icon.constBits()), icon.sizeInBytes());
        QCOMPARE(icons.value(bytes, row), row);
        icons.insert(bytes, row);
        QCOMPARE(icon.pixelColor(16, 16).name() == Palette::recordRed().name(),
            flow->state().is(State::Kind::recording));
    }
};

QTEST_MAIN(AppTrayTest)
#include "tst_app_tray.moc"
