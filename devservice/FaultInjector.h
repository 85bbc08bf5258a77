#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>

#include <mutex>
#include <optional>

// Scripted misbehaviour for tests: the next N requests to a path wait, answer a
// canned status, or lose their connection; an upload's, after a part of its body. Thread-safe; requests on
// the server's pool threads take faults concurrently.
class FaultInjector
{
public:
    struct Fault
    {
        QString path; // exact, or a prefix when it ends in '*'
        QString method; // empty matches every method
        int count = 1;
        int status = 0; // 0: handle the request normally (after the delay)
        QByteArray body;
        QByteArray contentType;
        QList<QPair<QByteArray, QByteArray>> headers;
        int delayMs = 0;
        bool drop = false;
        // An upload's body is read past this many bytes (it comes in pieces of about
        // 4 KiB) before the fault strikes: a drop or a stall mid-body. The request then
        // ends there: dropped, or answered with the status and the connection closed.
        // -1: before the body.
        qint64 afterBytes = -1;

        [[nodiscard]] bool matches(const QString &requestMethod, const QString &requestPath) const;
    };

    // Parses the admin body; returns an error code ("missing_path", "invalid_status", …)
    // or an empty string when the fault was added.
    QString add(const QJsonObject &definition);
    // Consumes one use of the first fault matching the request, if any.
    std::optional<Fault> take(const QString &method, const QString &path);
    void clear();

private:
    std::mutex m_mutex;
    QList<Fault> m_faults;
};
