#pragma once

#include <QtGlobal>

// The symbols the screens show, named after the design's symbol set.
enum class Symbol : quint8 {
    recordCircle, // the Record button
    pauseFill, // Pause
    playFill, // Resume
    trash, // Discard
    checkmark, // Save, the granted permission badge
    checkmarkCircleFill, // the "sent" status line
    waveform, // the recording status line (WaveformIndicator animates it)
};
