#pragma once

#include <utility>

// The one compare-and-notify rule every model follows: a setter stores the new
// value and emits its change signal only when the value really changed, so views
// and tests never see a notification that carries no news.
//
//   void RecorderFlow::setElapsed(double v) { setIfChanged(m_elapsed, v, this,
//   &RecorderFlow::elapsedChanged); }
template <typename T, typename U, typename Object, typename Signal>
bool setIfChanged(T &field, U &&value, Object *object, Signal signal)
{
    if (field == value)
        return false;
    field = std::forward<U>(value);
    (object->*signal)();
    return true;
}
