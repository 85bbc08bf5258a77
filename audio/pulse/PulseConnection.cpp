#include "audio/pulse/PulseConnection.h"

namespace {

struct Deadline
{
    pa_threaded_mainloop *mainloop;
    bool passed = false;
};

void onDeadline(pa_mainloop_api *, pa_time_event *, const struct timeval *, void *userdata)
{
    auto *deadline = static_cast<Deadline *>(userdata);
    deadline->passed = true;
    pa_threaded_mainloop_signal(deadline->mainloop, 0);
}

timeval after(std::chrono::milliseconds delay)
{
    timeval when {};
    pa_gettimeofday(&when);
    pa_timeval_add(&when, static_cast<pa_usec_t>(delay.count()) * PA_USEC_PER_MSEC);
    return when;
}

using Scheduled = std::function<void()>;

void onScheduled(pa_mainloop_api *api, pa_time_event *event, const struct timeval *, void *userdata)
{
    // Copied out first: freeing the event destroys the stored callback.
    Scheduled callback = *static_cast<Scheduled *>(userdata);
    api->time_free(event);
    callback();
}

void onScheduledFreed(pa_mainloop_api *, pa_time_event *, void *userdata)
{
    delete static_cast<Scheduled *>(userdata);
}

} // namespace

PulseConnection::PulseConnection(QByteArray server)
    : m_server(std::move(server))
    , m_mainloop(pa_threaded_mainloop_new())
{
    pa_threaded_mainloop_set_name(m_mainloop, "pulse");
    pa_threaded_mainloop_start(m_mainloop);
}

PulseConnection::~PulseConnection()
{
    {
        Locker lock(*this);
        disconnect();
    }
    pa_threaded_mainloop_stop(m_mainloop);
    pa_threaded_mainloop_free(m_mainloop);
}

PulseConnection::Locker::Locker(PulseConnection &connection)
    : m_mainloop(connection.m_mainloop)
{
    pa_threaded_mainloop_lock(m_mainloop);
}

PulseConnection::Locker::~Locker()
{
    pa_threaded_mainloop_unlock(m_mainloop);
}

pa_mainloop_api *PulseConnection::api() const
{
    return pa_threaded_mainloop_get_api(m_mainloop);
}

bool PulseConnection::isReady() const
{
    return m_context && pa_context_get_state(m_context) == PA_CONTEXT_READY;
}

void PulseConnection::onState(pa_context *context, void *self)
{
    auto *connection = static_cast<PulseConnection *>(self);
    if (context != connection->m_context)
        return;
    pa_threaded_mainloop_signal(connection->m_mainloop, 0);
    if (connection->m_stateHandler)
        connection->m_stateHandler(pa_context_get_state(context));
}

void PulseConnection::connectAsync()
{
    disconnect();
    pa_proplist *properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, "Selvaro Recorder");
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "app.selvaro.recorder");
    m_context = pa_context_new_with_proplist(api(), "Selvaro Recorder", properties);
    pa_proplist_free(properties);
    pa_context_set_state_callback(m_context, &PulseConnection::onState, this);
    // Never autospawn: starting a sound server is the desktop's business, not ours.
    if (pa_context_connect(
            m_context, m_server.isEmpty() ? nullptr : m_server.constData(), PA_CONTEXT_NOAUTOSPAWN, nullptr)
        < 0) {
        // The state callback has already reported FAILED; keep the context so that
        // lastError() can say why until the next attempt replaces it.
        pa_threaded_mainloop_signal(m_mainloop, 0);
    }
}

int PulseConnection::connect()
{
    if (isReady())
        return 0;
    connectAsync();
    auto settled = [this] {
        const pa_context_state_t state = pa_context_get_state(m_context);
        return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
    };
    if (!wait(settled)) {
        disconnect();
        return PA_ERR_TIMEOUT;
    }
    if (pa_context_get_state(m_context) == PA_CONTEXT_READY)
        return 0;
    const int error = pa_context_errno(m_context);
    return error ? error : PA_ERR_CONNECTIONREFUSED;
}

void PulseConnection::disconnect()
{
    if (!m_context)
        return;
    pa_context_set_state_callback(m_context, nullptr, nullptr);
    pa_context_set_subscribe_callback(m_context, nullptr, nullptr);
    pa_context_disconnect(m_context);
    pa_context_unref(m_context);
    m_context = nullptr;
}

