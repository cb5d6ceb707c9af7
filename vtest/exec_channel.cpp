#include "exec_channel.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "TimeSpan.h"
#include "exit_status.h"
#include "utils.h"

ExecChannel::ExecChannel(const ExecOptions& options) : Api(options.server, strPrompt), m_options(options)
{
    Timeout(options.timeout);
    options.server.Str(m_serverText, true);
}

int ExecChannel::Run(const std::string& command)
{
    int earlier = 0;
    int rv = Ready(earlier);
    if (rv == 0 && (earlier == 0 || m_options.keepGoing)) rv = Send(command);
    fflush(stdout);
    return earlier ? earlier : rv;
}

// Brings the connection to a real prompt before a command is sent. Bytes
// waiting mean the last prompt was the start of a line: of the previous
// command's output (printed; its status in `earlier`) or, on a fresh
// connection, of the greeting (skipped). End-of-file waiting is the daemon
// closing between commands: connect again. 0, or 2 when no connection.
int ExecChannel::Ready(int& earlier)
{
    // A close met again on the connection just made is no daemon closing
    // between commands: reconnecting would go on for ever.
    bool fresh = false;
    for (;;) {
        int pending = Pending();
        if (pending == 0) return 0;
        if (pending > 0 && m_previous.empty()) {
            SkipGreeting();
        } else if (pending > 0) {
            TakeBackPrompt();
            int rv = Finish(m_previous);
            if (!earlier) earlier = rv;
            if (earlier && !m_options.keepGoing) return 0;
        } else if (fresh) {
            Forget();
            return Failed(kExitCannotConnect, "cannot connect to %s: closed before the prompt.", m_serverText);
        } else {
            Forget();
            if (!ConnectWithRetries()) return kExitCannotConnect;
            fresh = true;
        }
    }
}

void ExecChannel::Forget()
{
    Disconnect();
    m_previous.clear();
}

bool ExecChannel::ConnectWithRetries()
{
    for (long attempt = 1;; attempt++) {
        int err = Attempt();
        if (err == 0) return true;
        if (m_options.retries != -1 && attempt > m_options.retries) {
            std::string reason = strerror(-err);
            if (err == -EPIPE) reason = "closed before the prompt";
            if (err == -ETIMEDOUT) reason = "no answer within " + std::to_string(m_options.timeout) + " s";
            if (attempt > 1) reason += " (" + std::to_string(attempt) + " attempts)";
            (void)Failed(kExitCannotConnect, "cannot connect to %s: %s.", m_serverText, reason.c_str());
            return false;
        }
        TimeSpan::Sleep(1L, 1);
    }
}

// One connection that stands at a real prompt (greeting lines that begin
// with the prompt text skipped): 0, or the negated errno, -EPIPE for a
// close right behind the prompt.
int ExecChannel::Attempt()
{
    if (!Connect() || LastError()) return LastError();
    int pending;
    while ((pending = Pending()) > 0) SkipGreeting();
    if (pending == 0) return 0;
    int err = LastError() ? LastError() : -EPIPE;
    Disconnect();
    return err;
}

void ExecChannel::SkipGreeting()
{
    while (ReadLineOrPrompt(m_text, sizeof m_text)) {
    }
}

int ExecChannel::Send(const std::string& command)
{
    if (m_options.echo) printf("#> %s\n", command.c_str());
    m_previous = command;
    m_errorLine = false;
    m_midLine = false;
    m_lastEnd = 0;
    m_head.clear();
    if (!Exec(command.c_str())) {
        int err = -LastError();
        Forget();
        return Failed(kExitCannotConnect, "cannot send '%s' to %s: %s.", command.c_str(), m_serverText, strerror(err));
    }
    return Finish(command);
}

// After the prompt (or a read error) of `command`'s output. Bytes waiting
// behind the prompt mean it began an output line: it is printed with the
// rest of that line and the output goes on to the next prompt.
int ExecChannel::Finish(const std::string& command)
{
    for (;;) {
        if (LastError()) return Cut(command);
        if (Pending() <= 0) break;
        TakeBackPrompt();
    }
    if (m_midLine) Print("", '\n');  // the output ended inside a long line
    if (!m_errorLine) return 0;
    m_errorLine = false;
    return Failed(kExitRefused, "'%s' failed on %s.", command.c_str(), m_serverText);
}

void ExecChannel::TakeBackPrompt()
{
    Print(strPrompt, 0);
    while (ReadLineOrPrompt(m_text, sizeof m_text)) Print(m_text, LastLineEnd());
}

// The output was cut by a close or a time-out: the cut line is printed too.
int ExecChannel::Cut(const std::string& command)
{
    int err = -LastError();
    if (!Partial().empty() || m_midLine) Print(Partial().c_str(), '\n');
    m_previous.clear();
    if (err == ETIMEDOUT)
        return Failed(kExitTimeout, "no answer from %s to '%s' within %d s.", m_serverText, command.c_str(),
                      m_options.timeout);
    if (err == EPIPE) return Failed(kExitLost, "connection to %s closed during '%s'.", m_serverText, command.c_str());
    return Failed(kExitLost, "connection to %s lost during '%s': %s.", m_serverText, command.c_str(), strerror(err));
}

void ExecChannel::HandleOutput(const char* out) { Print(out, LastLineEnd()); }

// Pieces of a long line are joined; CR LF is one line end.
void ExecChannel::Print(const char* text, char end)
{
    if (!m_midLine && m_lastEnd == '\r' && end == '\n' && *text == '\0') {
        m_lastEnd = end;
        return;
    }
    fputs(text, stdout);
    CheckPrefix(text);
    m_midLine = end == 0;
    m_lastEnd = end;
    if (m_midLine) return;
    putchar('\n');
    m_head.clear();
}

void ExecChannel::CheckPrefix(const char* text)
{
    const std::string& prefix = m_options.errorPrefix;
    if (prefix.empty() || m_head.size() >= prefix.size()) return;
    m_head.append(text, strnlen(text, prefix.size() - m_head.size()));
    if (m_head == prefix) m_errorLine = true;
}

int ExecChannel::Failed(int status, const char* format, ...)
{
    fflush(stdout);
    fputs("Error: ", stderr);
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    return status;
}
