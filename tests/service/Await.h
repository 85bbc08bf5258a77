#pragma once

#include "service/ApiError.h"
#include "service/TransportError.h"

#include <QEventLoop>
#include <QTimer>

#include <qcoro/qcorotask.h>

#include <optional>
#include <type_traits>
#include <variant>

// What one awaited call of the service client ended in. QCoro::waitFor() cannot
// be used: it neither passes exceptions on nor gives up.
template <typename T>
struct Outcome {
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    bool finished = false;
    std::optional<Value> value;
    std::optional<ApiError> apiError;
    std::optional<TransportError> transportError;
};

namespace AwaitDetail {
template <typename T>
QCoro::Task<> collect(QCoro::Task<T> task, Outcome<T> *outcome, QEventLoop *loop)
{
    try {
        if constexpr (std::is_void_v<T>) {
            co_await std::move(task);
            outcome->value.emplace();
        } else {
            outcome->value.emplace(co_await std::move(task));
        }
    } catch (const ApiError &error) {
        outcome->apiError = error;
    } catch (const TransportError &error) {
        outcome->transportError = error;
    }
    outcome->finished = true;
    loop->quit();
}
} // namespace AwaitDetail

// Runs the event loop until the task ends or `limitMs` pass (then finished is false).
template <typename T>
Outcome<T> await(QCoro::Task<T> task, int limitMs = 15000)
{
    Outcome<T> outcome;
    QEventLoop loop;
    auto collector = AwaitDetail::collect(std::move(task), &outcome, &loop);
    if (!outcome.finished) {
        QTimer::singleShot(limitMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return outcome;
}
