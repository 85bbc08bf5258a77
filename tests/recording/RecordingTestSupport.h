#pragma once

// Stand-ins for the recorder flow's tests: a capture that leaves a prepared file
// instead of recording, the stand-in sound server for the permission probes, and
// the bench that builds a flow on them with a hand-moved clock.

#include "account/SessionStore.h"
#include "audio/MicrophonePermission.h"
#include "audio/SystemAudioPermission.h"
#include "recording/RecorderFlow.h"
#include "support/ManualClock.h"
#include "support/StandInSoundServer.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QTemporaryDir>

namespace RecordingTest {

using namespace std::chrono_literals;
using namespace Qt::StringLiterals;
using State = RecorderState;

// A port nobody listens on: a send there fails at once with a connection error.
inline const QUrl nowhere(u"http://127.0.0.1:1"_s);
// A token whose "id" claim is "acc1".
inline const QString tokenOfAcc1 = u"hdr.eyJpZCI6ImFjYzEifQ.sig"_s;
// The start of an M4A file: what a stand-in capture leaves as its mix.
inline const QByteArray someMix = QByteArray::fromHex("00000018667479704d344120000000004d34412069736f6d");

// Records nothing: notes the calls it gets; stop() leaves `mix` as the mixed file (no
// file when null), or fails with `mixError` once. A held stop() waits for release().
// writeFailure() answers `failure`.
class StandInCapture : public RecordingCapture
{
public:
    QString mixedPath;
    QStringList calls;
    std::optional<QString> startError;
    QByteArray mix = someMix;
    bool holdStop = false;
    std::optional<WriteFailure> failure;
    std::optional<QString> mixError;
    Levels levels; // what every read of the levels answers

    std::optional<QString> start() override
    {
        calls << u"start"_s;
        return startError;
    }
    void pause() override { calls << u"pause"_s; }
    void flush() override { calls << u"flush"_s; }
    void resume() override { calls << u"resume"_s; }
    void cancel() override { calls << u"cancel"_s; }
    QCoro::Task<> stop() override
    {
        calls << u"stop"_s;
        if (holdStop)
            co_await m_hold.sleep(1ms);
        m_mixFailure = std::exchange(mixError, std::nullopt);
        QFile file(mixedPath);
        if (!m_mixFailure && !mix.isNull() && file.open(QIODevice::WriteOnly))
            file.write(mix);
    }
    void close() override { calls << u"close"_s; }
    [[nodiscard]] QString finalMixedPath() const override { return mixedPath; }
    [[nodiscard]] std::optional<WriteFailure> writeFailure() const override { return failure; }
    [[nodiscard]] std::optional<QString> mixFailure() const override { return m_mixFailure; }
    [[nodiscard]] Levels takeLevels() override { return levels; }
    void release() { m_hold.advance(1ms); }

private:
    ManualClock m_hold; // what a held stop() sleeps on until release()
    std::optional<QString> m_mixFailure;
};

// Online or not as the test says.
struct StandInNetworkStatus final : NetworkStatus
{
    bool offline() const override { return isOffline; }
    bool isOffline = false;
};

// Keeps the computer awake in name only: `held` tells whether it is, `sleep` is the
// handler a suspend would call.
struct StandInInhibitor final : SleepInhibitor
{
    StandInInhibitor(bool &held, SleepHandler &sleep)
        : held(held)
        , sleep(sleep)
    { }
    void hold(const QString &) override { held = true; }
    void release() override { held = false; }
    void watchSleep(SleepHandler handler) override { sleep = std::move(handler); }
    bool &held;
    SleepHandler &sleep;
};

// What a flow under test stands on. The captures it made are in `made`; `startError`
// and `holdStop` go to the next ones. Build the flow after the bench.
struct StandIns
{
    explicit StandIns(SessionStore::Load load = SessionStore::Load::nothing)
        : store(std::make_unique<SessionStore>(load))
    { }

    QTemporaryDir dir;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<StandInSoundServer> server = std::make_shared<StandInSoundServer>();
    QNetworkAccessManager network;
    std::unique_ptr<SessionStore> store;
    QList<std::shared_ptr<StandInCapture>> made;
    std::optional<QString> startError;
    bool holdStop = false;
    bool awake = false;
    SleepInhibitor::SleepHandler sleep; // set while the flow watches for sleep
    std::optional<qint64> freeSpace; // unknown: never refuses
    std::shared_ptr<StandInNetworkStatus> networkStatus = std::make_shared<StandInNetworkStatus>();
    ServiceDeadlines deadlines;

    [[nodiscard]] StandInCapture &last() { return *made.last(); }
    [[nodiscard]] QString folder() const { return dir.filePath(u"Recordings"_s); }
    void link(const QString &token = tokenOfAcc1)
    {
        store->setSession(SessionPayload { u"s"_s, u"p"_s, token, false });
    }

    std::unique_ptr<RecorderFlow> makeFlow(const QUrl &service = nowhere)
    {
        RecorderPlatform platform;
        platform.soundServer = server;
        platform.makeCapture = [this](const QString &in) -> std::shared_ptr<RecordingCapture> {
            auto capture = std::make_shared<StandInCapture>();
            capture->mixedPath = u"%1/%2_mixed.m4a"_s.arg(in).arg(1000 + made.size());
            std::tie(capture->startError, capture->holdStop) = std::tie(startError, holdStop);
            return made.emplace_back(capture);
        };
        platform.microphone = std::make_unique<MicrophonePermission>(*server);
        platform.systemAudio = std::make_unique<SystemAudioPermission>(*server);
        platform.clock = clock;
        platform.recordingsFolder = folder();
        platform.sleepInhibitor = std::make_unique<StandInInhibitor>(awake, sleep);
        platform.freeSpace = [this](const QString &) { return freeSpace; };
        platform.network = networkStatus;
        return std::make_unique<RecorderFlow>(
            SelvaroAPI(&network, service, deadlines), *store, std::move(platform));
    }
};

} // namespace RecordingTest
