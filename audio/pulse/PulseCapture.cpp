#include "audio/pulse/PulseCapture.h"

#include "common/Logging.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace {

// Small blocks keep the two files aligned to within a few tens of milliseconds
// without waking the process more than ~40 times a second per stream.
constexpr auto blockDuration = CaptureTimeline::blockDuration;
// How long a failed stream or server waits before the next attempt.
constexpr auto retryDelay = 1000ms;
// How often the timeline is ticked: half its gapAfter, so a gap is filled soon after.
constexpr auto tickInterval = 50ms;
// A default sink that vanished is usually replaced within moments (a headset
// switching profile): give the server that moment before asking for the default.
constexpr auto followDelay = 100ms;
// How often the default input is looked for while there is none (see lookForInput).
constexpr auto missingLookInterval = 400ms;

pa_sample_format_t formatOf(SampleSpec::Sample sample)
{
    return sample == SampleSpec::Sample::float32 ? PA_SAMPLE_FLOAT32NE : PA_SAMPLE_S16NE;
}

} // namespace

PulseCapture::PulseCapture(
    QByteArray server, CaptureSource source, const SampleSpec &spec, SoundServer::BlockHandler onBlock)
    : m_connection(std::move(server))
    , m_source(source)
    , m_spec(spec)
    , m_onBlock(std::move(onBlock))
    , m_timeline(spec.rate, spec.bytesPerFrame(), category(),
          [this](const void *data, qint64 frames) { deliver(data, frames); })
{ }

PulseCapture::~PulseCapture()
{
    PulseConnection::Locker lock(m_connection);
    m_stopping = true;
    m_running = false;
    m_connection.cancel(std::exchange(m_retry, nullptr));
    m_connection.cancel(std::exchange(m_ticker, nullptr));
    closeStream();
    m_connection.setStateHandler({});
    m_connection.disconnect();
}

const QLoggingCategory &PulseCapture::category() const
{
    return m_source == CaptureSource::systemOutput ? lcGlobalTap() : lcMicRecorder();
}

std::optional<QString> PulseCapture::start(const OutputDevice *output)
{
    PulseConnection::Locker lock(m_connection);
    // The timeline starts when the recording was asked for, not when the server
    // first sends: the wait is filled with silence at the first block.
    m_timeline.start(Clock::now());
    if (const int error = m_connection.connect())
        return PulseConnection::errorText(error);
    m_connection.setStateHandler([this](pa_context_state_t state) { onContextState(state); });

    QByteArray device;
    if (m_source == CaptureSource::systemOutput) {
        std::variant<OutputDevice, AudioObjectError> read;
        if (output)
            read = *output;
        else
            read = m_connection.readDefaultOutput();
        if (auto *error = std::get_if<AudioObjectError>(&read))
            return error->message;
        const auto &sink = std::get<OutputDevice>(read);
        m_device = sink.name.toUtf8();
        device = sink.monitorSource.toUtf8();
    } else {
        auto read = m_connection.readDefaultSourceName();
        if (auto *error = std::get_if<AudioObjectError>(&read))
            return error->message;
        m_device = device = std::get<QByteArray>(read);
    }
    subscribe();
    if (!openStream(device))
        return m_connection.lastError();
    const bool settled = m_connection.wait([this] {
        const pa_stream_state_t state = pa_stream_get_state(m_stream);
        return state == PA_STREAM_READY || !PA_STREAM_IS_GOOD(state);
    });
    if (!settled || pa_stream_get_state(m_stream) != PA_STREAM_READY) {
        const QString error = m_connection.lastError();
        closeStream();
        m_connection.disconnect();
        return error;
    }
    m_running = true;
    tick();
    qCDebug(category()).noquote() << "Capturing from" << device;
    return std::nullopt;
}

void PulseCapture::setSuspended(bool suspended)
{
    PulseConnection::Locker lock(m_connection);
    if (suspended == m_timeline.isSuspended())
        return;
    if (suspended)
        m_timeline.suspend(Clock::now());
    else
        m_timeline.resume(Clock::now());
    if (m_stream && pa_stream_get_state(m_stream) == PA_STREAM_READY) {
        if (pa_operation *operation = pa_stream_cork(m_stream, suspended ? 1 : 0, nullptr, nullptr))
            pa_operation_unref(operation);
    }
}

Capture::Counters PulseCapture::counters() const
{
    return m_timeline.counters();
}

