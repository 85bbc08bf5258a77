// selvaro-devservice: the local stand-in for the note service that the tests and
// the demo talk to. See docs/devservice.md.

#include "Crypto.h"
#include "FaultInjector.h"
#include "HttpFront.h"
#include "ObjectStore.h"
#include "ServiceState.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QTemporaryDir>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {
void fail(const QString &message)
{
    std::fprintf(stderr, "selvaro-devservice: %s\n", qPrintable(message));
    std::exit(2);
}

qint64 numberOption(const QCommandLineParser &parser, const QString &name, qint64 fallback, qint64 minimum)
{
    if (!parser.isSet(name))
        return fallback;
    bool ok = false;
    const qint64 value = parser.value(name).toLongLong(&ok);
    if (!ok || value < minimum)
        fail(QStringLiteral("--%1 wants a whole number of at least %2").arg(name).arg(minimum));
    return value;
}

// Created for the owner alone, also when a file of that name was there before.
void writePrivateFile(const QString &path, const QByteArray &bytes)
{
    const int fd = ::open(
        QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    const bool written = fd >= 0 && ::fchmod(fd, 0600) == 0
        && ::write(fd, bytes.constData(), static_cast<size_t>(bytes.size())) == bytes.size();
    if (fd >= 0)
        ::close(fd);
    if (!written)
        fail(QStringLiteral("cannot write %1").arg(path));
}
} // namespace

int main(int argc, char **argv)
{
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("The local note service for Selvaro Recorder."));
    parser.addHelpOption();
    parser.addOptions({
        { QStringLiteral("port"), QStringLiteral("Port on 127.0.0.1; 0 picks a free one."),
            QStringLiteral("N"), QStringLiteral("8765") },
        { QStringLiteral("data"), QStringLiteral("Keep state and uploads in DIR across restarts."),
            QStringLiteral("DIR") },
        { QStringLiteral("expires-in"), QStringLiteral("Lifetime of pairing codes in seconds."),
            QStringLiteral("S") },
        { QStringLiteral("interval"), QStringLiteral("Suggested polling interval in seconds."),
            QStringLiteral("S") },
        { QStringLiteral("max-body"), QStringLiteral("Largest JSON body accepted, in bytes."),
            QStringLiteral("BYTES") },
        { QStringLiteral("max-upload"), QStringLiteral("Largest upload accepted, in bytes."),
            QStringLiteral("BYTES") },
    });
    if (!parser.parse(arguments))
        fail(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        std::fputs(qPrintable(parser.helpText()), stdout);
        return 0;
    }
    if (!parser.positionalArguments().isEmpty())
        fail(QStringLiteral("unexpected argument %1").arg(parser.positionalArguments().constFirst()));

    ServiceConfig config;
    const int port = static_cast<int>(numberOption(parser, QStringLiteral("port"), 8765, 0));
    if (port > 65535)
        fail(QStringLiteral("--port wants a number up to 65535"));
    config.expiresIn = numberOption(parser, QStringLiteral("expires-in"), config.expiresIn, 0);
    config.interval = numberOption(parser, QStringLiteral("interval"), config.interval, 0);
    config.maxBodyBytes = numberOption(parser, QStringLiteral("max-body"), config.maxBodyBytes, 1);
    config.maxUploadBytes = numberOption(parser, QStringLiteral("max-upload"), config.maxUploadBytes, 0);

    // Without --data the uploads live in a temporary folder removed at exit.
    QTemporaryDir temporary;
    QString stateFile;
    QString uploadDir;
    QString tokenFile;
    if (parser.isSet(QStringLiteral("data"))) {
        const QString data = QDir(parser.value(QStringLiteral("data"))).absolutePath();
        const bool created = !QFileInfo::exists(data);
        if (!QDir().mkpath(data))
            fail(QStringLiteral("cannot create %1").arg(data));
        if (created)
            QFile::setPermissions(
                data, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
        stateFile = data + QStringLiteral("/state.json");
        uploadDir = data + QStringLiteral("/uploads");
        tokenFile = data + QStringLiteral("/admin-token");
    } else {
        if (!temporary.isValid())
            fail(QStringLiteral("cannot create a temporary folder"));
        uploadDir = temporary.path();
    }

    // Signals are taken by one thread with sigwait(), so shutting down never runs
    // inside a signal handler. The mask is set before any thread starts and is inherited.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    const ObjectStore objects(uploadDir);
    ServiceState state(config, objects, stateFile);
    if (const auto loaded = state.load(); !loaded)
        fail(QStringLiteral("cannot read %1: %2").arg(stateFile, loaded.error()));
    FaultInjector faults;
    // A new one each start: whoever started us reads it from our output or its file.
    const QByteArray adminToken = Crypto::randomBytes(32).toHex();
    HttpFront front(state, faults, objects, adminToken);

    const int boundPort = front.bind("127.0.0.1", port);
    if (boundPort <= 0)
        fail(QStringLiteral("cannot listen on 127.0.0.1:%1").arg(port));
    const QString baseUrl = QStringLiteral("http://127.0.0.1:%1").arg(boundPort);
    state.setBaseUrl(baseUrl);
    // Without --data it goes to the runtime folder, named by the port, and leaves with us.
    const bool keepTokenFile = !tokenFile.isEmpty();
    if (!keepTokenFile) {
        const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
        tokenFile = (runtime.isEmpty() ? temporary.path() : runtime)
            + QStringLiteral("/selvaro-devservice-%1.admin-token").arg(boundPort);
    }
    writePrivateFile(tokenFile, adminToken + '\n');
    // The first line of output is the address, the second the admin token; whoever
    // started us waits for them.
    std::printf("%s\n%s\n", qPrintable(baseUrl), adminToken.constData());
    std::fflush(stdout);

    std::atomic<bool> served { false };
    std::atomic<bool> finished { false };
    std::thread signalWaiter([&front, &stopSignals, &finished] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        // A signal that comes before the server has started listening would find
        // nothing to stop, so keep asking until it has ended.
        while (!finished) {
            front.stop();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    served = front.listen();
    finished = true;
    // Wake the waiter if the server ended by itself.
    pthread_kill(signalWaiter.native_handle(), SIGTERM);
    signalWaiter.join();
    if (!keepTokenFile)
        QFile::remove(tokenFile);
    return served ? 0 : 1;
}
