#pragma once

namespace httplib {
struct Request;
}

// Cuts the TCP connection a request arrived on, so that the client sees the peer
// vanish without an answer. httplib does not hand its socket to handlers, so the
// socket is found by its two loopback ports among this process's descriptors.
class ConnectionDropper
{
public:
    // Shuts the connection down in both directions; false when it was not found.
    static bool drop(const httplib::Request &request);
};
