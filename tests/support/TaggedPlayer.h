#pragma once

#include <QProcess>
#include <QString>

// Another program playing a sine tone for a minute into the test's sound server, with
// a process of its own and tagged with an application name and binary: sox's tone
// played by `pacat`. Killed (by its own PID) when destroyed, as a program that crashes.
class TaggedPlayer
{
public:
    TaggedPlayer(const QString &name, const QString &binary, double frequency,
        const QString &sink = QStringLiteral("@DEFAULT_SINK@"));
    ~TaggedPlayer();

    [[nodiscard]] qint64 processId() const { return m_player.processId(); }

private:
    QProcess m_tone;
    QProcess m_player;
};
