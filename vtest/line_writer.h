// Output lines for standard output, assembled in a buffer kept from line to
// line and handed to stdout's own buffer with one write each: no format is
// parsed per value, and once the buffer has grown to the widest line
// nothing is allocated. Used by the sql and time commands on the main thread
// only.
#pragma once

#include <string>

class LineWriter {
public:
    // The text up to its first NUL, as "%s" prints it.
    LineWriter& Text(const char* text)
    {
        m_line.append(text);
        return *this;
    }
    // Values and names split from a received line hold no NUL: whole.
    LineWriter& Text(const std::string& text)
    {
        m_line.append(text);
        return *this;
    }
    LineWriter& Char(char c)
    {
        m_line.push_back(c);
        return *this;
    }
    // As "%d" prints it.
    LineWriter& Int(int n) { return Int(n, 0); }
    // As "%0*lld" prints it: at least `width` digits, zeros in front.
    LineWriter& Int(long long n, int width);
    // Appends the newline and writes the line.
    void End();

private:
    std::string m_line;
};

// Full buffering, in a buffer larger than stdio's default, when standard
// output is not a terminal; line buffering stays on a terminal. Call before
// anything is written to standard output.
void stdout_buffer_fully();
