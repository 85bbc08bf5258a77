#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QUrl>

#include <functional>
#include <memory>

class QTcpSocket;

// A loopback HTTP server for answers the note service would never give: a 399
// status, a redirect elsewhere, a body too large, a connection that never answers
// or drops half-way, a certificate nobody signed. Runs on the test's thread; each
// request is read whole (head and Content-Length body), recorded, then answered by
// the responder, which writes whatever bytes it likes.
class RawHttpServer : public QObject
{
    Q_OBJECT
public:
    using Responder = std::function<void(QTcpSocket *socket, const QByteArray &request)>;

    // With a TLS configuration the server speaks HTTPS.
    explicit RawHttpServer(Responder responder, std::optional<QSslConfiguration> tls = std::nullopt);
    ~RawHttpServer() override;

    [[nodiscard]] QUrl url() const;
    [[nodiscard]] QList<QByteArray> requests() const { return m_requests; }
    // Connections accepted, whether or not a request arrived on them.
    [[nodiscard]] int connections() const { return m_connections; }

    // Writes `raw` and closes the connection once it has gone out.
    static Responder answer(QByteArray raw);
    // A full response with a Content-Length.
    static Responder reply(int status, QByteArray body, QByteArray extraHeaders = {});
    // Keeps the connection open and says nothing.
    static Responder silence();

private:
    void accept(QTcpSocket *socket);

    Responder m_responder;
    std::unique_ptr<QTcpServer> m_server;
    QList<QByteArray> m_requests;
    int m_connections = 0;
    bool m_tls = false;
};

// A fresh self-signed certificate for 127.0.0.1, made with the openssl command.
QSslConfiguration selfSignedServerConfiguration();
