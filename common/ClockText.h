#pragma once

#include <QDateTime>
#include <QString>

// Texts of the two clocks the user reads: the recorder's, also quoted in its
// messages ("stopped at 12:34"), and the pairing countdown. Qt Core only, so that
// the flows below the screens format their times the same way.
class ClockText
{
public:
    // The recorder's elapsed-time clock. Whole seconds by truncation toward
    // zero; below one hour "mm:ss" with the minutes padded to two digits, from
    // one hour on "h:mm:ss" with the hours unpadded (3725 -> "1:02:05").
    // The padding differs on purpose: a recording rarely reaches an hour, and
    // "00:00" reads as a stopwatch. A value that is not finite or does not fit
    // a 64-bit integer is a programming error and stops the program.
    static QString format(double seconds);

    // The pairing countdown "m:ss" for the seconds left until expiry:
    // truncated toward zero and never below zero, minutes unpadded
    // (600 -> "10:00", 61 -> "1:01", past expiry "0:00").
    static QString countdown(double secondsLeft);

    // When something happened, in the local time zone: the time of day ("14:02"),
    // with the date in the locale's short format when it was not today.
    static QString startOf(const QDateTime &instant);
};
