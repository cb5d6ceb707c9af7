// Captures what the logger writes to standard error while it lives, so
// tests can check exact messages.
#pragma once

#include <string>

class LogCapture {
public:
    LogCapture();   // from now on standard error goes to a private file
    ~LogCapture();  // standard error is restored
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Everything written so far.
    std::string Text() const;
    // Number of lines that contain `needle`.
    int Count(const std::string& needle) const;

private:
    int m_saved = -1;
    int m_file = -1;
};
