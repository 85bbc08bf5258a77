// The application shell without the models: the update feed and its check, the
// window's menu and fixed size, and the snapshot mode's command-line rule.
#include "app/MainWindow.h"
#include "app/ScreenFrame.h"
#include "app/Snapshot.h"
#include "app/UpdateFeed.h"
#include "app/Updater.h"

#include <QLabel>
#include <QMenuBar>
#include <QNetworkAccessManager>
#include <QTemporaryDir>
#include <QTest>

#include <qcoro/qcorotask.h>

namespace {

Updater::Check runCheck(const Updater &updater)
{
    std::optional<Updater::Check> result;
    QCoro::connect(updater.check(), &updater, [&](const Updater::Check &check) { result = check; });
    if (!QTest::qWaitFor([&] { return result.has_value(); }, 5000))
        qFatal("update check did not finish");
    return *result;
}

QUrl writeFeed(const QTemporaryDir &dir, const QByteArray &json)
{
    const QString path = dir.filePath(QStringLiteral("feed.json"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(json) != json.size())
        qFatal("cannot write the feed");
    return QUrl::fromLocalFile(path);
}

} // namespace

class AppShellTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void feedParsing_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<qint64>("build");
        QTest::newRow("complete") << QByteArray("{\"version\":\"0.2.0\",\"build\":7,\"url\":\"https://example.org/d\"}")
                                  << true << qint64(7);
        QTest::newRow("extra members ignored")
            << QByteArray("{\"version\":\"1\",\"build\":12,\"url\":\"http://example.org\",\"notes\":\"x\"}") << true << qint64(12);
        QTest::newRow("build as text") << QByteArray("{\"version\":\"1\",\"build\":\"7\",\"url\":\"https://e.org\"}") << false
                                       << qint64(0);
        QTest::newRow("fractional build") << QByteArray("{\"version\":\"1\",\"build\":7.5,\"url\":\"https://e.org\"}")
                                          << false << qint64(0);
        QTest::newRow("zero build") << QByteArray("{\"version\":\"1\",\"build\":0,\"url\":\"https://e.org\"}") << false
                                    << qint64(0);
        QTest::newRow("not a web page") << QByteArray("{\"version\":\"1\",\"build\":3,\"url\":\"file:///etc/passwd\"}")
                                        << false << qint64(0);
        QTest::newRow("missing version") << QByteArray("{\"build\":3,\"url\":\"https://e.org\"}") << false << qint64(0);
        QTest::newRow("array") << QByteArray("[]") << false << qint64(0);
        QTest::newRow("garbage") << QByteArray("<html>") << false << qint64(0);
    }

    void feedParsing()
    {
        QFETCH(QByteArray, json);
        QFETCH(bool, valid);
        QFETCH(qint64, build);
        const std::optional<UpdateFeed> feed = UpdateFeed::parse(json);
        QCOMPARE(feed.has_value(), valid);
        if (feed)
            QCOMPARE(feed->build, build);
    }

    // Read from a real (file) URL through the same network path as an https feed.
    void checkComparesBuilds()
    {
        QTemporaryDir dir;
        QNetworkAccessManager network;
        const QUrl feed = writeFeed(dir, "{\"version\":\"0.3.0\",\"build\":8,\"url\":\"https://example.org/get\"}");

        const Updater older(&network, feed, 7);
        const Updater::Check newer = runCheck(older);
        QCOMPARE(newer.outcome, Updater::Check::Outcome::available);
        QCOMPARE(newer.feed.version, QStringLiteral("0.3.0"));
        QCOMPARE(newer.feed.url, QUrl(QStringLiteral("https://example.org/get")));

        QCOMPARE(runCheck(Updater(&network, feed, 8)).outcome, Updater::Check::Outcome::upToDate);
        QCOMPARE(runCheck(Updater(&network, feed, 9)).outcome, Updater::Check::Outcome::upToDate);
    }

    void checkFailures()
    {
        QTemporaryDir dir;
        QNetworkAccessManager network;
        const Updater::Check unreadable = runCheck(Updater(&network, writeFeed(dir, "not json"), 1));
        QCOMPARE(unreadable.outcome, Updater::Check::Outcome::failed);
        QVERIFY(!unreadable.description.isEmpty());

        const Updater::Check missing =
            runCheck(Updater(&network, QUrl::fromLocalFile(dir.filePath(QStringLiteral("none.json"))), 1));
        QCOMPARE(missing.outcome, Updater::Check::Outcome::failed);

        const Updater unconfigured(&network, QUrl(), 1);
        QVERIFY(!unconfigured.isConfigured());
        QCOMPARE(runCheck(unconfigured).outcome, Updater::Check::Outcome::failed);
    }

    void menuHasUpdatesRightAfterAboutAndNoNewWindow()
    {
        QNetworkAccessManager network;
        Updater inert(&network, QUrl(), 1);
        MainWindow window(new ScreenFrame(new QLabel(QStringLiteral("content"))), inert);

        const QList<QAction *> menus = window.menuBar()->actions();
        QCOMPARE(menus.size(), 1);
        const QList<QAction *> items = menus.first()->menu()->actions();
        const qsizetype about = items.indexOf(window.aboutAction());
        QVERIFY(about >= 0);
        QCOMPARE(items.value(about + 1), window.checkForUpdatesAction());
        QCOMPARE(window.checkForUpdatesAction()->text(), QStringLiteral("Check for Updates…"));
        // Inert without a feed.
        QVERIFY(!window.checkForUpdatesAction()->isEnabled());

        for (QAction *menu : menus)
            for (QAction *item : menu->menu()->actions())
                QVERIFY2(!item->text().contains(QLatin1String("New"), Qt::CaseInsensitive), qPrintable(item->text()));

        Updater configured(&network, QUrl(QStringLiteral("https://example.org/feed.json")), 1);
        MainWindow withFeed(new ScreenFrame(new QLabel), configured);
        QVERIFY(withFeed.checkForUpdatesAction()->isEnabled());
    }

    void windowIsFixedAtItsContentSize()
    {
        QNetworkAccessManager network;
        Updater inert(&network, QUrl(), 1);
        auto *frame = new ScreenFrame(new QLabel(QStringLiteral("content")));
        MainWindow window(frame, inert);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        QCOMPARE(frame->size(), QSize(380, 430));
        QCOMPARE(window.minimumSize(), window.maximumSize());
        window.resize(800, 900);
        QCoreApplication::processEvents();
        QCOMPARE(frame->size(), QSize(380, 430));
        QCOMPARE(window.size(), window.minimumSize());
    }

    void snapshotArguments_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("directory");
        QTest::newRow("none") << QStringList{QStringLiteral("app")} << QString();
        QTest::newRow("directory") << QStringList{QStringLiteral("app"), QStringLiteral("--snapshot"),
                                                  QStringLiteral("/tmp/x")}
                                   << QStringLiteral("/tmp/x");
        QTest::newRow("last argument") << QStringList{QStringLiteral("app"), QStringLiteral("--snapshot")} << QString();
        QTest::newRow("first occurrence counts")
            << QStringList{QStringLiteral("app"), QStringLiteral("--snapshot"), QStringLiteral("a"),
                           QStringLiteral("--snapshot"), QStringLiteral("b")}
            << QStringLiteral("a");
        QTest::newRow("at the end after other arguments")
            << QStringList{QStringLiteral("app"), QStringLiteral("-x"), QStringLiteral("--snapshot")} << QString();
        QTest::newRow("other spelling") << QStringList{QStringLiteral("app"), QStringLiteral("--snapshot=a")}
                                        << QString();
    }

    void snapshotArguments()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, directory);
        const std::optional<QString> requested = Snapshot::requestedDirectory(arguments);
        QCOMPARE(requested.value_or(QString()), directory);
        QCOMPARE(requested.has_value(), !directory.isNull());
    }
};

QTEST_MAIN(AppShellTest)
#include "tst_AppShell.moc"
