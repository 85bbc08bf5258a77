#pragma once

// Helpers shared by the account tests: the secret store as other clients see it,
// and a pairing clock that the test drives.

#include "common/Clock.h"

#include <QObject>
#include <QProcess>
#include <QStringList>

#include <qcoro/qcorosignal.h>
#include <qcoro/qcorotimer.h>

#include <chrono>

namespace AccountTest {

// Runs a command to completion and returns its standard output.
inline QByteArray run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(10000);
    return process.readAllStandardOutput();
}

// The session item through secret-tool, as any Secret Service client finds it.
// QtKeychain's schema names the attributes "server" (the service) and "user" (the account).
inline QByteArray secretToolLookup()
{
    return run(QStringLiteral("secret-tool"), {QStringLiteral("lookup"), QStringLiteral("server"),
                                               QStringLiteral("app.selvaro.recorder"), QStringLiteral("user"),
                                               QStringLiteral("session")});
}

// Every item of the service with its attributes, as `secret-tool search --all` prints them.
inline QString secretToolSearch()
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("secret-tool"), {QStringLiteral("search"), QStringLiteral("--all"),
                                                  QStringLiteral("server"), QStringLiteral("app.selvaro.recorder")});
    process.waitForFinished(10000);
    return QString::fromUtf8(process.readAll());
}

// Stores a secret the way another program could, e.g. garbage in the session item.
inline bool secretToolStore(const QByteArray &secret)
{
    QProcess process;
    process.start(QStringLiteral("secret-tool"),
                  {QStringLiteral("store"), QStringLiteral("--label=app.selvaro.recorder"), QStringLiteral("server"),
                   QStringLiteral("app.selvaro.recorder"), QStringLiteral("user"), QStringLiteral("session"),
                   QStringLiteral("type"), QStringLiteral("plaintext")});
    process.write(secret);
    process.closeWriteChannel();
    return process.waitForFinished(10000) && process.exitCode() == 0;
}

// Locks the default collection over D-Bus; unlocking would need a prompt, so tests
// that lock run last or in their own binary.
inline bool lockDefaultCollection()
{
    QProcess process;
    process.start(QStringLiteral("gdbus"),
                  {QStringLiteral("call"), QStringLiteral("--session"), QStringLiteral("--dest"),
                   QStringLiteral("org.freedesktop.secrets"), QStringLiteral("--object-path"),
                   QStringLiteral("/org/freedesktop/secrets"), QStringLiteral("--method"),
                   QStringLiteral("org.freedesktop.Secret.Service.Lock"),
                   QStringLiteral("[objectpath '/org/freedesktop/secrets/aliases/default']")});
    return process.waitForFinished(10000) && process.exitCode() == 0;
}

// A pairing clock whose time moves only by the sleeps it is asked for. Each sleep
// is recorded, moves `now` on by its full length at once and then really lasts only
// a millisecond, or, when held, until release().
class FakeClock : public QObject, public Clock
{
    Q_OBJECT

public:
    explicit FakeClock(QDateTime start = QDateTime::currentDateTimeUtc())
        : m_now(std::move(start))
    {
    }

    [[nodiscard]] QDateTime now() const override { return m_now; }
    [[nodiscard]] std::chrono::steady_clock::time_point monotonicNow() const override
    {
        return std::chrono::steady_clock::time_point(std::chrono::milliseconds(m_now.toMSecsSinceEpoch()));
    }

    QCoro::Task<> sleep(std::chrono::milliseconds duration) override
    {
        m_sleeps.append(duration);
        m_now = m_now.addMSecs(duration.count());
        ++m_sleeping;
        Q_EMIT sleepStarted();
        if (m_hold)
            co_await qCoro(this, &FakeClock::released);
        else
            co_await QCoro::sleepFor(std::chrono::milliseconds(1));
        // The test owns the clock for longer than any flow, so this is safe here.
        --m_sleeping;
    }

    void setHold(bool hold) { m_hold = hold; }
    // Ends every held sleep.
    void release() { Q_EMIT released(); }

    [[nodiscard]] const QList<std::chrono::milliseconds> &sleeps() const { return m_sleeps; }
    [[nodiscard]] int sleeping() const { return m_sleeping; }

Q_SIGNALS:
    void sleepStarted();
    void released();

private:
    QDateTime m_now;
    QList<std::chrono::milliseconds> m_sleeps;
    bool m_hold = false;
    int m_sleeping = 0;
};

} // namespace AccountTest
