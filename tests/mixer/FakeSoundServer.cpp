#include "FakeSoundServer.h"

#include <cmath>
#include <numbers>
#include <vector>

namespace {

class FakeCapture final : public Capture
{
public:
    FakeCapture(FakeSoundServer &server, CaptureSource source)
        : m_server(server)
        , m_source(source)
    {
        ++m_server.live[m_source];
    }
    ~FakeCapture() override { --m_server.live[m_source]; }

    void setSuspended(bool suspended) override { m_server.suspended[m_source] = suspended; }
    void catchUp() override {}
    Counters counters() const override { return {}; }

private:
    FakeSoundServer &m_server;
    CaptureSource m_source;
};

} // namespace

std::variant<OutputDevice, AudioObjectError> FakeSoundServer::defaultOutput()
{
    return OutputDevice{QStringLiteral("speakers"), {SampleSpec::Sample::float32, 48000, 2},
                        QStringLiteral("speakers.monitor")};
}

std::variant<std::unique_ptr<Capture>, QString> FakeSoundServer::startCapture(CaptureSource source,
                                                                              const SampleSpec &spec,
                                                                              BlockHandler onBlock)
{
    const Source &what = sources[source];
    if (what.refuse)
        return QStringLiteral("Access denied");
    ++started[source];
    std::vector<float> samples(static_cast<size_t>(what.frames * spec.channels));
    for (long long i = 0; i < what.frames; ++i)
        for (int c = 0; c < spec.channels; ++c)
            samples[static_cast<size_t>(i * spec.channels + c)] =
                static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * what.frequency * i / spec.rate));
    if (what.frames > 0)
        onBlock(samples.data(), what.frames);
    return std::make_unique<FakeCapture>(*this, source);
}
