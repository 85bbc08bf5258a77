#pragma once

#include "audio/StreamWatch.h"
#include "audio/pulse/PulseConnection.h"

#include <QSet>

#include <memory>

// The server's sink-inputs (playback) and source-outputs (capture), kept from its
// subscription events over a connection of its own: every event re-reads the lists
// whole (a burst of events costs one read more, never one per event), and a lost
// server empties the list and is connected to again every second.
//
// Thread contract: constructed, used and destroyed on the owner's thread; the reads run
// on the connection's mainloop thread, whose finished list is posted to the owner's
// thread, where streams() changes and changed() is emitted (only on a real change).
class PulseStreamWatch final : public StreamWatch
{
public:
    explicit PulseStreamWatch(QByteArray server = {}, QObject *parent = nullptr);
    ~PulseStreamWatch() override;

    [[nodiscard]] QList<ClientStream> streams() const override { return m_streams; }

private:
    // Mainloop thread.
    void onContextState(pa_context_state_t state);
    void read();
    void readDone();
    void publish(QList<ClientStream> streams);

    QList<ClientStream> m_streams; // owner's thread

    std::unique_ptr<PulseConnection> m_connection;
    // Mainloop thread (or the owner with the lock held).
    bool m_stopping = false;
    bool m_stale = false; // an event came while a read was under way
    int m_readsPending = 0;
    QList<ClientStream> m_reading;
    QSet<quint32> m_monitors; // sources that are an output's monitor
    pa_time_event *m_retry = nullptr;
};
