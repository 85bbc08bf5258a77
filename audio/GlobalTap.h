#pragma once

#include "audio/CaptureError.h"
#include "audio/SoundServer.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

// Captures everything the computer plays, mixed to stereo: a record stream on the
// monitor of the default output (see PulseCapture for how it follows that output).
// What the user hears is never changed.
//
// Thread contract: activate(), run(), invalidate() and the destructor on the main
// thread. The I/O block runs on the sound server's thread (see
// SoundServer::BlockHandler: copy and return). The invalidation handler runs on
// the thread that calls invalidate().
class GlobalTap : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString errorMessage READ errorMessage NOTIFY errorMessageChanged)

public:
    // Interleaved 32-bit float frames in tapStreamDescription(); see SoundServer::BlockHandler.
    using IOBlock = SoundServer::BlockHandler;
    using InvalidationHandler = std::function<void(GlobalTap &)>;

    // `server` must outlive the tap. Nothing is created until activate().
    GlobalTap(SoundServer &server, bool muteWhenRunning, QObject *parent = nullptr);
    ~GlobalTap() override;

    [[nodiscard]] bool muteWhenRunning() const { return m_muteWhenRunning; }
    // The last set-up failure; empty when none.
    [[nodiscard]] QString errorMessage() const { return m_errorMessage; }
    // The format blocks are delivered in, read from the server during activate().
    [[nodiscard]] std::optional<SampleSpec> tapStreamDescription() const { return m_tapStreamDescription; }
    [[nodiscard]] bool isActivated() const { return m_activated; }

    // Reads the default output and its format, once: a second call does nothing,
    // even after a failed first. Never fails loudly: errorMessage() tells.
    void activate();
    // Starts delivering blocks to `ioBlock`.
    [[nodiscard]] std::optional<GlobalTapError> run(IOBlock ioBlock, InvalidationHandler invalidationHandler);
    // Stops delivery and releases everything, in the reverse order of creation;
    // calls the invalidation handler once. Safe to repeat.
    void invalidate();

    // Writes silence up to the present if the output has been quiet (see Capture::catchUp).
    void catchUp();
    // Frames the server delivered since run(), for the accounting of lost frames.
    [[nodiscard]] Capture::Counters counters() const;

Q_SIGNALS:
    void errorMessageChanged();

private:
    void setErrorMessage(const QString &message);
    [[nodiscard]] std::optional<GlobalTapError> setUp();

    SoundServer &m_server;
    const bool m_muteWhenRunning;
    QString m_errorMessage;
    std::optional<OutputDevice> m_device;
    std::optional<SampleSpec> m_tapStreamDescription;
    InvalidationHandler m_invalidationHandler;
    std::unique_ptr<Capture> m_capture;
    bool m_activated = false;
};
