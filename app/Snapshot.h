#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// Screenshots of every screen state for documentation and review, made from the
// real views on preview models: "--snapshot DIR" renders twelve PNG files of
// 760 × 860 pixels (the 380 × 430 window at 2×) into DIR and ends the program.
// Nothing real is touched: no session, secret store, network or sound server.
// Works without a display (QT_QPA_PLATFORM=offscreen).
class Snapshot
{
public:
    // The directory after the first "--snapshot"; nothing when there is no such
    // argument or it is the last one (then the application starts normally).
    [[nodiscard]] static std::optional<QString> requestedDirectory(const QStringList &arguments);

    // Renders the snapshots when the command line asks for them and answers
    // true (the caller then ends the process with status 0); answers false at
    // once otherwise. Needs a QApplication. Every failure (directory, render,
    // write) skips that file silently.
    [[nodiscard]] static bool runIfAsked(const QStringList &arguments);

    // The file names without ".png", in the order they are written.
    [[nodiscard]] static QStringList names();
};
