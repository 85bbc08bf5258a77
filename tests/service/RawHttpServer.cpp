#include "RawHttpServer.h"

#include <QTcpSocket>
#include <QTimer>

namespace {
QByteArray head(int status, qsizetype length, const QByteArray &extraHeaders)
{
    return "HTTP/1.1 " + QByteArray::number(status) + " Whatever\r\nContent-Type: application/json\r\n"
        + extraHeaders + "Content-Length: " + QByteArray::number(length) + "\r\nConnection: close\r\n\r\n";
}
} // namespace

RawHttpServer::RawHttpServer(Responder responder)
    : m_responder(std::move(responder))
{
    connect(&m_server, &QTcpServer::pendingConnectionAvailable, this, [this] {
        QTcpSocket *socket = m_server.nextPendingConnection();
        connect(socket, &QTcpSocket::readyRead, this, [this, socket, buffer = QByteArray()]() mutable {
            buffer.append(socket->readAll());
            const qsizetype end = buffer.indexOf("\r\n\r\n");
            const qsizetype at = buffer.toLower().indexOf("content-length:");
            const qsizetype length
                = at < 0 ? 0 : buffer.mid(at + 15, buffer.indexOf('\r', at) - at - 15).toLongLong();
            if (end >= 0 && buffer.size() >= end + 4 + length) {
                m_requests.append(std::exchange(buffer, {}));
                m_responder(socket);
            }
        });
    });
    if (!m_server.listen(QHostAddress::LocalHost, 0))
        qFatal("RawHttpServer: cannot listen on loopback");
}

RawHttpServer::Responder RawHttpServer::reply(int status, QByteArray body, QByteArray extraHeaders)
{
    return [=](QTcpSocket *socket) {
        socket->write(head(status, body.size(), extraHeaders) + body);
        socket->disconnectFromHost();
    };
}

RawHttpServer::Responder RawHttpServer::drip(QByteArray body, std::chrono::milliseconds gap)
{
    return [=](QTcpSocket *socket) {
        socket->write(head(200, body.size(), {}));
        auto *timer = new QTimer(socket);
        QObject::connect(timer, &QTimer::timeout, socket,
            [socket, body, sent = 0]() mutable { socket->write(body.mid(sent++, 1)); });
        timer->start(gap);
    };
}
