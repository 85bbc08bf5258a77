#include "audio/CapturePermission.h"

#include "common/Observable.h"

#include <QGuiApplication>
#include <QPointer>

CapturePermission::CapturePermission(SoundServer &server, CaptureSource source, const QLoggingCategory &category,
                                     QObject *parent)
    : QObject(parent)
    , m_server(server)
    , m_source(source)
    , m_category(category)
{
    m_probes.setMaxThreadCount(1);
    updateStatus();
    if (auto *application = qobject_cast<QGuiApplication *>(QCoreApplication::instance())) {
        connect(application, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState state) {
            if (state == Qt::ApplicationActive)
                updateStatus();
        });
    }
}

CapturePermission::~CapturePermission()
{
    // A probe in flight uses the server; its answer is dropped with this object.
    m_probes.waitForDone();
}

QString CapturePermission::rawValue(Status status)
{
    switch (status) {
    case Status::denied: return QStringLiteral("denied");
    case Status::granted: return QStringLiteral("granted");
    case Status::unknown: break;
    }
    return QStringLiteral("unknown");
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
        const CaptureAccess access = server->probe(source);
        if (isRequest)
            qCInfo(*category) << "Request finished with result:" << (access == CaptureAccess::allowed);
        // `self` is only looked at on the main thread, where it can be trusted.
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self, access, isRequest] {
                if (self)
                    self->apply(access, isRequest);
            },
            Qt::QueuedConnection);
    });
}

void CapturePermission::apply(CaptureAccess access, bool isRequest)
{
    Status status = Status::unknown;
    if (access == CaptureAccess::allowed)
        status = Status::granted;
    else if (access == CaptureAccess::refused)
        status = Status::denied;
    setIfChanged(m_status, status, this, &CapturePermission::statusChanged);
    if (isRequest)
        Q_EMIT requestFinished(status == Status::granted);
}
