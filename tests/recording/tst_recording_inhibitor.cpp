// The desktop's sleep inhibitor against stand-ins of the portal and of logind, on the
// test's private session bus and the private bus standing in for the system bus; and a
// recording on the private sound server paused by it before a sleep.
#include "RecordingTestSupport.h"
#include "audio/RecordingFiles.h"
#include "audio/pulse/PulseAlertSound.h"
#include "audio/pulse/PulseSoundServer.h"
#include "recording/DesktopSleepInhibitor.h"
#include "support/LogCapture.h"
#include "support/SoundFile.h"
#include "support/ToneAnalysis.h"
#include "support/TonePlayer.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusUnixFileDescriptor>
#include <QDBusVirtualObject>
#include <QScopeGuard>
#include <QTest>
#include <QtEndian>

#include <atomic>
#include <csignal>
#include <future>
#include <poll.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Plays the portal's Inhibit and Request interfaces and logind's Manager: notes every
// call, answers the portal with a new request object and logind with one end of a pipe,
// whose other end tells when every copy of the descriptor is closed. With `late` set,
// the answers wait for answerLate().
class StandInDesktop final : public QDBusVirtualObject
{
public:
    QStringList calls;
    int portalHolds = 0;
    std::vector<int> logindHolds;
    std::atomic<bool> late = false;
    std::vector<std::pair<QDBusConnection, QDBusMessage>> unanswered;

    void answerLate()
    {
        late = false;
        for (auto &[connection, reply] : std::exchange(unanswered, {}))
            connection.send(reply);
    }

    ~StandInDesktop() override { std::for_each(logindHolds.begin(), logindHolds.end(), ::close); }
    [[nodiscard]] int held() const
    {
        return portalHolds
            + static_cast<int>(std::count_if(logindHolds.begin(), logindHolds.end(), [](int fd) {
                  pollfd ends { fd, POLLIN, 0 };
                  return poll(&ends, 1, 0) == 0;
              }));
    }
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        QStringList call { message.member() };
        for (const QVariant &argument : message.arguments())
            call << (argument.canConvert<QDBusArgument>()
                    ? qdbus_cast<QVariantMap>(argument).value(u"reason"_s)
                    : argument)
                        .toString();
        // Noted once it is held, so that a test that sees the call sees the hold.
        const auto note = qScopeGuard([&] { calls << call.join(u' '); });
        QDBusMessage reply = message.createReply();
        if (message.interface() == u"org.freedesktop.login1.Manager"_s) {
            int ends[2];
            if (pipe(ends) != 0)
                return false;
            logindHolds.push_back(ends[0]);
            reply << QVariant::fromValue(QDBusUnixFileDescriptor(ends[1]));
            ::close(ends[1]);
        } else if (message.member() == u"Inhibit"_s) {
            ++portalHolds;
            reply << QVariant::fromValue(QDBusObjectPath(u"/org/freedesktop/portal/desktop/request/1"_s));
        } else {
            --portalHolds;
            call << message.path();
        }
        if (late && message.member() == u"Inhibit"_s)
            unanswered.emplace_back(connection, reply);
        else
            connection.send(reply);
        return true;
    }
};

// logind's signal before the computer sleeps, and after it woke.
void prepareForSleep(const QDBusConnection &system, bool sleeping)
{
    system.send(QDBusMessage::createSignal(
                    u"/org/freedesktop/login1"_s, u"org.freedesktop.login1.Manager"_s, u"PrepareForSleep"_s)
        << sleeping);
}

// Whether a WAV's header counts all of it: its data chunk ends where the file does.
bool complete(const QString &path)
{
    QFile file(path);
    const QByteArray head = file.open(QIODevice::ReadOnly) ? file.read(4096) : QByteArray();
    const qsizetype data = head.indexOf("data");
    return data > 0 && data + 8 + qFromLittleEndian<quint32>(head.constData() + data + 4) == file.size();
}

} // namespace

