#include "audio/pulse/PulseApplicationCapture.h"

#include "common/Logging.h"

#include <QCoreApplication>

#include <algorithm>

using namespace std::chrono_literals;

namespace {

// The base track is silence from start to stop by design: its gap lines are no news.
Q_LOGGING_CATEGORY(lcClockTrack, "app.selvaro.recorder.ApplicationTap.clock", QtWarningMsg)

constexpr auto retryDelay = 1000ms;
constexpr auto tickInterval = 50ms;
// A restricted capture that ended (its stream moved, on PulseAudio) is looked at again
// this soon: the move's own event usually comes first.
constexpr auto lookAgainDelay = 100ms;

QString property(const pa_proplist *properties, const char *key)
{
    const char *value = pa_proplist_gets(properties, key);
    return value ? QString::fromUtf8(value) : QString();
}

} // namespace

PulseApplicationCapture::PulseApplicationCapture(
    QByteArray server, QString binary, const SampleSpec &spec, SoundServer::BlockHandler onBlock)
    : m_connection(std::move(server))
    , m_binary(std::move(binary))
    , m_spec(spec)
    , m_onBlock(std::move(onBlock))
    , m_sum(spec.rate, spec.channels, [this](const float *data, qint64 frames) { m_onBlock(data, frames); })
    , m_base(spec.rate, spec.bytesPerFrame(), lcClockTrack(),
          [this](const void *, qint64 frames) { m_sum.place(TrackSum::base, nullptr, frames); })
{ }

PulseApplicationCapture::~PulseApplicationCapture()
{
    PulseConnection::Locker lock(m_connection);
    m_stopping = true;
    m_running = false;
    m_connection.cancel(std::exchange(m_retry, nullptr));
    m_connection.cancel(std::exchange(m_ticker, nullptr));
    m_connection.cancel(std::exchange(m_lookAgain, nullptr));
    for (auto &[index, tap] : m_taps)
        close(tap);
    m_connection.setStateHandler({});
    m_connection.disconnect();
}

std::optional<QString> PulseApplicationCapture::start()
{
    PulseConnection::Locker lock(m_connection);
    m_start = Clock::now();
    m_base.start(m_start);
    if (const int error = m_connection.connect())
        return PulseConnection::errorText(error);
    m_connection.setStateHandler([this](pa_context_state_t state) { onContextState(state); });
    m_running = true;
    onContextState(PA_CONTEXT_READY);
    tick();
    qCInfo(lcApplicationTap).noquote() << "Capturing what" << m_binary << "plays";
    return std::nullopt;
}

void PulseApplicationCapture::onContextState(pa_context_state_t state)
{
    if (!m_running || m_stopping)
        return;
    if (state == PA_CONTEXT_READY) {
        pa_context *context = m_connection.context();
        pa_context_set_subscribe_callback(
            context,
            [](pa_context *, pa_subscription_event_type_t, uint32_t, void *self) {
                static_cast<PulseApplicationCapture *>(self)->read();
            },
            this);
        const auto mask = static_cast<pa_subscription_mask_t>(
            PA_SUBSCRIPTION_MASK_SINK_INPUT | PA_SUBSCRIPTION_MASK_SINK);
        if (pa_operation *operation = pa_context_subscribe(context, mask, nullptr, nullptr))
            pa_operation_unref(operation);
        m_readsPending = 0;
        read();
    } else if (!PA_CONTEXT_IS_GOOD(state) && !m_retry) {
        qCWarning(lcApplicationTap) << "Sound server connection lost:" << m_connection.lastError();
        // The streams died with the connection; their tracks wait for the next read.
        for (auto &[index, tap] : m_taps)
            close(tap);
        m_retry = m_connection.schedule(retryDelay, [this] {
            m_retry = nullptr;
            if (!m_stopping)
                m_connection.connectAsync();
        });
    }
}

void PulseApplicationCapture::read()
{
    if (m_readsPending > 0) {
        m_stale = true;
        return;
    }
    if (!m_connection.isReady())
        return;
    m_stale = false;
    m_found.clear();
    m_monitors.clear();
    auto onSinkInput = [](pa_context *, const pa_sink_input_info *info, int eol, void *userdata) {
        auto *self = static_cast<PulseApplicationCapture *>(userdata);
        if (eol != 0 || !info)
            return self->readDone();
        const bool ours = property(info->proplist, PA_PROP_APPLICATION_PROCESS_ID).toLongLong()
            == QCoreApplication::applicationPid();
        if (!ours && property(info->proplist, PA_PROP_APPLICATION_PROCESS_BINARY) == self->m_binary)
            self->m_found.push_back({ info->index, info->sink });
    };
    auto onSink = [](pa_context *, const pa_sink_info *info, int eol, void *userdata) {
        auto *self = static_cast<PulseApplicationCapture *>(userdata);
        if (eol != 0 || !info)
            return self->readDone();
        if (info->monitor_source_name)
            self->m_monitors[info->index] = info->monitor_source_name;
    };
    pa_context *context = m_connection.context();
    for (pa_operation *operation : { pa_context_get_sink_input_info_list(context, onSinkInput, this),
             pa_context_get_sink_info_list(context, onSink, this) }) {
        if (operation) {
            ++m_readsPending;
            pa_operation_unref(operation);
        }
    }
}

