#include "service/TransportError.h"

#include "service/ServiceText.h"

TransportError::TransportError(QNetworkReply::NetworkError error, QString message)
    : m_error(error)
    , m_message(std::move(message))
    , m_what(m_message.toUtf8())
{ }

TransportError TransportError::fromReply(const QNetworkReply &reply, bool timedOut)
{
    // Qt ends a transfer timeout by aborting the reply, which reads "Operation canceled",
    // and so does the client's deadline; the user should learn what really happened.
    if (timedOut)
        return TransportError(QNetworkReply::TimeoutError, QStringLiteral("The request timed out."));
    // Qt's sentence may quote the server (a reason phrase, a URL).
    return TransportError(reply.error(), ServiceText::bounded(reply.errorString()));
}
