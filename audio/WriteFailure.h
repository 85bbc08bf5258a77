#pragma once

#include <cerrno>

// Why a recording's file stopped taking audio: the value a writer's failure travels
// as from its thread to the flow, which turns it into the user's sentence.
enum class WriteFailure {
    diskFull, // ENOSPC, EDQUOT: the disk or the user's quota is full
    fileTooLarge, // EFBIG: the file system's (or the process's) size limit
    ioError, // anything else the disk answered
    fileRemoved, // the file (or its folder) is gone from the disk while recording
};

// The failure an errno from a failed write means.
[[nodiscard]] constexpr WriteFailure writeFailureOf(int error)
{
    switch (error) {
    case ENOSPC:
    case EDQUOT:
        return WriteFailure::diskFull;
    case EFBIG:
        return WriteFailure::fileTooLarge;
    default:
        return WriteFailure::ioError;
    }
}
