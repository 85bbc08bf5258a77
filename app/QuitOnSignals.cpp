#include "app/QuitOnSignals.h"

#include "common/Logging.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

// The write end of the socket pair, for the handler; -1 when none is installed.
std::atomic<int> signalSocket { -1 };
int readSocket = -1;

void onSignal(int)
{
    const int saved = errno;
    const int fd = signalSocket.load();
    const char byte = 1;
    if (fd >= 0) [[maybe_unused]]
        const auto written = ::write(fd, &byte, 1);
    errno = saved;
}

} // namespace

QuitOnSignals::QuitOnSignals(QObject *parent)
    : QObject(parent)
{
    int sockets[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets) != 0) {
        qCWarning(lcRecorder, "no signal handling: %s", std::strerror(errno));
        return;
    }
    readSocket = sockets[0];
    signalSocket = sockets[1];
    m_notifier = new QSocketNotifier(readSocket, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [] {
        char byte = 0;
        while (::read(readSocket, &byte, 1) > 0) { }
        QCoreApplication::quit();
    });
    struct sigaction action
    {
    };
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : { SIGTERM, SIGINT, SIGHUP })
        ::sigaction(signal, &action, nullptr);
}

QuitOnSignals::~QuitOnSignals()
{
    const int fd = signalSocket.exchange(-1);
    if (fd >= 0) {
        delete m_notifier;
        ::close(fd);
        ::close(std::exchange(readSocket, -1));
    }
}
