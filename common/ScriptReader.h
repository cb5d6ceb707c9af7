// Reads a script (SQL statements for sql_file and sql --stdin, daemon
// commands for exec --file and --stdin) line by line from a descriptor, as
// the lines arrive, never holding more than one line of at most `cap` bytes.
//
// LF or CR LF ends a line (the last may lack one); blanks and tabs are cut
// at both ends; lines that are then empty or begin with "#" are skipped
// however long, but counted. A UTF-8 byte-order mark at the very start is
// dropped. A line holding a NUL byte or a lone CR, or longer than `cap`
// bytes before the cut, is refused whole: it is never handed out in pieces.
#pragma once

#include <cstddef>
#include <string>

class ScriptReader {
public:
    enum Result {
        kLine,     // Text() is the line, Number() its line number
        kRefused,  // Reason() says why, Number() which line, Preview() its start
        kEnd,      // no more input
        kError,    // a read failed: Errno() (the line in progress is lost)
    };

    // Reads fd (not owned, not closed). cap: the longest line taken, in bytes.
    ScriptReader(int fd, size_t cap);
    ScriptReader(const ScriptReader&) = delete;
    ScriptReader& operator=(const ScriptReader&) = delete;

    // The next line to run, or why there is none.
    Result Next();

    const std::string& Text() const { return m_text; }
    // 1 for the first line of the input.
    int Number() const { return m_number; }
    // For kRefused: "line holds a NUL byte", "line holds a lone carriage
    // return" or "line longer than <cap> bytes".
    const std::string& Reason() const { return m_reason; }
    // For kRefused: the refused line's first 80 bytes, control bytes and
    // bytes from 0x7f as \xNN, "..." appended when the line was longer.
    std::string Preview() const;
    // For kError: the positive errno of the failed read.
    int Errno() const { return m_errno; }

private:
    bool Fill();
    // The next byte, or -1 at the end of input or on an error (m_errno).
    int Get();
    void DropByteOrderMark();
    void Unget() { m_pos--; }

    int m_fd;
    size_t m_cap;
    char m_buf[65536];
    size_t m_pos = 0;
    size_t m_end = 0;
    bool m_atStart = true;
    bool m_eof = false;
    int m_errno = 0;
    int m_number = 0;
    std::string m_text;
    std::string m_head;  // the first bytes of the current line, for Preview
    bool m_headCut = false;
    std::string m_reason;
};
