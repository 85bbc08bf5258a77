#pragma once

// The secret store as other clients see it, for the account tests.

#include <QProcess>
#include <QStringList>

namespace AccountTest {

// secret-tool with `arguments` and `input`; its standard output and error.
inline QByteArray secretTool(const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("secret-tool"), arguments);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(10000);
    return process.readAll();
}

// QtKeychain's schema names the attributes "server" (the service) and "user" (the account).
inline QByteArray sessionItem()
{
    return secretTool({QStringLiteral("lookup"), QStringLiteral("server"), QStringLiteral("app.selvaro.recorder"),
                       QStringLiteral("user"), QStringLiteral("session")});
}

// Stores the session item the way another program could.
inline void storeSessionItem(const QByteArray &secret)
{
    secretTool({QStringLiteral("store"), QStringLiteral("--label=app.selvaro.recorder"), QStringLiteral("server"),
                QStringLiteral("app.selvaro.recorder"), QStringLiteral("user"), QStringLiteral("session"),
                QStringLiteral("type"), QStringLiteral("plaintext")},
               secret);
}

} // namespace AccountTest
