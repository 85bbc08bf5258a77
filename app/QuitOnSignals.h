#pragma once

#include <QObject>

class QSocketNotifier;

// Turns SIGTERM, SIGINT and SIGHUP (a logout, `kill`, Ctrl+C, a closed terminal) into
// a quit of the event loop, so that the application ends as on "Quit": main() returns,
// the models are destroyed and a running recording's files are closed and kept for
// the next start. The handler only writes a byte to a socket pair; the main thread
// reads it through a QSocketNotifier. One per process (the handler's socket is the
// process's); the signals keep this handler after it is destroyed and then do nothing.
class QuitOnSignals : public QObject
{
    Q_OBJECT

public:
    explicit QuitOnSignals(QObject *parent = nullptr);
    ~QuitOnSignals() override;

private:
    QSocketNotifier *m_notifier = nullptr;
};
