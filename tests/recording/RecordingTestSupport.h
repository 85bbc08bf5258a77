#pragma once

// Stand-ins for the recorder flow's tests: a clock the test moves by hand, a capture
// that leaves a prepared file instead of recording, and a sound server whose only
// job is to answer the permission probes.

#include "audio/MicrophonePermission.h"
#include "audio/SoundServer.h"
#include "audio/SystemAudioPermission.h"
#include "support/ManualClock.h"
#include "recording/RecorderPlatform.h"
#include "recording/RecordingCapture.h"

#include <QDateTime>
#include <QFile>
#include <QList>
#include <QObject>
#include <QStringList>

#include <coroutine>

#include <atomic>
#include <chrono>

namespace RecordingTest {

using ::ManualClock;

using namespace std::chrono_literals;

// A capture that records nothing: it logs the calls it gets, and stop() leaves
// `mixedBytes` as the mixed file (no file at all when null). A held stop() waits
// for release().
class StandInCapture : public RecordingCapture
{
public:
    explicit StandInCapture(QString mixedPath)
        : m_mixedPath(std::move(mixedPath))
    {
    }

    QStringList calls;
    std::optional<QString> startError;
    QByteArray mixedBytes = QByteArray("\0\0\0\x18" "ftypM4A \0\0\0\0M4A isom", 24);
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
        if (!mixedBytes.isNull()) {
            QFile file(m_mixedPath);
            if (file.open(QIODevice::WriteOnly))
                file.write(mixedBytes);
        }
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

// Hands out StandInCaptures and keeps them, so the test can look at the one the flow
// is using. `configure` runs on each before the flow sees it.
struct StandInFactory
{
    QList<std::shared_ptr<StandInCapture>> made;
    std::optional<QString> nextStartError;
    std::function<void(StandInCapture &)> configure;

    CaptureFactory factory()
    {
        return [this](const QString &folder) -> std::shared_ptr<RecordingCapture> {
            auto capture = std::make_shared<StandInCapture>(
                QStringLiteral("%1/%2_mixed.m4a").arg(folder).arg(made.size() + 1));
            capture->startError = nextStartError;
            if (configure)
                configure(*capture);
            made.append(capture);
            return capture;
        };
    }
    [[nodiscard]] StandInCapture &last() { return *made.last(); }
};

// Answers probes with `access` and nothing else.
class ProbeOnlyServer final : public SoundServer
{
public:
    std::atomic<Permission> access{Permission::unknown};
    std::atomic<int> probes{0};

    std::variant<OutputDevice, AudioObjectError> defaultOutput() override
    {
        return AudioObjectError{QStringLiteral("no output in this test")};
    }
    std::variant<std::unique_ptr<Capture>, QString> startCapture(CaptureSource, const SampleSpec &,
                                                                 BlockHandler) override
    {
        return QStringLiteral("no capture in this test");
    }
    Permission probe(CaptureSource) override
    {
        ++probes;
        return access.load();
    }
};

// What the state-machine and screen tests give a flow: stand-in captures from
// `captures`, both permissions probed on `server`, the hand-moved clock, and a
// recordings folder of the test's own.
inline RecorderPlatform standInPlatform(const std::shared_ptr<SoundServer> &server, StandInFactory &captures,
                                        std::shared_ptr<ManualClock> clock, QString recordingsFolder)
{
    RecorderPlatform platform;
    platform.soundServer = server;
    platform.makeCapture = captures.factory();
    platform.microphone = std::make_unique<MicrophonePermission>(*server);
    platform.systemAudio = std::make_unique<SystemAudioPermission>(*server);
    platform.clock = std::move(clock);
    platform.recordingsFolder = std::move(recordingsFolder);
    return platform;
}

} // namespace RecordingTest
