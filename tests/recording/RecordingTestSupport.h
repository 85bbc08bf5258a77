#pragma once

// Stand-ins for the recorder flow's tests: a clock the test moves by hand, a capture
// that leaves a prepared file instead of recording, and a sound server whose only
// job is to answer the permission probes.

#include "audio/MicrophonePermission.h"
#include "audio/SoundServer.h"
#include "audio/SystemAudioPermission.h"
#include "recording/RecorderClock.h"
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

using namespace std::chrono_literals;

// Time moves only when the test calls advance(). Every sleep is recorded and ends
// once the clock has passed its deadline.
class ManualClock : public RecorderClock
{
public:
    explicit ManualClock(QDateTime start = QDateTime(QDate(2026, 3, 4), QTime(10, 11, 12, 345), Qt::UTC))
        : m_wall(std::move(start))
    {
    }

    [[nodiscard]] QDateTime now() const override { return m_wall; }
    [[nodiscard]] std::chrono::steady_clock::time_point monotonicNow() const override { return m_monotonic; }

    QCoro::Task<> sleep(std::chrono::milliseconds duration) override
    {
        m_sleeps.append(duration);
        // The flow keeps the clock alive across its sleeps.
        co_await Wait{this, m_monotonic + duration};
    }

    // Moves both clocks on; the sleeps that are due end inside this call, in the
    // order they began (a sleep begun by a woken task waits for the next advance).
    void advance(std::chrono::milliseconds step)
    {
        m_monotonic += step;
        m_wall = m_wall.addMSecs(step.count());
        QList<std::coroutine_handle<>> due;
        for (auto it = m_waiting.begin(); it != m_waiting.end();) {
            if (it->first <= m_monotonic) {
                due.append(it->second);
                it = m_waiting.erase(it);
            } else {
                ++it;
            }
        }
        for (const auto handle : due)
            handle.resume();
    }

    // In 500 ms steps, so that the display clock ticks as it would in real time.
    void advanceInTicks(std::chrono::milliseconds total)
    {
        for (auto done = 0ms; done < total; done += 500ms)
            advance(std::min<std::chrono::milliseconds>(500ms, total - done));
    }

    [[nodiscard]] int sleepsOf(std::chrono::milliseconds duration) const { return int(m_sleeps.count(duration)); }

private:
    // Resumed directly by advance(), not through the event loop, so a test sees the
    // effect of a tick as soon as advance() returns.
    struct Wait
    {
        ManualClock *clock;
        std::chrono::steady_clock::time_point deadline;
        bool await_ready() const noexcept { return clock->m_monotonic >= deadline; }
        void await_suspend(std::coroutine_handle<> handle) { clock->m_waiting.append({deadline, handle}); }
        void await_resume() const noexcept {}
    };

    QList<std::pair<std::chrono::steady_clock::time_point, std::coroutine_handle<>>> m_waiting;
    QDateTime m_wall;
    std::chrono::steady_clock::time_point m_monotonic{std::chrono::hours(1)};
    QList<std::chrono::milliseconds> m_sleeps;
};

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
    std::atomic<CaptureAccess> access{CaptureAccess::unreachable};
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
    CaptureAccess probe(CaptureSource) override
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
