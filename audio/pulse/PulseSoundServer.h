#pragma once

#include "audio/SoundServer.h"

#include <QByteArray>

#include <memory>

class PulseConnection;

// The sound server through libpulse: PulseAudio, or PipeWire through
// pipewire-pulse. Reads share one connection (made on first use, remade after a
// failure); each capture and each probe has a connection of its own, so that one
// failing never takes the others with it.
class PulseSoundServer final : public SoundServer
{
public:
    // `server` is a libpulse server string ("unix:/run/user/1000/pulse/native");
    // empty uses libpulse's default, which honours PULSE_SERVER.
    explicit PulseSoundServer(QByteArray server = {});
    ~PulseSoundServer() override;

    [[nodiscard]] std::variant<OutputDevice, AudioObjectError> defaultOutput() override;
    [[nodiscard]] std::variant<std::unique_ptr<Capture>, QString> startCapture(
        CaptureSource source, const SampleSpec &spec, BlockHandler onBlock) override;
    [[nodiscard]] std::variant<std::unique_ptr<Capture>, QString> startOutputCapture(
        const OutputDevice &output, const SampleSpec &spec, BlockHandler onBlock) override;
    [[nodiscard]] std::variant<std::unique_ptr<Capture>, QString> startApplicationCapture(
        const QString &binary, const SampleSpec &spec, BlockHandler onBlock) override;
    [[nodiscard]] Permission probe(CaptureSource source) override;
    [[nodiscard]] std::unique_ptr<StreamWatch> watchStreams() override;

private:
    const QByteArray m_server;
    std::unique_ptr<PulseConnection> m_reads;
};
