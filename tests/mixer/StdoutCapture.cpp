#include "StdoutCapture.h"

#include <QString>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

StdoutCapture::StdoutCapture()
{
    char name[] = "/tmp/stdout-capture-XXXXXX";
    m_file = mkstemp(name);
    if (m_file < 0)
        return;
    unlink(name);
    std::fflush(stdout);
    m_saved = dup(STDOUT_FILENO);
    dup2(m_file, STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture()
{
    finish();
}

QStringList StdoutCapture::finish()
{
    if (m_saved < 0)
        return m_lines;
    std::fflush(stdout);
    dup2(m_saved, STDOUT_FILENO);
    close(m_saved);
    m_saved = -1;
    QByteArray text;
    lseek(m_file, 0, SEEK_SET);
    char buffer[4096];
    for (ssize_t got; (got = read(m_file, buffer, sizeof buffer)) > 0;)
        text.append(buffer, got);
    close(m_file);
    m_lines = QString::fromUtf8(text).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return m_lines;
}