void PulseApplicationCapture::readDone()
{
    if (--m_readsPending > 0 || m_stopping)
        return;
    if (m_stale)
        read();
    else
        follow(m_found);
}

void PulseApplicationCapture::follow(const std::vector<PlaybackStream> &streams)
{
    const QString binary = m_binary;
    for (auto it = m_taps.begin(); it != m_taps.end();) {
        const bool alive = std::ranges::any_of(
            streams, [&it](const PlaybackStream &stream) { return stream.index == it->first; });
        if (alive) {
            ++it;
            continue;
        }
        Tap &tap = it->second;
        qCInfo(lcApplicationTap).noquote() << "Lost stream" << tap.sinkInput << "of" << binary;
        close(tap);
        tap.timeline->finish(Clock::now());
        m_endedReceived += tap.timeline->counters().framesReceived;
        m_endedAbsorbed += tap.timeline->counters().framesAbsorbed;
        m_sum.end(tap.track);
        it = m_taps.erase(it);
    }
    for (const PlaybackStream &stream : streams) {
        auto [it, added] = m_taps.try_emplace(stream.index);
        Tap &tap = it->second;
        if (added) {
            tap.sinkInput = stream.index;
            tap.sink = stream.sink;
            tap.track = m_sum.add();
            tap.timeline = timeline(tap.track);
            qCInfo(lcApplicationTap).noquote() << "Picked up stream" << stream.index << "of" << binary;
        } else if (tap.sink != stream.sink) {
            tap.sink = stream.sink;
            qCInfo(lcApplicationTap).noquote()
                << "Stream" << stream.index << "of" << binary << "moved to output" << stream.sink;
            close(tap);
        }
        if (!tap.stream || !PA_STREAM_IS_GOOD(pa_stream_get_state(tap.stream)))
            open(tap);
    }
}

std::unique_ptr<CaptureTimeline> PulseApplicationCapture::timeline(int track)
{
    auto made = std::make_unique<CaptureTimeline>(m_spec.rate, m_spec.bytesPerFrame(), lcApplicationTap(),
        [this, track](const void *data, qint64 frames) {
            m_sum.place(track, static_cast<const float *>(data), frames);
        });
    made->start(m_start);
    if (m_origin)
        made->setOrigin(*m_origin);
    for (const auto &[from, to] : m_suspensions) {
        made->suspend(from);
        made->resume(to);
    }
    if (m_base.isSuspended())
        made->suspend(m_suspendedAt);
    return made;
}

void PulseApplicationCapture::open(Tap &tap)
{
    close(tap);
    pa_context *context = m_connection.context();
    const auto monitor = m_monitors.find(tap.sink);
    if (!context || monitor == m_monitors.end())
        return;
    const pa_sample_spec spec { PA_SAMPLE_FLOAT32NE, static_cast<uint32_t>(m_spec.rate),
        static_cast<uint8_t>(m_spec.channels) };
    const QByteArray name = "Application audio (" + m_binary.toUtf8() + ')';
    tap.stream = pa_stream_new(context, name.constData(), &spec, nullptr);
    if (!tap.stream)
        return;
    pa_stream_set_monitor_stream(tap.stream, tap.sinkInput);
    pa_stream_set_state_callback(
        tap.stream,
        [](pa_stream *stream, void *self) {
            auto *capture = static_cast<PulseApplicationCapture *>(self);
            if (PA_STREAM_IS_GOOD(pa_stream_get_state(stream)) || capture->m_lookAgain)
                return;
            capture->m_lookAgain = capture->m_connection.schedule(lookAgainDelay, [capture] {
                capture->m_lookAgain = nullptr;
                capture->read();
            });
        },
        this);
    // A tap stays where it is in the map until it is closed, which clears this.
    tap.owner = this;
    pa_stream_set_read_callback(
        tap.stream,
        [](pa_stream *, size_t, void *userdata) {
            auto *tap = static_cast<Tap *>(userdata);
            tap->owner->onRead(*tap);
        },
        &tap);
    const auto fragment = static_cast<uint32_t>(
        pa_usec_to_bytes(std::chrono::microseconds(CaptureTimeline::blockDuration).count(), &spec));
    const pa_buffer_attr attributes { static_cast<uint32_t>(-1), static_cast<uint32_t>(-1),
        static_cast<uint32_t>(-1), static_cast<uint32_t>(-1), fragment };
    int flags = PA_STREAM_ADJUST_LATENCY | PA_STREAM_DONT_MOVE;
    if (m_base.isSuspended())
        flags |= PA_STREAM_START_CORKED;
    if (pa_stream_connect_record(
            tap.stream, monitor->second.constData(), &attributes, static_cast<pa_stream_flags_t>(flags))
        < 0)
        close(tap);
}