bool PulseCapture::openStream(const QByteArray &device)
{
    closeStream();
    pa_context *context = m_connection.context();
    if (!context)
        return false;
    const pa_sample_spec spec { formatOf(m_spec.sample), static_cast<uint32_t>(m_spec.rate),
        static_cast<uint8_t>(m_spec.channels) };
    const char *name = m_source == CaptureSource::systemOutput ? "System audio" : "Microphone";
    m_stream = pa_stream_new(context, name, &spec, nullptr);
    if (!m_stream)
        return false;
    pa_stream_set_state_callback(
        m_stream, [](pa_stream *, void *self) { static_cast<PulseCapture *>(self)->onStreamState(); }, this);
    pa_stream_set_read_callback(
        m_stream, [](pa_stream *, size_t, void *self) { static_cast<PulseCapture *>(self)->onRead(); }, this);

    const auto fragment
        = static_cast<uint32_t>(pa_usec_to_bytes(std::chrono::microseconds(blockDuration).count(), &spec));
    const pa_buffer_attr attributes { static_cast<uint32_t>(-1), static_cast<uint32_t>(-1),
        static_cast<uint32_t>(-1), static_cast<uint32_t>(-1), fragment };
    // Without adjusting the latency a monitor of an idle sink delivers in bursts of
    // up to two seconds. Both follow their default themselves (see the header).
    int flags = PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE;
    if (m_timeline.isSuspended())
        flags |= PA_STREAM_START_CORKED;
    if (pa_stream_connect_record(
            m_stream, device.constData(), &attributes, static_cast<pa_stream_flags_t>(flags))
        < 0) {
        closeStream();
        return false;
    }
    return true;
}

bool PulseCapture::streamIsGood() const
{
    return m_stream && PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream));
}

void PulseCapture::closeStream()
{
    if (!m_stream)
        return;
    pa_stream_set_state_callback(m_stream, nullptr, nullptr);
    pa_stream_set_read_callback(m_stream, nullptr, nullptr);
    pa_stream_disconnect(m_stream);
    pa_stream_unref(m_stream);
    m_stream = nullptr;
}

void PulseCapture::onStreamState()
{
    pa_threaded_mainloop_signal(m_connection.mainloop(), 0);
    if (!m_running || m_stopping || !m_stream)
        return;
    const pa_stream_state_t state = pa_stream_get_state(m_stream);
    if (state == PA_STREAM_READY) {
        const char *device = pa_stream_get_device_name(m_stream);
        qCInfo(category()) << "Capturing from" << (device ? device : "");
        return;
    }
    if (PA_STREAM_IS_GOOD(state) || !m_connection.isReady())
        return; // a lost server is handled by onContextState
    // With do-not-move the server kills the stream when its device goes away.
    qCWarning(category()) << "Capture stream ended:" << m_connection.lastError();
    reconnectIn(followDelay);
}

void PulseCapture::onContextState(pa_context_state_t state)
{
    if (!m_running || m_stopping)
        return;
    if (state == PA_CONTEXT_READY) {
        if (m_outage)
            qCInfo(category()) << "Reconnected to the sound server";
        m_outage = false;
        subscribe();
        reconnect();
    } else if (!PA_CONTEXT_IS_GOOD(state)) {
        if (!m_outage)
            qCWarning(category()) << "Sound server connection lost:" << m_connection.lastError();
        m_outage = true;
        reconnectIn(retryDelay);
    }
}

void PulseCapture::subscribe()
{
    pa_context *context = m_connection.context();
    pa_context_set_subscribe_callback(
        context,
        [](pa_context *, pa_subscription_event_type_t type, uint32_t, void *self) {
            if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER)
                static_cast<PulseCapture *>(self)->onServerChanged();
        },
        this);
    if (pa_operation *operation
        = pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr))
        pa_operation_unref(operation);
}

void PulseCapture::onServerChanged()
{
    auto onInfo = [](pa_context *, const pa_server_info *info, void *self) {
        auto *capture = static_cast<PulseCapture *>(self);
        if (!info || capture->m_stopping)
            return;
        const bool input = capture->m_source == CaptureSource::defaultInput;
        const QByteArray device(input ? info->default_source_name : info->default_sink_name);
        // None, or PipeWire's placeholder for none: the next server event names an
        // output; a missing input is also looked for again (loseDevice).
        const bool none = device.isEmpty() || device.startsWith('@');
        if (none && input)
            return capture->loseDevice();
        if (none || (device == capture->m_device && capture->streamIsGood()))
            return;
        // An input is named once it is known not to be a monitor (onSource).
        if (!input)
            qCInfo(capture->category()).noquote() << "Default output is now" << device << "- following it";
        capture->follow(device);
    };
    if (pa_operation *operation = pa_context_get_server_info(m_connection.context(), onInfo, this))
        pa_operation_unref(operation);
}

void PulseCapture::follow(const QByteArray &device)
{
    auto onSink = [](pa_context *, const pa_sink_info *info, int eol, void *self) {
        auto *capture = static_cast<PulseCapture *>(self);
        if (capture->m_stopping)
            return;
        if (eol < 0) {
            // Gone again before we got to it; the next attempt asks afresh.
            capture->reconnectIn(followDelay);
            return;
        }
        if (eol || !info)
            return;
        capture->m_device = info->name;
        if (!capture->openStream(info->monitor_source_name))
            capture->reconnectIn(retryDelay);
    };
    // A source that is gone (PipeWire names a placeholder when none is left) or an
    // output's monitor (PulseAudio's fallback) leaves the microphone without an input.
    auto onSource = [](pa_context *, const pa_source_info *info, int eol, void *self) {
        auto *capture = static_cast<PulseCapture *>(self);
        if (capture->m_stopping || eol > 0)
            return;
        if (eol < 0 || !info || info->monitor_of_sink != PA_INVALID_INDEX)
            return capture->loseDevice();
        if (capture->m_deviceMissing.exchange(false))
            qCInfo(capture->category()).noquote() << "Microphone back:" << info->name;
        else
            qCInfo(capture->category()).noquote() << "Default input is now" << info->name << "- following it";
        capture->m_device = info->name;
        if (!capture->openStream(info->name))
            capture->reconnectIn(retryDelay);
    };
    pa_context *context = m_connection.context();
    pa_operation *operation = m_source == CaptureSource::defaultInput
        ? pa_context_get_source_info_by_name(context, device.constData(), onSource, this)
        : pa_context_get_sink_info_by_name(context, device.constData(), onSink, this);
    if (operation)
        pa_operation_unref(operation);
}

