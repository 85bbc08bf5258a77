#include "audio/pulse/PulseStreamWatch.h"

#include "common/Logging.h"

#include <QCoreApplication>

#include <algorithm>

using namespace std::chrono_literals;

namespace {

constexpr auto retryDelay = 1000ms;

QString property(const pa_proplist *properties, const char *key)
{
    const char *value = properties ? pa_proplist_gets(properties, key) : nullptr;
    return value ? QString::fromUtf8(value) : QString();
}

ClientStream streamOf(
    ClientStream::Kind kind, quint32 index, const pa_proplist *properties, quint32 device, bool corked)
{
    ClientStream stream;
    stream.kind = kind;
    stream.index = index;
    stream.applicationName = property(properties, PA_PROP_APPLICATION_NAME);
    stream.binary = property(properties, PA_PROP_APPLICATION_PROCESS_BINARY);
    stream.processId = property(properties, PA_PROP_APPLICATION_PROCESS_ID).toUInt();
    stream.device = device;
    stream.corked = corked;
    stream.ours = stream.processId != 0 && stream.processId == QCoreApplication::applicationPid();
    return stream;
}

} // namespace

PulseStreamWatch::PulseStreamWatch(QByteArray server, QObject *parent)
    : StreamWatch(parent)
    , m_connection(std::make_unique<PulseConnection>(std::move(server)))
{
    PulseConnection::Locker lock(*m_connection);
    m_connection->setStateHandler([this](pa_context_state_t state) { onContextState(state); });
    m_connection->connectAsync();
}

PulseStreamWatch::~PulseStreamWatch()
{
    // Under the lock nothing more is posted; what was posted already dies with the
    // QObject (its posted events are removed).
    PulseConnection::Locker lock(*m_connection);
    m_stopping = true;
    m_connection->cancel(std::exchange(m_retry, nullptr));
    m_connection->setStateHandler({});
    m_connection->disconnect();
}

void PulseStreamWatch::onContextState(pa_context_state_t state)
{
    if (m_stopping)
        return;
    if (state == PA_CONTEXT_READY) {
        pa_context *context = m_connection->context();
        pa_context_set_subscribe_callback(
            context,
            [](pa_context *, pa_subscription_event_type_t, uint32_t, void *self) {
                static_cast<PulseStreamWatch *>(self)->read();
            },
            this);
        const auto mask = static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SINK_INPUT
            | PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT | PA_SUBSCRIPTION_MASK_SOURCE);
        if (pa_operation *operation = pa_context_subscribe(context, mask, nullptr, nullptr))
            pa_operation_unref(operation);
        read();
    } else if (!PA_CONTEXT_IS_GOOD(state) && !m_retry) {
        m_readsPending = 0;
        m_stale = false;
        publish({});
        m_retry = m_connection->schedule(retryDelay, [this] {
            m_retry = nullptr;
            if (!m_stopping)
                m_connection->connectAsync();
        });
    }
}

void PulseStreamWatch::read()
{
    if (m_readsPending > 0) {
        m_stale = true;
        return;
    }
    pa_context *context = m_connection->context();
    m_reading.clear();
    m_monitors.clear();
    m_stale = false;

    auto onSinkInput = [](pa_context *, const pa_sink_input_info *info, int eol, void *self) {
        auto *watch = static_cast<PulseStreamWatch *>(self);
        if (eol != 0 || !info) {
            watch->readDone();
            return;
        }
        watch->m_reading.append(streamOf(
            ClientStream::Kind::playback, info->index, info->proplist, info->sink, info->corked != 0));
    };
    auto onSourceOutput = [](pa_context *, const pa_source_output_info *info, int eol, void *self) {
        auto *watch = static_cast<PulseStreamWatch *>(self);
        if (eol != 0 || !info) {
            watch->readDone();
            return;
        }
        ClientStream stream = streamOf(
            ClientStream::Kind::capture, info->index, info->proplist, info->source, info->corked != 0);
        // A level meter (pavucontrol, GNOME's sound settings) asks for peak detection
        // at 25 Hz: PulseAudio names its resampler "peaks"; pipewire-pulse reports no
        // such resampler, so there the 25 Hz rate is what tells it.
        const QByteArray resampler = info->resample_method ? QByteArray(info->resample_method) : QByteArray();
        stream.peakMeter = resampler == "peaks" || info->sample_spec.rate == 25;
        watch->m_reading.append(stream);
    };
    auto onSource = [](pa_context *, const pa_source_info *info, int eol, void *self) {
        auto *watch = static_cast<PulseStreamWatch *>(self);
        if (eol != 0 || !info) {
            watch->readDone();
            return;
        }
        if (info->monitor_of_sink != PA_INVALID_INDEX)
            watch->m_monitors.insert(info->index);
    };
    pa_operation *operations[] = {
        pa_context_get_sink_input_info_list(context, onSinkInput, this),
        pa_context_get_source_output_info_list(context, onSourceOutput, this),
        pa_context_get_source_info_list(context, onSource, this),
    };
    for (pa_operation *operation : operations) {
        if (operation) {
            ++m_readsPending;
            pa_operation_unref(operation);
        }
    }
}

void PulseStreamWatch::readDone()
{
    if (--m_readsPending > 0 || m_stopping)
        return;
    if (m_stale) {
        read();
        return;
    }
    QList<ClientStream> streams = std::move(m_reading);
    for (ClientStream &stream : streams)
        stream.fromMonitor = stream.kind == ClientStream::Kind::capture && m_monitors.contains(stream.device);
    std::sort(streams.begin(), streams.end(), [](const ClientStream &a, const ClientStream &b) {
        return std::pair(a.kind, a.index) < std::pair(b.kind, b.index);
    });
    publish(std::move(streams));
}

void PulseStreamWatch::publish(QList<ClientStream> streams)
{
    QMetaObject::invokeMethod(
        this,
        [this, streams = std::move(streams)] {
            if (streams == m_streams)
                return;
            m_streams = streams;
            emit changed();
        },
        Qt::QueuedConnection);
}
