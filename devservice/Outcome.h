#pragma once

#include "ServiceError.h"

#include <utility>
#include <variant>

// A value or the error that stands in its place, as the service's rules return them.
// Outcome<> is a plain "done or refused".
template <typename T = std::monostate, typename Error = ServiceError> class Outcome
{
public:
    Outcome()
        : m_result(T {})
    { }
    Outcome(T value)
        : m_result(std::move(value))
    { }
    Outcome(Error error)
        : m_result(std::move(error))
    { }

    [[nodiscard]] explicit operator bool() const { return m_result.index() == 0; }
    [[nodiscard]] const T &operator*() const { return std::get<0>(m_result); }
    [[nodiscard]] const T *operator->() const { return &std::get<0>(m_result); }
    [[nodiscard]] const Error &error() const { return std::get<1>(m_result); }

private:
    std::variant<T, Error> m_result;
};
