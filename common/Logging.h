#pragma once

#include <QLoggingCategory>

// Every component logs under "app.selvaro.recorder.<category>". Each category is
// declared here once and defined in Logging.cpp, so the names stay in one place.
Q_DECLARE_LOGGING_CATEGORY(lcApi)
Q_DECLARE_LOGGING_CATEGORY(lcSession)
Q_DECLARE_LOGGING_CATEGORY(lcPairing)
Q_DECLARE_LOGGING_CATEGORY(lcRecorder)
Q_DECLARE_LOGGING_CATEGORY(lcDualRecorder)
Q_DECLARE_LOGGING_CATEGORY(lcMicRecorder)
Q_DECLARE_LOGGING_CATEGORY(lcSystemRecorder)
Q_DECLARE_LOGGING_CATEGORY(lcGlobalTap)
Q_DECLARE_LOGGING_CATEGORY(lcApplicationTap)
Q_DECLARE_LOGGING_CATEGORY(lcSystemAudioPermission)
Q_DECLARE_LOGGING_CATEGORY(lcMixer)
Q_DECLARE_LOGGING_CATEGORY(lcApp)

namespace Logging {
inline constexpr char subsystem[] = "app.selvaro.recorder";

// Routes Qt's messages to the systemd journal with SYSLOG_IDENTIFIER, the subsystem
// and the category as fields; without a journal socket they go to standard error.
void installJournalHandler();
} // namespace Logging
