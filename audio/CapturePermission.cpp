#include "audio/CapturePermission.h"

#include "common/Observable.h"

#include <QCoreApplication>
#include <QPointer>

CapturePermission::CapturePermission(
    SoundServer &server, CaptureSource source, const QLoggingCategory &category, QObject *parent)
    : QObject(parent)
    , m_server(server)
    , m_source(source)
    , m_category(category)
{
    m_probes.setMaxThreadCount(1);
    updateStatus();
}

CapturePermission::~CapturePermission()
{
    // A probe in flight uses the server; its answer is dropped with this object.
    m_probes.waitForDone();
}

void CapturePermission::updateStatus()
{
    qCDebug(m_category) << "updateStatus()";
    probe(false);
}

void CapturePermission::request()
{
    qCDebug(m_category) << "request()";
    probe(true);
}

void CapturePermission::probe(bool isRequest)
{
    QPointer<CapturePermission> self(this);
    SoundServer *server = &m_server;
    const CaptureSource source = m_source;
    const QLoggingCategory *category = &m_category;
    m_probes.start([self, server, source, category, isRequest] {
        const Permission status = server->probe(source);
        if (isRequest)
            qCInfo(*category) << "Request finished with result:" << (status == Permission::granted);
        // `self` is only looked at on the main thread, where it can be trusted.
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self, status, isRequest] {
                if (self)
                    self->apply(status, isRequest);
            },
            Qt::QueuedConnection);
    });
}

void CapturePermission::apply(Permission status, bool isRequest)
{
    setIfChanged(m_status, status, this, &CapturePermission::statusChanged);
    if (isRequest)
        Q_EMIT requestFinished(status == Permission::granted);
}
