#pragma once

#include "audio/CaptureError.h"
#include "audio/SoundServer.h"

#include <QString>

#include <memory>
#include <optional>

// Captures everything the computer plays, mixed to stereo: a record stream on the
// monitor of the default output (see PulseCapture for how it follows that output).
// What the user hears is never changed, so there is nothing to mute.
//
// The default output is read once, in activate(), and the capture starts on that very
// output. The format is fixed whatever the output runs at: 48000 Hz stereo float.
//
// Thread contract: activate(), run(), invalidate(), the Capture members and the
// destructor on the owner's (main) thread. The I/O block runs on the sound server's
// thread (see SoundServer::BlockHandler: copy and return).
class GlobalTap final : public Capture
{
public:
    // Interleaved 32-bit float frames in tapStreamDescription(); see SoundServer::BlockHandler.
    using IOBlock = SoundServer::BlockHandler;

    static constexpr int sampleRate = 48000;
    static constexpr int channels = 2;

    // `server` must outlive the tap. Nothing is created until activate().
    explicit GlobalTap(SoundServer &server);
    ~GlobalTap() override;

    // The last set-up failure; empty when none.
    [[nodiscard]] QString errorMessage() const { return m_errorMessage; }
    // The format blocks are delivered in, set once activate() has read the output.
    [[nodiscard]] std::optional<SampleSpec> tapStreamDescription() const { return m_tapStreamDescription; }

    // Reads the default output, once: a second call does nothing,
    // even after a failed first. Never fails loudly: errorMessage() tells.
    void activate();
    // Starts delivering blocks to `ioBlock`.
    [[nodiscard]] std::optional<GlobalTapError> run(IOBlock ioBlock);
    // Stops delivery and releases everything; safe to repeat. The destructor calls it.
    void invalidate();

    // Capture: pausing is the writer's business (it drops blocks), so the stream is
    // never suspended; catchUp() and counters() pass through to the stream.
    void setSuspended(bool) override { }
    void catchUp() override;
    void setOrigin(std::chrono::steady_clock::time_point origin) override;
    [[nodiscard]] Counters counters() const override;

private:
    SoundServer &m_server;
    QString m_errorMessage;
    std::optional<OutputDevice> m_device;
    std::optional<SampleSpec> m_tapStreamDescription;
    std::unique_ptr<Capture> m_capture;
    bool m_activated = false;
};
