#pragma once

#include <QTcpServer>
#include <QUrl>

#include <functional>

// A loopback HTTP server that answers what the note service never would: a 399 or a
// 407, a line break in an error code, a body dripped a byte at a time, a redirect
// elsewhere, silence. Runs on the test's thread; each request is read whole (head and
// Content-Length body), recorded, then answered by the responder.
class RawHttpServer : public QObject
{
    Q_OBJECT
public:
    using Responder = std::function<void(QTcpSocket *socket)>;

    explicit RawHttpServer(Responder responder);
    [[nodiscard]] QUrl url() const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort()));
    }
    [[nodiscard]] QList<QByteArray> requests() const { return m_requests; }

    // A full answer with a Content-Length, then the connection closes.
    static Responder reply(int status, QByteArray body, QByteArray extraHeaders = {});
    // The head at once, then the body a byte every `gap`.
    static Responder drip(QByteArray body, std::chrono::milliseconds gap);

private:
    Responder m_responder;
    QTcpServer m_server;
    QList<QByteArray> m_requests;
};
