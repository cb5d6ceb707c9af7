// The request side of the database shell protocol: splitting received bytes
// into lines, and telling directives from SQL.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Longest request line the server takes, in bytes without the line end.
constexpr size_t kShellMaxLine = 65535;
// Longest table name a monitor request may carry.
constexpr size_t kShellMaxTableName = 255;

// Splits a byte stream into lines.
class LineAssembler {
public:
    enum Result {
        kNeedMore,  // all bytes taken, no line complete yet
        kLine,      // Line() holds a complete line, without its end
        kTooLong,   // a line longer than the limit ended; its bytes were dropped
    };
    enum Ends {
        kCrOrLf,  // database shell requests: CR or LF ends a line and empty
                  // lines are skipped, so the client's CR LF ends one line
        kLf,      // command lines: LF or CR LF ends a line, empty lines count
    };
    explicit LineAssembler(size_t maxLine = kShellMaxLine, Ends ends = kCrOrLf) : m_max(maxLine), m_ends(ends) {}
    // Applies from the next byte on.
    void SetEnds(Ends ends) { m_ends = ends; }

    // Takes bytes from `data` up to the end of the first line that completes.
    // Returns how many bytes were taken; call again with the rest.
    size_t Feed(const char* data, size_t len, Result& result);
    const std::string& Line() const { return m_line; }

private:
    size_t m_max;
    Ends m_ends;
    std::string m_line;
    bool m_complete = false;  // m_line was handed out and is cleared on the next Feed
    bool m_tooLong = false;   // dropping the rest of an over-long line
};

// One request line, classified.
struct ShellCommand {
    enum Kind {
        kSql,      // anything that is no directive: SQL for the database
        kComment,  // "comment ..." identification
        kShell,    // "shell <escape> <separator>"
        kHeader,   // ".header on|off"
        kMonitor,  // "monitor <table> [select] [insert] [update] [delete]"
        kQuit,     // ".quit" or ".exit": the server closes the connection
        kInvalid,  // a malformed directive; `error` says why
    };
    Kind kind = kSql;
    char escape = '\\';
    char separator = '|';
    bool header = false;
    std::string table;
    unsigned ops = 0;   // kMonitor* bits; a bare monitor request means every change
    std::string error;  // the message of an "Error: " answer, for kInvalid
};

// The words of `line`, split at blanks and tabs.
std::vector<std::string> sim_split_words(const std::string& line);

// Classifies `line`; never fails (a malformed directive becomes kInvalid).
void shell_parse_command(const std::string& line, ShellCommand& command);
