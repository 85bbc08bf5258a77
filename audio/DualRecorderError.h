#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

// The one error of the dual recorder and its mixer: a single case, custom(message),
// whose description is the message itself. A value that is also thrown through the
// awaited QCoro::Task of the mixer, so callers catch it like any exception and can
// still copy, compare and keep it.
class DualRecorderError : public std::exception
{
public:
    [[nodiscard]] static DualRecorderError custom(QString message);

    [[nodiscard]] const QString &message() const { return m_message; }
    [[nodiscard]] QString description() const { return m_message; }
    [[nodiscard]] const char *what() const noexcept override { return m_what.constData(); }

    friend bool operator==(const DualRecorderError &a, const DualRecorderError &b)
    {
        return a.m_message == b.m_message;
    }

private:
    explicit DualRecorderError(QString message);

    QString m_message;
    QByteArray m_what;
};