void PulseCapture::loseDevice()
{
    // The stream goes: what the server would move it to is not the microphone. The
    // ticks fill the time with silence until a server event, or the next look, names an
    // input.
    closeStream();
    m_device.clear();
    if (!m_deviceMissing.exchange(true))
        qCWarning(category()) << "No microphone left; recording silence until one appears";
    reconnectIn(missingLookInterval, Afresh::yes);
}

void PulseCapture::lookForInput()
{
    if (m_stopping || streamIsGood())
        return; // an input came back by a server event
    if (!m_deviceMissing || !m_connection.isReady())
        return reconnect();
    // The look goes through a new connection, not this one: pipewire-pulse keeps its
    // picture of the devices per connection, and on a loaded machine this connection's
    // picture was seen to lack a new input for over a second, with no change event,
    // while a new connection already named it the default. Its READY state asks for
    // the default input (onContextState).
    closeStream();
    m_connection.connectAsync();
}

void PulseCapture::reconnectIn(std::chrono::milliseconds delay, Afresh afresh)
{
    if (m_retry || m_stopping)
        return;
    m_retry = m_connection.schedule(delay, [this, afresh] {
        m_retry = nullptr;
        if (afresh == Afresh::yes)
            lookForInput();
        else
            reconnect();
    });
}

void PulseCapture::reconnect()
{
    if (m_stopping || streamIsGood())
        return; // already replaced, e.g. by following a new default sink
    closeStream();
    if (!m_connection.isReady()) {
        pa_context *context = m_connection.context();
        const bool connecting = context && PA_CONTEXT_IS_GOOD(pa_context_get_state(context));
        if (!connecting)
            m_connection.connectAsync(); // its READY state brings us back here
        return;
    }
    m_device.clear();
    onServerChanged();
}

void PulseCapture::onRead()
{
    const int frameBytes = m_spec.bytesPerFrame();
    const Clock::time_point now = Clock::now();
    // A block with more queued behind it was heard before the present: a burst that
    // piled up while this thread waited is placed where it was heard.
    const size_t readable = m_stream ? pa_stream_readable_size(m_stream) : 0;
    qint64 queued = readable == static_cast<size_t>(-1) ? 0 : static_cast<qint64>(readable) / frameBytes;
    while (m_stream && pa_stream_readable_size(m_stream) > 0) {
        const void *data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(m_stream, &data, &bytes) < 0 || bytes == 0)
            return;
        const auto frames = static_cast<qint64>(bytes / static_cast<size_t>(frameBytes));
        queued = std::max<qint64>(queued - frames, 0);
        // A null pointer is a hole in the stream: silence.
        m_timeline.place(data, frames, now - std::chrono::microseconds(queued * 1000000 / m_spec.rate));
        pa_stream_drop(m_stream);
    }
}

void PulseCapture::tick()
{
    m_ticker = m_connection.schedule(tickInterval, [this] {
        m_ticker = nullptr;
        if (m_stopping)
            return;
        m_timeline.tick(Clock::now());
        tick();
    });
}

void PulseCapture::setOrigin(std::chrono::steady_clock::time_point origin)
{
    PulseConnection::Locker lock(m_connection);
    m_timeline.setOrigin(origin);
}

void PulseCapture::catchUp()
{
    PulseConnection::Locker lock(m_connection);
    if (!m_running)
        return;
    // Ends the timeline at the present; what is still on its way comes too late.
    m_timeline.finish(Clock::now());
    flush();
}

void PulseCapture::deliver(const void *data, qint64 frames)
{
    // A sink playing at a call's latency hands its monitor blocks of a few
    // milliseconds; gathering them into fragments spares the writer most wake-ups.
    if (data) {
        const auto *bytes = static_cast<const char *>(data);
        m_gathered.insert(m_gathered.end(), bytes, bytes + frames * m_spec.bytesPerFrame());
        if (static_cast<qint64>(m_gathered.size())
            < m_spec.rate * blockDuration.count() / 1000 * m_spec.bytesPerFrame())
            return;
    }
    flush();
    if (!data)
        m_onBlock(nullptr, frames);
}

void PulseCapture::flush()
{
    if (m_gathered.empty())
        return;
    m_onBlock(m_gathered.data(), static_cast<qint64>(m_gathered.size()) / m_spec.bytesPerFrame());
    m_gathered.clear();
}
