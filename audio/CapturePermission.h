#pragma once

#include "audio/SoundServer.h"

#include <QLoggingCategory>
#include <QObject>
#include <QThreadPool>

// Whether this application may capture from a source, as far as the sound server
// lets anyone know: a probe that opens (and at once closes) a corked record stream.
// It works → granted; the server refuses, or there is no such device → denied;
// no server answers → unknown. Linux has no consent prompt for either source, so
// request() is another probe, whose answer arrives like any other.
//
// The screens read the status again whenever the application becomes active, so a
// change made meanwhile (a device plugged in, the server restarted) shows up at once.
//
// Thread contract: every member on the main thread; probes run on a private worker
// thread and their answers come back to the main thread before `status` changes.
// The sound server must outlive this object.
class CapturePermission : public QObject
{
    Q_OBJECT
    Q_PROPERTY(Permission status READ status NOTIFY statusChanged)

public:
    ~CapturePermission() override;

    [[nodiscard]] Permission status() const { return m_status; }

    // Probes again; `status` follows when the answer arrives.
    void request();
    // Re-reads the status (also done on construction and on activation).
    void updateStatus();

Q_SIGNALS:
    void statusChanged();
    // After request(): the answer has been applied to `status`.
    void requestFinished(bool granted);

protected:
    CapturePermission(
        SoundServer &server, CaptureSource source, const QLoggingCategory &category, QObject *parent);

private:
    void probe(bool isRequest);
    void apply(Permission status, bool isRequest);

    SoundServer &m_server;
    const CaptureSource m_source;
    const QLoggingCategory &m_category;
    Permission m_status = Permission::unknown;
    QThreadPool m_probes;
};