class TestRecordingInhibitor : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Held, released, released before the answer came, and released on destruction:
    // through the portal when there is one, else logind, else only a warning; and the
    // delay before sleep through logind, else its one warning.
    void holdsAndReleases_data()
    {
        QTest::addColumn<QString>("services");
        QTest::addColumn<QString>("call");
        QTest::addColumn<int>("calls"); // a hold released before the portal failed never reaches logind
        QTest::newRow("portal") << u"portal logind"_s << u"Inhibit  12 Recording"_s << 3;
        QTest::newRow("logind") << u"logind"_s << u"Inhibit sleep:idle recording_inhibitor Recording block"_s
                                << 2;
        QTest::newRow("neither") << QString() << QString() << 0;
    }
    void holdsAndReleases()
    {
        QFETCH(QString, services);
        QFETCH(QString, call);
        QFETCH(int, calls);
        const QString row = QString::fromLatin1(QTest::currentDataTag());
        StandInDesktop desktop;
        QDBusConnection session
            = QDBusConnection::connectToBus(QDBusConnection::SessionBus, row + u"portal"_s);
        QDBusConnection system = QDBusConnection::connectToBus(QDBusConnection::SystemBus, row + u"logind"_s);
        const auto disconnect = qScopeGuard([&] {
            QDBusConnection::disconnectFromBus(row + u"portal"_s);
            QDBusConnection::disconnectFromBus(row + u"logind"_s);
        });
        if (services.contains(u"portal"_s))
            QVERIFY(session.registerVirtualObject(
                        u"/org/freedesktop/portal/desktop"_s, &desktop, QDBusConnection::SubPath)
                && session.registerService(u"org.freedesktop.portal.Desktop"_s));
        if (services.contains(u"logind"_s))
            QVERIFY(system.registerVirtualObject(u"/org/freedesktop/login1"_s, &desktop)
                && system.registerService(u"org.freedesktop.login1"_s));
        LogCapture log;
        {
            DesktopSleepInhibitor inhibitor;
            inhibitor.hold(u"Recording"_s);
            if (call.isEmpty()) { // and the sleep delay's one warning
                inhibitor.watchSleep([](bool) {});
                QTRY_COMPARE(
                    log.lines(u"recorder"_s).filter(u"Sleep is not inhibited while recording"_s).size(), 1);
                QTRY_COMPARE(log.lines(u"recorder"_s).size(), 2);
                return;
            }
            QTRY_COMPARE(desktop.held(), 1);
            inhibitor.release();
            QTRY_COMPARE(desktop.held(), 0);
            // An answer that comes after the release is given back at once.
            desktop.late = true;
            inhibitor.hold(u"Recording"_s);
            QTRY_COMPARE(desktop.calls.count(call), 2);
            inhibitor.release();
            desktop.answerLate();
            QTRY_COMPARE(desktop.held(), 0);
            inhibitor.hold(u"Recording"_s);
            inhibitor.release();
            inhibitor.hold(u"Recording"_s);
            QTRY_COMPARE(desktop.calls.count(call), calls + 1);
            QTRY_COMPARE(desktop.held(), 1);
        } // held as it goes
        QTRY_COMPARE(desktop.held(), 0);
        const QString closed = u"Close /org/freedesktop/portal/desktop/request/1"_s;
        QCOMPARE(desktop.calls.count(closed), row == u"portal"_s ? 4 : 0);
        QCOMPARE(desktop.calls.size(), calls + 1 + desktop.calls.count(closed));
        QVERIFY(log.lines(u"recorder"_s).isEmpty());
        if (row != u"logind"_s)
            return;
        // While watched, logind's delay is held; before the computer sleeps the handler
        // runs with the delay still held and gives it back once it returned; after waking
        // it runs again and the delay is taken anew. Watched again: no second delay.
        DesktopSleepInhibitor inhibitor;
        QStringList handled; // whether sleeping, and how many were held meanwhile
        inhibitor.watchSleep([&](bool sleeping) { handled << u"%1 %2"_s.arg(sleeping).arg(desktop.held()); });
        inhibitor.watchSleep([&](bool sleeping) { handled << u"%1 %2"_s.arg(sleeping).arg(desktop.held()); });
        QTRY_COMPARE(desktop.held(), 1);
        for (const bool sleeping : { true, false }) {
            prepareForSleep(system, sleeping);
            QTRY_COMPARE(desktop.held(), sleeping ? 0 : 1);
        }
        QCOMPARE(handled, QStringList({ u"1 1"_s, u"0 0"_s }));
        inhibitor.watchSleep({});
        QTRY_COMPARE(desktop.held(), 0);
        QCOMPARE(desktop.calls.count(
                     u"Inhibit sleep recording_inhibitor Pausing the recording before sleep delay"_s),
            2);
    }

    // The application's flow and captures on the private sound server, in two parts with
    // tones of their own, each ended by a sleep: as the delay is given back both files are
    // complete and as long as the recorded time, and the flow is paused with its sentence.
    // After the first the sound server is stopped for 10 s; once awake the flow stays
    // paused, and Resume records from both captures within 2 s, the stop absent.
    void aRecordingPausesBeforeSleep()
    {
        const pid_t soundServer = qEnvironmentVariableIntValue("SELVARO_PULSE_DAEMON_PID");
        StandInDesktop logind;
        QDBusConnection system = QDBusConnection::connectToBus(QDBusConnection::SystemBus, u"sleep"_s);
        QVERIFY(soundServer > 0 && system.registerVirtualObject(u"/org/freedesktop/login1"_s, &logind)
            && system.registerService(u"org.freedesktop.login1"_s));
        RecordingTest::StandIns bench; // the folder, the network and the store
        RecorderFlow flow(SelvaroAPI(&bench.network, RecordingTest::nowhere, bench.deadlines), *bench.store,
            RecorderPlatform::onSoundServer(
                std::make_shared<PulseSoundServer>(), std::make_shared<PulseAlertSound>(), bench.folder()));
        const double tones[2][2] { { 440, 1000 }, { 660, 1300 } }; // each part's system and microphone
        double ends[2] {}; // of each part, in recorded seconds
        for (const int part : { 0, 1 }) {
            if (part) { // the tones of the first part have ended
                QVERIFY(::kill(soundServer, SIGSTOP) == 0);
                QTest::qWait(10000);
                QVERIFY(::kill(soundServer, SIGCONT) == 0);
                prepareForSleep(system, false);
            }
            TonePlayer players[] { TonePlayer(tones[part][0], "speakers"),
                TonePlayer(tones[part][1], "micfeed") };
            part ? flow.resume() : flow.record();
            const RecordingFiles files(bench.folder(), RecordingFiles::stampsIn(bench.folder()).value(0));
            const QStringList paths { files.systemAudio(), files.microphone() };
            QTest::qWait(4000);
            // Looked at from another thread as the delay goes: this one runs the handler.
            auto completeAtRelease = std::async(std::launch::async, [&, calls = logind.calls] {
                pollfd released {
                    logind.logindHolds.at(calls.lastIndexOf(
                        u"Inhibit sleep recording_inhibitor Pausing the recording before sleep delay"_s)),
                    POLLIN, 0
                };
                return poll(&released, 1, 5000) == 1 && std::all_of(paths.begin(), paths.end(), complete);
            });
            prepareForSleep(system, true);
            QTRY_VERIFY(completeAtRelease.wait_for(std::chrono::seconds(0)) == std::future_status::ready);
            QVERIFY(completeAtRelease.get());
            QCOMPARE(flow.state(), RecorderState::paused(u"Paused while the computer was asleep."_s));
            ends[part] = flow.elapsed();
            for (const int track : { 0, 1 }) {
                const SoundFile file = SoundFile::read(paths[track]);
                // Not the 10 s stop; the files count from when the start was asked for, the
                // clock from when it returned.
                QVERIFY2(std::abs(file.seconds() - ends[part]) < 0.5, qPrintable(paths[track]));
                // Each part's tone up to its end; the second's from at most 2 s after Resume.
                // A short window: PulseAudio's null sink makes up the stopped time at once
                // (its clock ran on; a suspended computer's stops), and the system track
                // thins that burst away for some seconds (CaptureTimeline), its tone ~1 % high.
                for (int heard = 0; heard <= part; ++heard) {
                    const auto window = file.channelSpan(0, heard ? ends[0] + 2 : ends[0] - 0.5, 0.05);
                    QVERIFY(ToneAnalysis::amplitudeAt(window, 48000, tones[heard][track]) > 0.3);
                }
            }
        }
    }
};

QTEST_GUILESS_MAIN(TestRecordingInhibitor)
#include "tst_recording_inhibitor.moc"
