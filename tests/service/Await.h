#pragma once

#include "service/ApiError.h"

#include <QEventLoop>
#include <QTimer>

#include <qcoro/qcorotask.h>

#include <optional>
#include <variant>

// What one awaited call of the service client ended in: its value or its error.
// QCoro::waitFor() cannot be used: it neither passes exceptions on nor gives up.
template <typename T> struct Outcome
{
    std::optional<std::conditional_t<std::is_void_v<T>, std::monostate, T>> value;
    std::optional<ApiError> apiError;
    std::optional<TransportError> transportError;
    // "ok", or the error's description.
    [[nodiscard]] QString text() const
    {
        return value   ? QStringLiteral("ok")
            : apiError ? apiError->description()
                       : transportError->description();
    }
};

// Runs the event loop until the task ends, or for at most `limitMs` (then all is empty).
template <typename T> Outcome<T> await(QCoro::Task<T> task, int limitMs = 15000)
{
    Outcome<T> outcome;
    QEventLoop loop;
    QTimer::singleShot(limitMs, &loop, &QEventLoop::quit);
    auto collect = [](QCoro::Task<T> task, Outcome<T> *outcome, QEventLoop *loop) -> QCoro::Task<> {
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
        loop->quit();
    };
    auto collector = collect(std::move(task), &outcome, &loop);
    if (!collector.isReady())
        loop.exec();
    return outcome;
}
