#include "common/Logging.h"

#include <QByteArray>
#include <QFileInfo>

#include <cstdio>
#include <sys/syslog.h>
#include <systemd/sd-journal.h>

Q_LOGGING_CATEGORY(lcApi, "app.selvaro.recorder.api", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSession, "app.selvaro.recorder.session", QtInfoMsg)
Q_LOGGING_CATEGORY(lcPairing, "app.selvaro.recorder.pairing", QtInfoMsg)
Q_LOGGING_CATEGORY(lcRecorder, "app.selvaro.recorder.recorder", QtInfoMsg)
Q_LOGGING_CATEGORY(lcDualRecorder, "app.selvaro.recorder.DualRecorder", QtInfoMsg)
Q_LOGGING_CATEGORY(lcMicRecorder, "app.selvaro.recorder.MicRecorder", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSystemRecorder, "app.selvaro.recorder.SystemRecorder", QtInfoMsg)
Q_LOGGING_CATEGORY(lcGlobalTap, "app.selvaro.recorder.GlobalTap", QtInfoMsg)
Q_LOGGING_CATEGORY(lcApplicationTap, "app.selvaro.recorder.ApplicationTap", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSystemAudioPermission, "app.selvaro.recorder.SystemAudioPermission", QtInfoMsg)
Q_LOGGING_CATEGORY(lcMixer, "app.selvaro.recorder.AudioMixer", QtInfoMsg)
Q_LOGGING_CATEGORY(lcApp, "app.selvaro.recorder.app", QtInfoMsg)

namespace {

int priorityOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return LOG_DEBUG;
    case QtInfoMsg:
        return LOG_INFO;
    case QtWarningMsg:
        return LOG_WARNING;
    case QtCriticalMsg:
        return LOG_ERR;
    case QtFatalMsg:
        return LOG_CRIT;
    }
    return LOG_INFO;
}

bool journalAvailable()
{
    return QFileInfo::exists(QStringLiteral("/run/systemd/journal/socket"));
}

void journalHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const QByteArray text = message.toUtf8();
    QByteArray category = context.category ? QByteArray(context.category) : QByteArray("default");
    const QByteArray prefix = QByteArray(Logging::subsystem) + '.';
    if (category.startsWith(prefix))
        category = category.mid(prefix.size());

    const int rc = sd_journal_send("MESSAGE=%s", text.constData(), "PRIORITY=%d", priorityOf(type),
        "SYSLOG_IDENTIFIER=selvaro-recorder", "SELVARO_SUBSYSTEM=%s", Logging::subsystem,
        "SELVARO_CATEGORY=%s", category.constData(), nullptr);
    if (rc < 0)
        std::fprintf(stderr, "%s: %s\n", category.constData(), text.constData());
    if (type == QtFatalMsg)
        std::abort();
}

void stderrHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    std::fprintf(
        stderr, "%s: %s\n", context.category ? context.category : "default", message.toUtf8().constData());
    if (type == QtFatalMsg)
        std::abort();
}

} // namespace

void Logging::installJournalHandler()
{
    qInstallMessageHandler(journalAvailable() ? journalHandler : stderrHandler);
}
