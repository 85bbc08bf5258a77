#pragma once

// Whether the computer is known to be offline. A seam: the application's reads the
// platform's network information (QtNetworkStatus); tests pass a stand-in they switch.
// "Not known" is never offline: without an answer the network is simply tried.
//
// Main thread only.
class NetworkStatus
{
public:
    virtual ~NetworkStatus() = default;
    [[nodiscard]] virtual bool offline() const = 0;
};
