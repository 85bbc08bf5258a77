#include "ui/ClockText.h"
#include "ui/PlatformWording.h"

#include <QCoreApplication>

#include <QTest>

class TestTexts : public QObject
{
    Q_OBJECT
private slots:
    void format_data()
    {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<QString>("text");
        QTest::newRow("zero") << 0.0 << QStringLiteral("00:00");
        QTest::newRow("fraction truncates") << 0.99 << QStringLiteral("00:00");
        QTest::newRow("just under a minute") << 59.9 << QStringLiteral("00:59");
        QTest::newRow("one minute") << 60.0 << QStringLiteral("01:00");
        QTest::newRow("snapshot elapsed") << 83.0 << QStringLiteral("01:23");
        QTest::newRow("ten minutes") << 600.0 << QStringLiteral("10:00");
        QTest::newRow("last second before an hour") << 3599.0 << QStringLiteral("59:59");
        QTest::newRow("fraction before an hour") << 3599.99 << QStringLiteral("59:59");
        QTest::newRow("one hour, hours unpadded") << 3600.0 << QStringLiteral("1:00:00");
        QTest::newRow("mixed") << 3725.0 << QStringLiteral("1:02:05");
        QTest::newRow("ten hours") << 36000.0 << QStringLiteral("10:00:00");
        QTest::newRow("past 99 hours") << 360000.0 << QStringLiteral("100:00:00");
        QTest::newRow("a year") << 31536000.5 << QStringLiteral("8760:00:00");
    }
    void format()
    {
        QFETCH(double, seconds);
        QFETCH(QString, text);
        QCOMPARE(ClockText::format(seconds), text);
    }

    void countdown_data()
    {
        QTest::addColumn<double>("secondsLeft");
        QTest::addColumn<QString>("text");
        QTest::newRow("full ten minutes") << 600.0 << QStringLiteral("10:00");
        QTest::newRow("snapshot") << 581.0 << QStringLiteral("9:41");
        QTest::newRow("fraction truncates") << 598.9 << QStringLiteral("9:58");
        QTest::newRow("a minute and a second") << 61.0 << QStringLiteral("1:01");
        QTest::newRow("under a minute") << 9.0 << QStringLiteral("0:09");
        QTest::newRow("at expiry") << 0.0 << QStringLiteral("0:00");
        QTest::newRow("just past expiry") << -0.4 << QStringLiteral("0:00");
        QTest::newRow("long past expiry") << -125.0 << QStringLiteral("0:00");
    }
    void countdown()
    {
        QFETCH(double, secondsLeft);
        QFETCH(QString, text);
        QCOMPARE(ClockText::countdown(secondsLeft), text);
    }

    void wording_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("shown");
        QTest::newRow("dialog title") << QStringLiteral("Unlink this Mac?") << QStringLiteral("Unlink this computer?");
        QTest::newRow("dialog button") << QStringLiteral("Unlink this Mac") << QStringLiteral("Unlink this computer");
        QTest::newRow("pairing title") << QStringLiteral("Link this Mac to Selvaro")
                                       << QStringLiteral("Link this computer to Selvaro");
        QTest::newRow("footer") << QStringLiteral("Record a call, a meeting or a video playing on this Mac.\n"
                                                  "The note appears in Selvaro on your phone.")
                                << QStringLiteral("Record a call, a meeting or a video playing on this computer.\n"
                                                  "The note appears in Selvaro on your phone.");
        QTest::newRow("sentence start") << QStringLiteral("This Mac is not linked to a Selvaro account any more.")
                                        << QStringLiteral("This computer is not linked to a Selvaro account any more.");
        // The phone app's own menu item keeps its name.
        QTest::newRow("phone setting") << QStringLiteral("under Settings > Record on my Mac")
                                       << QStringLiteral("under Settings > Record on my Mac");
        QTest::newRow("whole words only") << QStringLiteral("this Macintosh") << QStringLiteral("this Macintosh");
        QTest::newRow("nothing to do") << QStringLiteral("Record") << QStringLiteral("Record");
    }
    void wording()
    {
        QFETCH(QString, key);
        QFETCH(QString, shown);
        QCOMPARE(PlatformWording::reword(key), shown);

        // Through Qt's translation mechanism, keyed by the text in the code.
        PlatformWording wording;
        QVERIFY(QCoreApplication::installTranslator(&wording));
        const QByteArray source = key.toUtf8();
        QCOMPARE(QCoreApplication::translate("RecorderView", source.constData()), shown);
        QVERIFY(QCoreApplication::removeTranslator(&wording));
        QCOMPARE(QCoreApplication::translate("RecorderView", source.constData()), key);
    }
};

QTEST_GUILESS_MAIN(TestTexts)
#include "tst_Texts.moc"
