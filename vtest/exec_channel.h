// exec's side of the command channel: runs one command at a time over one
// connection and prints its output, and says how each command ended.
#pragma once

#include <string>

#include "Api.h"

struct ExecOptions {
    SockAddr server;
    int timeout = 30;       // seconds, for Api::Timeout
    long retries = 0;       // more connection attempts one second apart; -1: for ever
    bool keepGoing = false;
    std::string errorPrefix = "Error:";  // empty: no output line fails a command
    bool echo = false;      // "#> <command>" before each output
};

class ExecChannel : public Api {
public:
    explicit ExecChannel(const ExecOptions& options);

    // Sends `command` once its connection stands at a real prompt, prints
    // every output line and flushes standard output. Returns 0, or the exit
    // status of the first failure (reported on standard error): 1 an
    // output line starts with the error prefix, 2 no connection or the
    // send failed, 3 a time-out during the output, 4 the connection closed
    // during it. A late failure of the previous command's output counts
    // first; without keepGoing it keeps this command from being sent.
    int Run(const std::string& command);

    void HandleOutput(const char* out) override;

private:
    int Ready(int& earlier);
    bool ConnectWithRetries();
    int Attempt();
    void SkipGreeting();
    int Send(const std::string& command);
    int Finish(const std::string& command);
    void TakeBackPrompt();
    int Cut(const std::string& command);
    void Forget();
    void Print(const char* text, char end);
    void CheckPrefix(const char* text);
    int Failed(int status, const char* format, ...) __attribute__((format(printf, 3, 4)));

    ExecOptions m_options;
    char m_serverText[SockAddr::m_strLen];
    // The command sent last on the current connection (empty: none yet).
    std::string m_previous;
    bool m_midLine = false;  // the last thing printed was a piece of a line
    char m_lastEnd = 0;      // how the last printed line ended
    std::string m_head;      // the current line's start, up to the prefix length
    bool m_errorLine = false;
    char m_text[Api::kLineLen];
};
