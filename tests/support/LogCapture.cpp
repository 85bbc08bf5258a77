#include "support/LogCapture.h"

#include <QLoggingCategory>
#include <QMutex>
#include <QMutexLocker>

#include <cstdio>

namespace {
QMutex mutex;
QStringList captured;
QtMessageHandler previous = nullptr;

void handler(QtMsgType, const QMessageLogContext &context, const QString &message)
{
    const QString line
        = QString::fromUtf8(context.category ? context.category : "default") + QStringLiteral(": ") + message;
    {
        QMutexLocker lock(&mutex);
        captured.append(line);
    }
    std::fprintf(stderr, "%s\n", line.toUtf8().constData());
}
} // namespace

LogCapture::LogCapture()
{
    // Debug lines ("start()", "pause()") are part of what tests check.
    QLoggingCategory::setFilterRules(QStringLiteral("app.selvaro.recorder.*.debug=true"));
    QMutexLocker lock(&mutex);
    captured.clear();
    previous = qInstallMessageHandler(handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous);
}

QStringList LogCapture::lines() const
{
    QMutexLocker lock(&mutex);
    return captured;
}

QStringList LogCapture::lines(const QString &category) const
{
    QStringList result;
    const QString suffix = QStringLiteral(".") + category + QStringLiteral(": ");
    for (const QString &line : lines()) {
        const int at = line.indexOf(suffix);
        if (at >= 0 && !line.left(at).contains(QLatin1Char(' ')))
            result.append(line.mid(at + suffix.size()));
    }
    return result;
}
