#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>

#include <mutex>
#include <optional>

// Scripted misbehaviour for tests: the next N requests to a path wait, answer a
// canned status, or lose their connection. Thread-safe; requests on the server's
// pool threads take faults concurrently.
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
