#include "ConnectionDropper.h"

#include <httplib.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {
int portOf(const sockaddr_storage &address)
{
    if (address.ss_family == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in *>(&address)->sin_port);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6 *>(&address)->sin6_port);
    return -1;
}
} // namespace

bool ConnectionDropper::drop(const httplib::Request &request)
{
    DIR *dir = opendir("/proc/self/fd");
    if (!dir)
        return false;
    bool dropped = false;
    while (const dirent *entry = readdir(dir)) {
        char *end = nullptr;
        const long fd = std::strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || fd == dirfd(dir))
            continue;
        sockaddr_storage peer {};
        sockaddr_storage local {};
        socklen_t peerLength = sizeof peer;
        socklen_t localLength = sizeof local;
        const int socket = static_cast<int>(fd);
        if (getpeername(socket, reinterpret_cast<sockaddr *>(&peer), &peerLength) != 0
            || getsockname(socket, reinterpret_cast<sockaddr *>(&local), &localLength) != 0)
            continue;
        if (portOf(peer) == request.remote_port && portOf(local) == request.local_port) {
            shutdown(socket, SHUT_RDWR);
            dropped = true;
            break;
        }
    }
    closedir(dir);
    return dropped;
}
