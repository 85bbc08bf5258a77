#include "RawHttpServer.h"

#include <QProcess>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTemporaryDir>
#include <QTcpSocket>
#include <QtTest/QTest>

namespace {

// The head and, when a Content-Length says so, the body; empty while incomplete.
QByteArray completeRequest(const QByteArray &buffer)
{
    const qsizetype end = buffer.indexOf("\r\n\r\n");
    if (end < 0)
        return {};
    qsizetype length = 0;
    for (const QByteArray &line : buffer.left(end).split('\n')) {
        const QByteArray trimmed = line.trimmed();
        if (trimmed.toLower().startsWith("content-length:"))
            length = trimmed.mid(15).trimmed().toLongLong();
    }
    if (buffer.size() < end + 4 + length)
        return {};
    return buffer.left(end + 4 + length);
}

} // namespace

RawHttpServer::RawHttpServer(Responder responder, std::optional<QSslConfiguration> tls)
    : m_responder(std::move(responder))
    , m_tls(tls.has_value())
{
    if (tls) {
        auto server = std::make_unique<QSslServer>();
        server->setSslConfiguration(*tls);
        m_server = std::move(server);
    } else {
        m_server = std::make_unique<QTcpServer>();
    }
    connect(m_server.get(), &QTcpServer::pendingConnectionAvailable, this, [this] {
        while (QTcpSocket *socket = m_server->nextPendingConnection())
            accept(socket);
    });
    if (!m_server->listen(QHostAddress::LocalHost, 0))
        qFatal("RawHttpServer: cannot listen on loopback");
}

RawHttpServer::~RawHttpServer() = default;

QUrl RawHttpServer::url() const
{
    return QUrl(QStringLiteral("%1://127.0.0.1:%2")
                    .arg(m_tls ? QStringLiteral("https") : QStringLiteral("http"))
                    .arg(m_server->serverPort()));
}

void RawHttpServer::accept(QTcpSocket *socket)
{
    ++m_connections;
    socket->setParent(this);
    auto buffer = std::make_shared<QByteArray>();
    connect(socket, &QTcpSocket::readyRead, this, [this, socket, buffer] {
        buffer->append(socket->readAll());
        const QByteArray request = completeRequest(*buffer);
        if (request.isEmpty())
            return;
        buffer->remove(0, request.size());
        m_requests.append(request);
        m_responder(socket, request);
    });
}

RawHttpServer::Responder RawHttpServer::answer(QByteArray raw)
{
    return [raw](QTcpSocket *socket, const QByteArray &) {
        socket->write(raw);
        socket->disconnectFromHost();
    };
}

RawHttpServer::Responder RawHttpServer::reply(int status, QByteArray body, QByteArray extraHeaders)
{
    return answer("HTTP/1.1 " + QByteArray::number(status) + " Whatever\r\n"
                  "Content-Type: application/json\r\n"
                  "Content-Length: " + QByteArray::number(body.size()) + "\r\n"
                  + extraHeaders + "Connection: close\r\n\r\n" + body);
}

RawHttpServer::Responder RawHttpServer::silence()
{
    return [](QTcpSocket *, const QByteArray &) {};
}

QSslConfiguration selfSignedServerConfiguration()
{
    QTemporaryDir dir;
    const QString key = dir.filePath(QStringLiteral("key.pem"));
    const QString cert = dir.filePath(QStringLiteral("cert.pem"));
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"),
                  {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                   QStringLiteral("rsa:2048"), QStringLiteral("-nodes"), QStringLiteral("-days"),
                   QStringLiteral("1"), QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"),
                   QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1"),
                   QStringLiteral("-keyout"), key, QStringLiteral("-out"), cert});
    if (!openssl.waitForFinished(20000) || openssl.exitCode() != 0)
        qFatal("openssl could not make a certificate: %s", openssl.readAllStandardError().constData());

    QFile keyFile(key);
    QFile certFile(cert);
    if (!keyFile.open(QIODevice::ReadOnly) || !certFile.open(QIODevice::ReadOnly))
        qFatal("cannot read the generated certificate");
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Rsa));
    configuration.setLocalCertificate(QSslCertificate(certFile.readAll()));
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    return configuration;
}
