#pragma once

#include "audio/SoundServer.h"

#include <QString>

#include <memory>
#include <vector>

// The sound server as the recorder uses it: system audio comes from the source the user
// chose, every application ("All apps", the server's own output capture) or one
// application's playback streams (startApplicationCapture, by its binary). Everything
// else passes through to `server` untouched.
//
// A new choice applies at once to the system-audio captures running: each ends its
// current capture at the present (catchUp) and starts the new source counting from that
// instant, so the track stays whole and on the clock across the change. A source that
// cannot start is logged and the previous one taken up again: never a silent fallback
// to another source than the one shown.
//
// Thread contract: main thread, as the captures it hands out.
class ChosenSourceServer final : public SoundServer
{
public:
    // `server` must outlive this and every capture it makes.
    explicit ChosenSourceServer(std::shared_ptr<SoundServer> server);
    ~ChosenSourceServer() override;

    // The chosen application's binary; empty for every application.
    [[nodiscard]] QString chosen() const { return m_binary; }
    void choose(const QString &binary);

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
    class Switch;

    [[nodiscard]] std::variant<std::unique_ptr<Capture>, QString> startSwitch(
        const OutputDevice *output, const SampleSpec &spec, BlockHandler onBlock);

    std::shared_ptr<SoundServer> m_server;
    QString m_binary;
    std::vector<Switch *> m_running;
};
