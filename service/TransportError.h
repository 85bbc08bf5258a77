#pragma once

#include <QByteArray>
#include <QNetworkReply>
#include <QString>

#include <exception>

// A failure below HTTP: no connection, a dropped connection, a refused certificate,
// a timeout. Its description is the network stack's own sentence; nothing is added.
//
// Every call of SelvaroAPI carries it wrapped in ApiError::transport.
class TransportError : public std::exception
{
public:
    TransportError(QNetworkReply::NetworkError error, QString message);
    // The reply's error and errorString(); a transfer timeout gets its own sentence,
    // because Qt reports it as a cancelled operation.
    [[nodiscard]] static TransportError fromReply(const QNetworkReply &reply, bool timedOut);

    [[nodiscard]] QNetworkReply::NetworkError error() const { return m_error; }
    [[nodiscard]] QString description() const { return m_message; }
    // The description in UTF-8, for code that only knows std::exception.
    [[nodiscard]] const char *what() const noexcept override { return m_what.constData(); }

    friend bool operator==(const TransportError &a, const TransportError &b)
    {
        return a.m_error == b.m_error && a.m_message == b.m_message;
    }

private:
    QNetworkReply::NetworkError m_error;
    QString m_message;
    QByteArray m_what;
};
