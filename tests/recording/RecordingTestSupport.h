#pragma once

// Stand-ins for the recorder flow's tests: a capture that leaves a prepared file
// instead of recording, a sound server whose only job is to answer the permission
// probes, and the bench that builds a flow on them with a hand-moved clock.

#include "account/SessionStore.h"
#include "audio/MicrophonePermission.h"
#include "audio/SoundServer.h"
#include "audio/SystemAudioPermission.h"
#include "recording/RecorderFlow.h"
#include "support/ManualClock.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QStringList>
#include <QTemporaryDir>

#include <atomic>
#include <coroutine>

namespace RecordingTest {

using namespace std::chrono_literals;
using State = RecorderState;

// A URL nobody answers on: a send there fails at once with a connection error.
inline const QUrl nowhere(QStringLiteral("http://127.0.0.1:1"));

// Records nothing: notes the calls it gets; stop() leaves `mixedBytes` as the mixed
// file (no file when null). A held stop() waits for release().
class StandInCapture : public RecordingCapture
{
public:
    explicit StandInCapture(QString mixedPath)
        : m_mixedPath(std::move(mixedPath))
    {
    }

    QStringList calls;
    std::optional<QString> startError;
    QByteArray mixedBytes = QByteArray("\0\0\0\x18"
                                       "ftypM4A \0\0\0\0M4A isom",
                                       24);
    bool holdStop = false;

    std::optional<QString> start() override
    {
        calls << QStringLiteral("start");
        return startError;
    }
    void pause() override { calls << QStringLiteral("pause"); }
    void resume() override { calls << QStringLiteral("resume"); }
    void cancel() override { calls << QStringLiteral("cancel"); }
    QCoro::Task<> stop() override
    {
        calls << QStringLiteral("stop");
        if (holdStop)
            co_await Held{this};
        QFile file(m_mixedPath);
        if (!mixedBytes.isNull() && file.open(QIODevice::WriteOnly))
            file.write(mixedBytes);
    }
    [[nodiscard]] QString finalMixedPath() const override { return m_mixedPath; }
    // Ends a held stop() inside this call.
    void release()
    {
        if (const auto handle = std::exchange(m_held, {}))
            handle.resume();
    }

private:
    struct Held
    {
        StandInCapture *capture;
        bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> handle) { capture->m_held = handle; }
        void await_resume() const noexcept {}
    };
    QString m_mixedPath;
    std::coroutine_handle<> m_held;
};

// Answers the probes of each source with its own value, and nothing else.
class StandInServer final : public SoundServer
{
public:
    std::atomic<Permission> microphone{Permission::unknown};
    std::atomic<Permission> systemAudio{Permission::unknown};
    std::atomic<int> probes{0};

    void setBoth(Permission access) { microphone = systemAudio = access; }
    std::variant<OutputDevice, AudioObjectError> defaultOutput() override
    {
        return AudioObjectError{QStringLiteral("no output in this test")};
    }
    std::variant<std::unique_ptr<Capture>, QString> startCapture(CaptureSource, const SampleSpec &,
                                                                 BlockHandler) override
    {
        return QStringLiteral("no capture in this test");
    }
    Permission probe(CaptureSource source) override
    {
        ++probes;
        return source == CaptureSource::defaultInput ? microphone.load() : systemAudio.load();
    }
};

// What a flow under test stands on. Captures are kept in `made`; `nextStartError` and
// `holdStop` apply to the next ones. Build the flow after the bench, so it goes first.
struct StandIns
{
    explicit StandIns(SessionStore::Load load = SessionStore::Load::nothing)
        : store(std::make_unique<SessionStore>(load))
    {
    }

    QTemporaryDir dir;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<StandInServer> server = std::make_shared<StandInServer>();
    QNetworkAccessManager network;
    std::unique_ptr<SessionStore> store;
    QList<std::shared_ptr<StandInCapture>> made;
    std::optional<QString> nextStartError;
    bool holdStop = false;
    QByteArray nextMix = StandInCapture(QString()).mixedBytes;

    [[nodiscard]] StandInCapture &last() { return *made.last(); }
    [[nodiscard]] QString folder() const { return dir.filePath(QStringLiteral("Recordings")); }

    std::unique_ptr<RecorderFlow> makeFlow(const QUrl &service = nowhere)
    {
        RecorderPlatform platform;
        platform.soundServer = server;
        platform.makeCapture = [this](const QString &in) -> std::shared_ptr<RecordingCapture> {
            auto capture = std::make_shared<StandInCapture>(QStringLiteral("%1/%2.m4a").arg(in).arg(made.size()));
            capture->startError = nextStartError;
            capture->holdStop = holdStop;
            capture->mixedBytes = nextMix;
            made.append(capture);
            return capture;
        };
        platform.microphone = std::make_unique<MicrophonePermission>(*server);
        platform.systemAudio = std::make_unique<SystemAudioPermission>(*server);
        platform.clock = clock;
        platform.recordingsFolder = folder();
        return std::make_unique<RecorderFlow>(SelvaroAPI(&network, service), *store, std::move(platform));
    }

    // Records for `duration` on the clock, pauses and saves.
    void recordAndSave(RecorderFlow &flow, std::chrono::milliseconds duration = 1s)
    {
        flow.record();
        clock->advanceInTicks(duration);
        flow.pause();
        flow.save();
    }
};

} // namespace RecordingTest