bool PulseConnection::wait(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    Deadline deadline { m_mainloop };
    const timeval when = after(timeout);
    pa_time_event *event = api()->time_new(api(), &when, &onDeadline, &deadline);
    while (!done() && !deadline.passed)
        pa_threaded_mainloop_wait(m_mainloop);
    api()->time_free(event);
    return done();
}

bool PulseConnection::waitFor(pa_operation *operation, std::chrono::milliseconds timeout)
{
    if (!operation)
        return false;
    pa_operation_set_state_callback(
        operation,
        [](pa_operation *, void *mainloop) {
            pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop *>(mainloop), 0);
        },
        m_mainloop);
    const bool finished
        = wait([operation] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; }, timeout);
    const bool done = finished && pa_operation_get_state(operation) == PA_OPERATION_DONE;
    if (!finished)
        pa_operation_cancel(operation);
    pa_operation_unref(operation);
    return done;
}

namespace {

struct ServerNames
{
    QByteArray sink;
    QByteArray source;
};

struct SinkReply
{
    bool found = false;
    OutputDevice device;
};

SampleSpec sampleSpecOf(const pa_sample_spec &spec)
{
    // The sink's own sample type does not matter to us: captures ask for float32.
    return { spec.format == PA_SAMPLE_S16LE ? SampleSpec::Sample::int16 : SampleSpec::Sample::float32,
        static_cast<int>(spec.rate), spec.channels };
}

AudioObjectError readError(const QString &what, const QString &status)
{
    return { QStringLiteral("Error reading data for ") + what + QStringLiteral(": ") + status };
}

} // namespace

std::variant<QByteArray, AudioObjectError> PulseConnection::readDefaultName(bool sink)
{
    const QString what = sink ? QStringLiteral("default sink") : QStringLiteral("default source");
    if (const int error = connect())
        return readError(what, errorText(error));
    ServerNames names;
    auto onServer = [](pa_context *, const pa_server_info *info, void *userdata) {
        auto *names = static_cast<ServerNames *>(userdata);
        if (info && info->default_sink_name)
            names->sink = info->default_sink_name;
        if (info && info->default_source_name)
            names->source = info->default_source_name;
    };
    if (!waitFor(pa_context_get_server_info(m_context, onServer, &names)))
        return readError(what, lastError());
    const QByteArray name = sink ? names.sink : names.source;
    // PipeWire's pulse server names its placeholder ("@DEFAULT_SINK@") when there is none.
    if (name.isEmpty() || name.startsWith('@'))
        return readError(what, errorText(PA_ERR_NOENTITY));
    return name;
}

std::variant<OutputDevice, AudioObjectError> PulseConnection::readDefaultOutput()
{
    auto name = readDefaultName(true);
    if (auto *error = std::get_if<AudioObjectError>(&name))
        return *error;
    const QByteArray sink = std::get<QByteArray>(name);

    SinkReply reply;
    auto onSink = [](pa_context *, const pa_sink_info *info, int eol, void *userdata) {
        auto *reply = static_cast<SinkReply *>(userdata);
        if (eol || !info)
            return;
        reply->found = true;
        reply->device.name = QString::fromUtf8(info->name);
        reply->device.spec = sampleSpecOf(info->sample_spec);
        reply->device.monitorSource = QString::fromUtf8(info->monitor_source_name);
    };
    const QString what = QStringLiteral("sink ") + QString::fromUtf8(sink);
    if (!waitFor(pa_context_get_sink_info_by_name(m_context, sink.constData(), onSink, &reply)))
        return readError(what, lastError());
    if (!reply.found)
        return readError(what, errorText(PA_ERR_NOENTITY));
    return reply.device;
}

std::variant<QByteArray, AudioObjectError> PulseConnection::readDefaultSourceName()
{
    return readDefaultName(false);
}

QString PulseConnection::lastError() const
{
    if (isReady() && pa_context_errno(m_context) == PA_OK)
        return errorText(PA_ERR_TIMEOUT); // the server is there but did not answer in time
    return errorText(m_context ? pa_context_errno(m_context) : PA_ERR_CONNECTIONREFUSED);
}

QString PulseConnection::errorText(int error)
{
    return QString::fromUtf8(pa_strerror(error));
}

pa_time_event *PulseConnection::schedule(std::chrono::milliseconds delay, std::function<void()> callback)
{
    const timeval when = after(delay);
    auto *stored = new Scheduled(std::move(callback));
    pa_time_event *event = api()->time_new(api(), &when, &onScheduled, stored);
    api()->time_set_destroy(event, &onScheduledFreed);
    return event;
}

void PulseConnection::cancel(pa_time_event *event)
{
    if (event)
        api()->time_free(event);
}
