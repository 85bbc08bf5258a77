#pragma once

#include "audio/SoundServer.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <functional>

#include <pulse/pulseaudio.h>

// One libpulse threaded mainloop and the context on it. The mainloop thread runs
// for the life of this object; the context is replaced whenever it fails, because
// a failed libpulse context cannot be reused.
//
// Thread contract: every member except the constructor and destructor is called
// with the lock held (Locker), either from any thread or from inside a libpulse
// callback, which already runs locked on the mainloop thread. The blocking members
// (connect, wait, the reads) must never be called from a callback.
class PulseConnection
{
public:
    static constexpr std::chrono::milliseconds serverTimeout { 2000 };

    // `server` is a libpulse server string; empty means libpulse's default
    // (PULSE_SERVER, then the user's runtime folder).
    explicit PulseConnection(QByteArray server = {});
    ~PulseConnection();
    PulseConnection(const PulseConnection &) = delete;
    PulseConnection &operator=(const PulseConnection &) = delete;

    class Locker
    {
    public:
        explicit Locker(PulseConnection &connection);
        ~Locker();
        Locker(const Locker &) = delete;
        Locker &operator=(const Locker &) = delete;

    private:
        pa_threaded_mainloop *m_mainloop;
    };

    [[nodiscard]] pa_threaded_mainloop *mainloop() const { return m_mainloop; }
    [[nodiscard]] pa_mainloop_api *api() const;
    // The current context, or null when none is connected or connecting.
    [[nodiscard]] pa_context *context() const { return m_context; }
    [[nodiscard]] bool isReady() const;

    // Called on the mainloop thread whenever the context's state changes.
    void setStateHandler(std::function<void(pa_context_state_t)> handler)
    {
        m_stateHandler = std::move(handler);
    }

    // Starts connecting a fresh context (dropping a failed one); does not wait.
    void connectAsync();
    // Connects if not ready, waiting up to serverTimeout. Returns 0 or a PA_ERR_* code.
    int connect();
    // Drops the context (disconnecting it); its callbacks are cleared first.
    void disconnect();

    // Waits until `done()` answers true or `timeout` passes; false on timeout.
    bool wait(const std::function<bool()> &done, std::chrono::milliseconds timeout = serverTimeout);
    // Waits for an operation and drops it; false when it did not finish in time
    // (it is then cancelled, so its callback never runs).
    bool waitFor(pa_operation *operation, std::chrono::milliseconds timeout = serverTimeout);

    // Blocking reads, connecting first when needed. Errors read "Error reading data
    // for <what>: <server status>".
    [[nodiscard]] std::variant<OutputDevice, AudioObjectError> readDefaultOutput();
    [[nodiscard]] std::variant<QByteArray, AudioObjectError> readDefaultSourceName();

    // The context's last error as the server's status text.
    [[nodiscard]] QString lastError() const;
    [[nodiscard]] static QString errorText(int error);

    // Calls `callback` once after `delay` on the mainloop thread.
    pa_time_event *schedule(std::chrono::milliseconds delay, std::function<void()> callback);
    void cancel(pa_time_event *event);

private:
    [[nodiscard]] std::variant<QByteArray, AudioObjectError> readDefaultName(bool sink);
    static void onState(pa_context *context, void *self);

    QByteArray m_server;
    pa_threaded_mainloop *m_mainloop = nullptr;
    pa_context *m_context = nullptr;
    std::function<void(pa_context_state_t)> m_stateHandler;
};
