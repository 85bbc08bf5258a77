#pragma once

#include <QDateTime>

#include <qcoro/qcorotask.h>

#include <chrono>

// The time source of the pairing poll: the wall clock that dates the codes' expiry and
// the sleep between two redeems. Tests pass one that runs faster than real time.
//
// sleep() must not touch its object after it resumes: the flow may be gone by then.
class PairingClock
{
public:
    virtual ~PairingClock() = default;

    [[nodiscard]] virtual QDateTime now() const = 0;
    [[nodiscard]] virtual QCoro::Task<> sleep(std::chrono::milliseconds duration) = 0;
};
