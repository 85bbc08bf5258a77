#pragma once

#include <QStringList>

// Sends this process's standard output (file descriptor 1) to a temporary file while
// it lives, so a test can read what the code under test printed there.
class StdoutCapture
{
public:
    StdoutCapture();
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;

    // Restores standard output (once) and answers every line printed meanwhile.
    QStringList finish();

private:
    int m_saved = -1;
    int m_file = -1;
    QStringList m_lines;
};
