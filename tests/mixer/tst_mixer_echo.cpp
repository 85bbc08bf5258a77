#include "audio/AudioMixer.h"
#include "bench/room/EchoRoom.h"
#include "support/LogCapture.h"
#include "support/MixerAnalysis.h"

#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

Q_DECLARE_METATYPE(EchoRoom::Options)

// The speakers' echo taken out of the microphone channel: a room made of speech
// (bench/room/EchoRoom) mixed as files, and the M4A's microphone channel measured.
class MixerEcho : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void figures_data()
    {
        QTest::addColumn<EchoRoom::Options>("room");
        // Seconds of recording, bulk delay, reverberation, attenuation (dB), echo.
        QTest::newRow("near, short, loud") << EchoRoom::Options { 20, 0.15, 0.3, 6, true, 1 };
        QTest::newRow("middle") << EchoRoom::Options { 20, 0.25, 0.4, 12, true, 2 };
        QTest::newRow("far, long, quiet") << EchoRoom::Options { 20, 0.45, 0.6, 20, true, 3 };
        QTest::newRow("headset") << EchoRoom::Options { 20, 0.25, 0.4, 12, false, 4 };
    }

    void figures()
    {
        QFETCH(EchoRoom::Options, room);
        EchoRoom made;
        QCOMPARE(EchoRoom::make(room, &made), std::nullopt);
        AudioMixer::Files files { m_dir.filePath(u"system.wav"_s), m_dir.filePath(u"microphone.wav"_s),
            m_dir.filePath(u"removed.m4a"_s), true };
        QVERIFY(made.writeSpeakers(files.systemAudio) && made.writeMicrophone(files.microphone));
        LogCapture log;
        AudioMixer::mixOnThisThread(files, [](const QString &) {});
        const QStringList report = log.lines(u"AudioMixer"_s).filter(u"Speaker echo in "_s);
        QCOMPARE(report.size(), 1);
        if (!room.echo) {
            // A headset: the raw microphone, so the very bytes of a mix without the filter.
            QVERIFY2(report[0].contains(u"in 0 of 10 windows"_s), qPrintable(report[0]));
            const QByteArray removed = MixerAnalysis::contents(files.output);
            files = { files.systemAudio, files.microphone, m_dir.filePath(u"raw.m4a"_s), false };
            AudioMixer::mixOnThisThread(files, [](const QString &) {});
            QVERIFY(removed == MixerAnalysis::contents(files.output));
            return;
        }
        const EchoRoom::Figures figures = made.measure(MixerAnalysis::decode(files.output).right);
        const QString said
            = u"%1: ERLE %2 dB, near end %3 dB (correlation %4), double talk %5 dB"_s.arg(report[0])
                  .arg(figures.erleDb)
                  .arg(figures.nearEndChangeDb)
                  .arg(figures.nearEndCorrelation)
                  .arg(figures.doubleTalkDropDb);
        QVERIFY2(figures.erleDb >= 20 && std::abs(figures.nearEndChangeDb) <= 1
                && figures.nearEndCorrelation >= 0.95 && figures.doubleTalkDropDb <= 3,
            qPrintable(said));
    }
};

QTEST_GUILESS_MAIN(MixerEcho)
#include "tst_mixer_echo.moc"
