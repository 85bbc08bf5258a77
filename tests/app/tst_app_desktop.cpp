// The desktop's notifications and the portal's global shortcut, against the stand-in
// desktop (scripts/fixtures/desktop-stand-in) on a private session bus.
#include "app/PortalShortcut.h"
#include "recording/DesktopNotifier.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// The stand-in's lines so far, and what it is told to do.
struct StandInDesktop
{
    explicit StandInDesktop(const QStringList &options = {})
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QStringLiteral(SELVARO_DESKTOP_STAND_IN), options);
        QTRY_VERIFY(said().contains(u"ready"_s));
    }
    ~StandInDesktop()
    {
        process.closeWriteChannel(); // it ends with its input
        process.waitForFinished();
    }
    QStringList said()
    {
        return lines << QString::fromUtf8(process.readAll()).split(u'\n', Qt::SkipEmptyParts);
    }
    void tell(const QString &command) { process.write((command + u'\n').toUtf8()); }
    QProcess process;
    QStringList lines;
};

} // namespace

class AppDesktopTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // The shortcut is bound where the portal offers GlobalShortcuts and nothing is said
    // where it does not; a notice's button comes back only from our own notice.
    void shortcutAndNotices_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::newRow("portal with GlobalShortcuts") << QStringList();
        QTest::newRow("portal without") << QStringList { u"--no-shortcuts"_s };
    }
    void shortcutAndNotices()
    {
        QFETCH(QStringList, options);
        StandInDesktop desktop(options);
        PortalShortcut shortcut;
        QSignalSpy pressed(&shortcut, &PortalShortcut::pressed);
        shortcut.registerWithPortal();
        const int bound = options.isEmpty() ? 1 : 0;
        QTRY_COMPARE(desktop.said().filter(u"bound toggle: Start or pause recording"_s).size(), bound);
        desktop.tell(u"press toggle"_s);
        DesktopNotifier notifier;
        QSignalSpy clicked(&notifier, &Notifier::actionInvoked);
        notifier.notify(u"Firefox is in a call. Record it?"_s, { { u"record-call"_s, u"Record"_s } });
        QTRY_VERIFY(desktop.said().contains(u"notice 1 Firefox is in a call. Record it? [record-call]"_s));
        desktop.tell(u"click 2 not-now"_s); // somebody else's
        desktop.tell(u"click 1 record-call"_s);
        QTRY_COMPARE(clicked.size(), 1);
        QCOMPARE(clicked.first().first().toString(), u"record-call"_s);
        QCOMPARE(pressed.size(), bound);
    }
};

QTEST_GUILESS_MAIN(AppDesktopTest)
#include "tst_app_desktop.moc"
