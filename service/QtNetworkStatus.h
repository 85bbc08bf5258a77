#pragma once

#include "service/NetworkStatus.h"

// NetworkStatus over QNetworkInformation: offline only when a backend that knows
// reachability (NetworkManager on Linux) says "disconnected". Without such a backend
// (no NetworkManager, no system bus) it never says offline, and a send finds out by
// its transport errors instead. The backend is loaded at the first read.
class QtNetworkStatus final : public NetworkStatus
{
public:
    [[nodiscard]] bool offline() const override;
};
