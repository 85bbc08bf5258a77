#pragma once

#include "service/TransportError.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <exception>
#include <optional>

// The one error of the note service's JSON calls, thrown by the awaitable calls of
// SelvaroAPI. A value: copy it, compare it, keep it in a state.
//
//   http(status, code)  the service answered with status >= 400; code is its "error"
//                       member or "http_" + the status; retryAfter its Retry-After, if any
//   transport(error)    no usable HTTP answer (see TransportError)
//   badResponse         an answer below 400 that is not the expected record
class ApiError : public std::exception
{
public:
    enum class Kind { http, transport, badResponse };

    [[nodiscard]] static ApiError http(
        int status, QString code, std::optional<std::chrono::seconds> retryAfter = std::nullopt);
    [[nodiscard]] static ApiError transport(TransportError error);
    [[nodiscard]] static ApiError badResponse();

    [[nodiscard]] Kind kind() const { return m_kind; }
    [[nodiscard]] bool isHttp() const { return m_kind == Kind::http; }
    // 0 unless kind() is http.
    [[nodiscard]] int status() const { return m_status; }
    // Empty unless kind() is http.
    [[nodiscard]] QString code() const { return m_code; }
    // How long the answer asked the client to wait before trying again (Retry-After).
    [[nodiscard]] std::optional<std::chrono::seconds> retryAfter() const { return m_retryAfter; }
    // Set only when kind() is transport.
    [[nodiscard]] const std::optional<TransportError> &transportError() const { return m_transport; }
    // NoError unless kind() is transport.
    [[nodiscard]] QNetworkReply::NetworkError networkError() const;

    // "code_expired (410)", the network stack's sentence, or "unexpected response".
    [[nodiscard]] QString description() const;
    [[nodiscard]] const char *what() const noexcept override { return m_what.constData(); }

    friend bool operator==(const ApiError &a, const ApiError &b)
    {
        return a.m_kind == b.m_kind && a.m_status == b.m_status && a.m_code == b.m_code
            && a.m_transport == b.m_transport;
    }

private:
    explicit ApiError(Kind kind);

    Kind m_kind;
    int m_status = 0;
    QString m_code;
    std::optional<std::chrono::seconds> m_retryAfter;
    std::optional<TransportError> m_transport;
    QByteArray m_what;
};
