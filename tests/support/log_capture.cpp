#include "log_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

LogCapture::LogCapture()
{
    char path[] = "/tmp/vtest-log-XXXXXX";
    m_file = mkstemp(path);
    if (m_file < 0) return;
    unlink(path);
    fflush(stderr);
    m_saved = dup(STDERR_FILENO);
    dup2(m_file, STDERR_FILENO);
}

LogCapture::~LogCapture()
{
    fflush(stderr);
    if (m_saved >= 0) {
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
    }
    if (m_file >= 0) close(m_file);
}

std::string LogCapture::Text() const
{
    fflush(stderr);
    std::string text;
    char buffer[4096];
    for (off_t at = 0;;) {
        ssize_t n = pread(m_file, buffer, sizeof buffer, at);
        if (n <= 0) break;
        text.append(buffer, static_cast<size_t>(n));
        at += n;
    }
    return text;
}

int LogCapture::Count(const std::string& needle) const
{
    std::istringstream lines(Text());
    int count = 0;
    for (std::string line; std::getline(lines, line);)
        if (line.find(needle) != std::string::npos) count++;
    return count;
}
