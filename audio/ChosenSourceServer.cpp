#include "audio/ChosenSourceServer.h"

#include "common/Logging.h"

#include <optional>

// One system-audio capture that can change its source while it runs. Only one inner
// capture exists at a time, so the block handler is never called from two threads.
class ChosenSourceServer::Switch final : public Capture
{
public:
    Switch(ChosenSourceServer &owner, const OutputDevice *output, const SampleSpec &spec,
        SoundServer::BlockHandler onBlock)
        : m_owner(owner)
        , m_output(output ? std::optional(*output) : std::nullopt)
        , m_spec(spec)
        , m_onBlock(std::move(onBlock))
    { }
    ~Switch() override { std::erase(m_owner.m_running, this); }

    std::optional<QString> start(const QString &binary)
    {
        auto started = open(binary);
        if (auto *error = std::get_if<QString>(&started))
            return *error;
        m_inner = std::move(std::get<std::unique_ptr<Capture>>(started));
        m_output.reset(); // a later start reads the default output afresh
        m_owner.m_running.push_back(this);
        return std::nullopt;
    }

    void switchTo(const QString &binary, const QString &previous)
    {
        // The present ends the old source's part of the track, and the new one counts
        // from there.
        m_inner->catchUp();
        const auto at = std::chrono::steady_clock::now();
        add(m_carried, m_inner->counters());
        m_inner.reset();
        auto started = open(binary);
        if (auto *error = std::get_if<QString>(&started)) {
            qCWarning(lcSystemRecorder).noquote() << "System audio source not changed:" << *error;
            started = open(previous);
        }
        if (auto *inner = std::get_if<std::unique_ptr<Capture>>(&started)) {
            m_inner = std::move(*inner);
            m_inner->setOrigin(at);
            m_inner->setSuspended(m_suspended);
        }
    }

    void setSuspended(bool suspended) override
    {
        m_suspended = suspended;
        if (m_inner)
            m_inner->setSuspended(suspended);
    }
    void catchUp() override
    {
        if (m_inner)
            m_inner->catchUp();
    }
    void setOrigin(std::chrono::steady_clock::time_point origin) override
    {
        if (m_inner)
            m_inner->setOrigin(origin);
    }
    [[nodiscard]] Counters counters() const override
    {
        Counters counters = m_carried;
        if (m_inner)
            add(counters, m_inner->counters());
        return counters;
    }

private:
    static void add(Counters &to, const Counters &from)
    {
        to.framesReceived += from.framesReceived;
        to.framesOfSilence += from.framesOfSilence;
        to.framesAbsorbed += from.framesAbsorbed;
        if (to.framesBeforeFirstBlock == 0)
            to.framesBeforeFirstBlock = from.framesBeforeFirstBlock;
    }

    std::variant<std::unique_ptr<Capture>, QString> open(const QString &binary)
    {
        SoundServer &server = *m_owner.m_server;
        if (!binary.isEmpty())
            return server.startApplicationCapture(binary, m_spec, m_onBlock);
        if (m_output)
            return server.startOutputCapture(*m_output, m_spec, m_onBlock);
        return server.startCapture(CaptureSource::systemOutput, m_spec, m_onBlock);
    }

    ChosenSourceServer &m_owner;
    std::optional<OutputDevice> m_output; // the output read for the first start
    const SampleSpec m_spec;
    const SoundServer::BlockHandler m_onBlock;
    std::unique_ptr<Capture> m_inner;
    Counters m_carried;
    bool m_suspended = false;
};

ChosenSourceServer::ChosenSourceServer(std::shared_ptr<SoundServer> server)
    : m_server(std::move(server))
{ }

ChosenSourceServer::~ChosenSourceServer()
{
    // A capture outliving its server would call into it: none may.
    Q_ASSERT(m_running.empty());
}

void ChosenSourceServer::choose(const QString &binary)
{
    if (binary == m_binary)
        return;
    const QString previous = std::exchange(m_binary, binary);
    qCInfo(lcSystemRecorder).noquote()
        << "System audio source:" << (binary.isEmpty() ? QStringLiteral("all apps") : binary);
    for (Switch *running : m_running)
        running->switchTo(binary, previous);
}

std::variant<std::unique_ptr<Capture>, QString> ChosenSourceServer::startSwitch(
    const OutputDevice *output, const SampleSpec &spec, BlockHandler onBlock)
{
    auto capture = std::make_unique<Switch>(*this, output, spec, std::move(onBlock));
    if (auto error = capture->start(m_binary))
        return *error;
    return std::unique_ptr<Capture>(std::move(capture));
}

std::variant<OutputDevice, AudioObjectError> ChosenSourceServer::defaultOutput()
{
    return m_server->defaultOutput();
}

std::variant<std::unique_ptr<Capture>, QString> ChosenSourceServer::startCapture(
    CaptureSource source, const SampleSpec &spec, BlockHandler onBlock)
{
    if (source == CaptureSource::systemOutput)
        return startSwitch(nullptr, spec, std::move(onBlock));
    return m_server->startCapture(source, spec, std::move(onBlock));
}

std::variant<std::unique_ptr<Capture>, QString> ChosenSourceServer::startOutputCapture(
    const OutputDevice &output, const SampleSpec &spec, BlockHandler onBlock)
{
    return startSwitch(&output, spec, std::move(onBlock));
}

std::variant<std::unique_ptr<Capture>, QString> ChosenSourceServer::startApplicationCapture(
    const QString &binary, const SampleSpec &spec, BlockHandler onBlock)
{
    return m_server->startApplicationCapture(binary, spec, std::move(onBlock));
}

Permission ChosenSourceServer::probe(CaptureSource source)
{
    return m_server->probe(source);
}

std::unique_ptr<StreamWatch> ChosenSourceServer::watchStreams()
{
    return m_server->watchStreams();
}
