#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QtGlobal>

// One stream a client of the sound server has open: a program playing (a
// playback stream into an output) or recording (a capture stream from an input or
// a monitor). What the server says of it, nothing read from its audio.
struct ClientStream
{
    enum class Kind { playback, capture };

    Kind kind = Kind::playback;
    quint32 index = 0; // the server's own number for the stream, stable while it lives
    QString applicationName; // as the program names itself; may be empty
    QString binary; // the program's executable name; may be empty
    quint32 processId = 0; // 0 when the server does not know it
    quint32 device = 0; // the output played into, or the source recorded from
    bool fromMonitor = false; // a capture of an output's monitor, not of an input
    bool peakMeter = false; // a capture that only reads levels (a volume meter)
    bool ours = false; // opened by this process
    bool corked = false; // paused by its program: open but not flowing

    bool operator==(const ClientStream &) const = default;

    // The name to show: the application name, else the binary.
    [[nodiscard]] QString displayName() const { return applicationName.isEmpty() ? binary : applicationName; }
};

// The client streams of the sound server, kept up to date from the server's own
// events (no polling). Lives on the thread that created it; `changed` is emitted
// there, after `streams()` already answers the new list.
class StreamWatch : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    [[nodiscard]] virtual QList<ClientStream> streams() const = 0;

signals:
    void changed();
};
