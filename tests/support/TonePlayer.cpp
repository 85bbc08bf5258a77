#include "support/TonePlayer.h"

#include <QProcess>

TonePlayer::TonePlayer(double frequency, QByteArray sink)
{
    QStringList arguments { QStringLiteral("load-module"), QStringLiteral("module-sine"),
                            QStringLiteral("frequency=%1").arg(qRound(frequency)) };
    if (!sink.isEmpty())
        arguments.append(QStringLiteral("sink=") + QString::fromUtf8(sink));
    m_module = pactl(arguments);
}

void TonePlayer::stop()
{
    if (!m_module.isEmpty())
        pactl({ QStringLiteral("unload-module"), std::exchange(m_module, {}) });
}

QString pactl(const QStringList &arguments, bool *ok)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    const bool success
        = process.waitForFinished(5000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (ok)
        *ok = success;
    return success ? QString::fromUtf8(process.readAllStandardOutput()).trimmed() : QString();
}

bool unloadAllDevices()
{
    bool source = false;
    bool sinks = false;
    pactl({ QStringLiteral("unload-module"), QStringLiteral("module-remap-source") }, &source);
    pactl({ QStringLiteral("unload-module"), QStringLiteral("module-null-sink") }, &sinks);
    return source && sinks;
}
