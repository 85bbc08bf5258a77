#include "audio/pulse/PulseSoundServer.h"

#include "audio/pulse/PulseApplicationCapture.h"
#include "audio/pulse/PulseCapture.h"
#include "audio/pulse/PulseConnection.h"
#include "audio/pulse/PulseStreamWatch.h"

PulseSoundServer::PulseSoundServer(QByteArray server)
    : m_server(std::move(server))
{ }

PulseSoundServer::~PulseSoundServer() = default;

std::variant<OutputDevice, AudioObjectError> PulseSoundServer::defaultOutput()
{
    if (!m_reads)
        m_reads = std::make_unique<PulseConnection>(m_server);
    PulseConnection::Locker lock(*m_reads);
    return m_reads->readDefaultOutput();
}

std::variant<std::unique_ptr<Capture>, QString> PulseSoundServer::startCapture(
    CaptureSource source, const SampleSpec &spec, BlockHandler onBlock)
{
    auto capture = std::make_unique<PulseCapture>(m_server, source, spec, std::move(onBlock));
    if (auto error = capture->start())
        return *error;
    return std::unique_ptr<Capture>(std::move(capture));
}

std::variant<std::unique_ptr<Capture>, QString> PulseSoundServer::startOutputCapture(
    const OutputDevice &output, const SampleSpec &spec, BlockHandler onBlock)
{
    auto capture
        = std::make_unique<PulseCapture>(m_server, CaptureSource::systemOutput, spec, std::move(onBlock));
    if (auto error = capture->start(&output))
        return *error;
    return std::unique_ptr<Capture>(std::move(capture));
}

std::variant<std::unique_ptr<Capture>, QString> PulseSoundServer::startApplicationCapture(
    const QString &binary, const SampleSpec &spec, BlockHandler onBlock)
{
    if (spec.sample != SampleSpec::Sample::float32)
        return QStringLiteral("An application's streams are summed as float32 only");
    auto capture = std::make_unique<PulseApplicationCapture>(m_server, binary, spec, std::move(onBlock));
    if (auto error = capture->start())
        return *error;
    return std::unique_ptr<Capture>(std::move(capture));
}

Permission PulseSoundServer::probe(CaptureSource source)
{
    PulseConnection connection(m_server);
    PulseConnection::Locker lock(connection);
    if (const int error = connection.connect())
        return error == PA_ERR_ACCESS || error == PA_ERR_AUTHKEY ? Permission::denied : Permission::unknown;
    QByteArray device;
    if (source == CaptureSource::systemOutput) {
        auto output = connection.readDefaultOutput();
        if (!std::holds_alternative<OutputDevice>(output))
            return Permission::denied;
        device = std::get<OutputDevice>(output).monitorSource.toUtf8();
    } else {
        auto name = connection.readDefaultSourceName();
        if (!std::holds_alternative<QByteArray>(name))
            return Permission::denied;
        device = std::get<QByteArray>(name);
    }

    // Opening a corked record stream asks the server everything a capture would,
    // without moving a single sample.
    const pa_sample_spec spec { PA_SAMPLE_FLOAT32NE, 48000, 1 };
    pa_stream *stream = pa_stream_new(connection.context(), "Permission probe", &spec, nullptr);
    if (!stream)
        return Permission::denied;
    pa_stream_set_state_callback(
        stream,
        [](pa_stream *, void *mainloop) {
            pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop *>(mainloop), 0);
        },
        connection.mainloop());
    bool ready = false;
    if (pa_stream_connect_record(stream, device.constData(), nullptr,
            static_cast<pa_stream_flags_t>(PA_STREAM_START_CORKED | PA_STREAM_DONT_MOVE))
        == 0) {
        connection.wait([stream] {
            return !PA_STREAM_IS_GOOD(pa_stream_get_state(stream))
                || pa_stream_get_state(stream) == PA_STREAM_READY;
        });
        ready = pa_stream_get_state(stream) == PA_STREAM_READY;
    }
    const bool serverGone = !connection.isReady();
    pa_stream_set_state_callback(stream, nullptr, nullptr);
    pa_stream_disconnect(stream);
    pa_stream_unref(stream);
    if (ready)
        return Permission::granted;
    return serverGone ? Permission::unknown : Permission::denied;
}

std::unique_ptr<StreamWatch> PulseSoundServer::watchStreams()
{
    return std::make_unique<PulseStreamWatch>(m_server);
}
