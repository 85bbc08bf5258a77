// selvaro-devservice: the local stand-in for the note service that the tests and
// the demo talk to. See docs/devservice.md.

#include "FaultInjector.h"
#include "HttpFront.h"
#include "ObjectStore.h"
#include "ServiceState.h"

#include <QCommandLineParser>
#include <QDir>
#include <QStringList>
#include <QTemporaryDir>

#include <csignal>
#include <cstdio>
#include <pthread.h>
#include <thread>

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
        {QStringLiteral("port"), QStringLiteral("Port on 127.0.0.1; 0 picks a free one."), QStringLiteral("N"), QStringLiteral("8765")},
        {QStringLiteral("data"), QStringLiteral("Keep state and uploads in DIR across restarts."), QStringLiteral("DIR")},
        {QStringLiteral("expires-in"), QStringLiteral("Lifetime of pairing codes in seconds."), QStringLiteral("S")},
        {QStringLiteral("interval"), QStringLiteral("Suggested polling interval in seconds."), QStringLiteral("S")},
        {QStringLiteral("max-body"), QStringLiteral("Largest JSON body accepted, in bytes."), QStringLiteral("BYTES")},
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

    // Without --data the uploads live in a temporary folder removed at exit.
    QTemporaryDir temporary;
    QString stateFile;
    QString uploadDir;
    if (parser.isSet(QStringLiteral("data"))) {
        const QString data = QDir(parser.value(QStringLiteral("data"))).absolutePath();
        if (!QDir().mkpath(data))
            fail(QStringLiteral("cannot create %1").arg(data));
        stateFile = data + QStringLiteral("/state.json");
        uploadDir = data + QStringLiteral("/uploads");
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
    QString error;
    if (!state.load(&error))
        fail(QStringLiteral("cannot read %1: %2").arg(stateFile, error));
    FaultInjector faults;
    HttpFront front(state, faults, objects);

    const int boundPort = front.bind("127.0.0.1", port);
    if (boundPort <= 0)
        fail(QStringLiteral("cannot listen on 127.0.0.1:%1").arg(port));
    const QString baseUrl = QStringLiteral("http://127.0.0.1:%1").arg(boundPort);
    state.setBaseUrl(baseUrl);
    // The first line of output is the address; whoever started us waits for it.
    std::printf("%s\n", qPrintable(baseUrl));
    std::fflush(stdout);

    std::thread signalWaiter([&front, &stopSignals] {
        int signal = 0;
        sigwait(&stopSignals, &signal);
        front.stop();
    });
    const bool served = front.listen();
    // Wake the waiter if the server ended by itself.
    pthread_kill(signalWaiter.native_handle(), SIGTERM);
    signalWaiter.join();
    return served ? 0 : 1;
}
