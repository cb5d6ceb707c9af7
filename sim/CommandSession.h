// The daemon's command channel on the simulated unit's service port: one
// command per line, answered with its output lines (each ended by LF) and
// the prompt "#> ", all in one write (docs/protocol.md).
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "ShellSession.h"

// Longest command line taken, in bytes without the line end: the client's
// formatted write sends at most 7998 bytes and the LF.
constexpr size_t kSimMaxCommandLine = 8000;
// Longest "sleep", in milliseconds.
constexpr long kSimMaxSleepMs = 3600000;

class CommandSession {
public:
    // `stop` ends a sleep early (the connection is being closed); `peer`
    // names the client in log lines.
    CommandSession(ShellShared& shared, AnswerSink& out, const std::atomic<bool>& stop, const std::string& peer);
    CommandSession(const CommandSession&) = delete;
    CommandSession& operator=(const CommandSession&) = delete;

    // Answers one command line (without its line end). False when the
    // connection is to be closed: after "quit", or when the peer is gone.
    bool HandleLine(const std::string& line);
    // Answers a line longer than the assembler's limit.
    bool HandleTooLong();

private:
    // One command: its output goes to m_out; false closes the connection.
    using Handler = bool (CommandSession::*)(const std::string& args);
    struct Command;
    static const Command kCommands[];

    bool Help(const std::string& args);
    bool Version(const std::string& args);
    bool Uptime(const std::string& args);
    bool Status(const std::string& args);
    bool Echo(const std::string& args);
    bool Sleep(const std::string& args);
    bool Quit(const std::string& args);
    bool Serial(const std::string& args);
    void Line(const std::string& text);
    bool Answer(bool open);

    ShellShared& m_shared;
    AnswerSink& m_sink;
    const std::atomic<bool>& m_stop;
    std::string m_peer;
    std::string m_out;
};

// True when the first line of a connection makes it the database shell's:
// its first word is "comment", "shell" or "monitor". Any other line makes
// it a command channel connection.
bool sim_is_shell_line(const std::string& line);
