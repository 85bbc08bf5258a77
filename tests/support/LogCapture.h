#pragma once

#include <QString>
#include <QStringList>

// Collects the log lines written while it lives, as "<category>: <message>", so a
// test can assert on them. Only one may exist at a time; it restores the previous
// handler when destroyed. Lines may come from any thread.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    [[nodiscard]] QStringList lines() const;
    // Lines whose category ends with `category` (e.g. "api", "SystemRecorder").
    [[nodiscard]] QStringList lines(const QString &category) const;
    [[nodiscard]] bool contains(const QString &text) const { return !lines().filter(text).isEmpty(); }
};