void PulseApplicationCapture::close(Tap &tap)
{
    if (!tap.stream)
        return;
    pa_stream_set_state_callback(tap.stream, nullptr, nullptr);
    pa_stream_set_read_callback(tap.stream, nullptr, nullptr);
    pa_stream_disconnect(tap.stream);
    pa_stream_unref(tap.stream);
    tap.stream = nullptr;
}

void PulseApplicationCapture::onRead(Tap &tap)
{
    const int frameBytes = m_spec.bytesPerFrame();
    const Clock::time_point now = Clock::now();
    // As PulseCapture: a block with more queued behind it was heard that much earlier.
    const size_t readable = pa_stream_readable_size(tap.stream);
    qint64 queued = readable == static_cast<size_t>(-1) ? 0 : static_cast<qint64>(readable) / frameBytes;
    while (tap.stream && pa_stream_readable_size(tap.stream) > 0) {
        const void *data = nullptr;
        size_t bytes = 0;
        if (pa_stream_peek(tap.stream, &data, &bytes) < 0 || bytes == 0)
            return;
        const auto frames = static_cast<qint64>(bytes / static_cast<size_t>(frameBytes));
        queued = std::max<qint64>(queued - frames, 0);
        tap.timeline->place(data, frames, now - std::chrono::microseconds(queued * 1000000 / m_spec.rate));
        pa_stream_drop(tap.stream);
    }
}

void PulseApplicationCapture::tick()
{
    m_ticker = m_connection.schedule(tickInterval, [this] {
        m_ticker = nullptr;
        if (m_stopping)
            return;
        const Clock::time_point now = Clock::now();
        m_base.tick(now);
        for (auto &[index, tap] : m_taps)
            tap.timeline->tick(now);
        m_sum.flush();
        quint64 received = m_endedReceived, absorbed = m_endedAbsorbed;
        for (const auto &[index, tap] : m_taps) {
            received += tap.timeline->counters().framesReceived;
            absorbed += tap.timeline->counters().framesAbsorbed;
        }
        m_framesReceived = received;
        m_framesAbsorbed = absorbed;
        tick();
    });
}

void PulseApplicationCapture::setSuspended(bool suspended)
{
    PulseConnection::Locker lock(m_connection);
    if (suspended == m_base.isSuspended())
        return;
    const Clock::time_point now = Clock::now();
    if (suspended) {
        m_suspendedAt = now;
        m_base.suspend(now);
    } else {
        m_suspensions.emplace_back(m_suspendedAt, now);
        m_base.resume(now);
    }
    for (auto &[index, tap] : m_taps) {
        if (suspended)
            tap.timeline->suspend(now);
        else
            tap.timeline->resume(now);
        if (tap.stream && pa_stream_get_state(tap.stream) == PA_STREAM_READY) {
            if (pa_operation *operation = pa_stream_cork(tap.stream, suspended ? 1 : 0, nullptr, nullptr))
                pa_operation_unref(operation);
        }
    }
}

void PulseApplicationCapture::setOrigin(std::chrono::steady_clock::time_point origin)
{
    PulseConnection::Locker lock(m_connection);
    m_origin = origin;
    m_base.setOrigin(origin);
    for (auto &[index, tap] : m_taps)
        tap.timeline->setOrigin(origin);
}

void PulseApplicationCapture::catchUp()
{
    PulseConnection::Locker lock(m_connection);
    if (!m_running)
        return;
    const Clock::time_point now = Clock::now();
    m_base.finish(now);
    for (auto &[index, tap] : m_taps)
        tap.timeline->finish(now);
    m_sum.flush();
}

Capture::Counters PulseApplicationCapture::counters() const
{
    // The base track is the recording's clock: its silence is what was delivered; what
    // the program's streams sent is counted in, as of the last tick.
    Counters counters = m_base.counters();
    counters.framesReceived = m_framesReceived.load();
    counters.framesAbsorbed = m_framesAbsorbed.load();
    return counters;
}
