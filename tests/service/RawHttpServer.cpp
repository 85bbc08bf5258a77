#include "RawHttpServer.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

namespace {

// The head and, when a Content-Length says so, the body; empty while incomplete.
QByteArray completeRequest(const QByteArray &buffer)
{
    const qsizetype end = buffer.indexOf("\r\n\r\n");
    if (end < 0)
        return {};
    const qsizetype at = buffer.toLower().indexOf("content-length:");
    const qsizetype length = at < 0 || at > end ? 0 : buffer.mid(at + 15, buffer.indexOf('\r', at) - at - 15).trimmed().toLongLong();
    return buffer.size() < end + 4 + length ? QByteArray() : buffer.left(end + 4 + length);
}

QByteArray head(int status, qsizetype length, const QByteArray &extraHeaders)
{
    return "HTTP/1.1 " + QByteArray::number(status) + " Whatever\r\nContent-Type: application/json\r\nContent-Length: "
           + QByteArray::number(length) + "\r\n" + extraHeaders + "Connection: close\r\n\r\n";
}

} // namespace

RawHttpServer::RawHttpServer(Responder responder)
    : m_responder(std::move(responder))
{
    connect(&m_server, &QTcpServer::pendingConnectionAvailable, this, [this] {
        while (QTcpSocket *socket = m_server.nextPendingConnection()) {
            socket->setParent(this);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket, buffer = QByteArray()]() mutable {
                buffer.append(socket->readAll());
                const QByteArray request = completeRequest(buffer);
                if (request.isEmpty())
                    return;
                buffer.remove(0, request.size());
                m_requests.append(request);
                m_responder(socket, request);
            });
        }
    });
    if (!m_server.listen(QHostAddress::LocalHost, 0))
        qFatal("RawHttpServer: cannot listen on loopback");
}

QUrl RawHttpServer::url() const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()));
}

RawHttpServer::Responder RawHttpServer::reply(int status, QByteArray body, QByteArray extraHeaders)
{
    return [=](QTcpSocket *socket, const QByteArray &) {
        socket->write(head(status, body.size(), extraHeaders) + body);
        socket->disconnectFromHost();
    };
}

RawHttpServer::Responder RawHttpServer::drip(QByteArray body, std::chrono::milliseconds gap)
{
    return [=](QTcpSocket *socket, const QByteArray &) {
        socket->write(head(200, body.size(), {}));
        auto *timer = new QTimer(socket);
        QObject::connect(timer, &QTimer::timeout, socket, [socket, body, sent = qsizetype(0)]() mutable {
            if (sent < body.size())
                socket->write(body.mid(sent++, 1));
        });
        timer->start(gap);
    };
}

RawHttpServer::Responder RawHttpServer::silence()
{
    return [](QTcpSocket *, const QByteArray &) {};
}
