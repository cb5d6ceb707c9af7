#include "CommandSession.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "Sock.h"
#include "ShellLine.h"
#include "SimOptions.h"
#include "daemon.h"
#include "debugger.h"
#include "utils.h"

namespace {

// A sleep looks at the stop flags this often.
const int kSleepSliceMs = 50;

// The first word of `line` (empty when none), with `end` set just after it.
std::string first_word(const std::string& line, size_t& end)
{
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos) {
        end = line.size();
        return "";
    }
    end = std::min(line.find_first_of(" \t", start), line.size());
    return line.substr(start, end - start);
}

// Keeps what is printed to it, so that the connection table goes out as
// one answer. Not a connection: every descriptor operation fails.
class TextSock : public Sock {
public:
    TextSock() : Sock(SockAddr()) {}
    std::string text;

    bool Create() override { return false; }
    bool Bind() override { return false; }
    bool Listen(int) override { return false; }
    bool AcceptListAdd(fd_set&, int&) override { return false; }
    Sock* AcceptListCheck(fd_set&) override { return nullptr; }
    bool Connect() override { return false; }
    void Disconnect() override {}
    bool IsConnected() override { return false; }
    bool SetKeepAlive(int, int, int) override { return false; }
    int vprintf(const char* format, va_list args) override
    {
        va_list measure;
        va_copy(measure, args);
        int n = vsnprintf(nullptr, 0, format, measure);
        va_end(measure);
        if (n < 0) return -EINVAL;
        size_t at = text.size();
        text.resize(at + static_cast<size_t>(n) + 1);
        vsnprintf(&text[at], static_cast<size_t>(n) + 1, format, args);
        text.resize(at + static_cast<size_t>(n));
        return n;
    }
    ssize_t write(const void* buf, size_t len) override
    {
        text.append(static_cast<const char*>(buf), len);
        return static_cast<ssize_t>(len);
    }
    ssize_t read(void*, size_t, int) override { return -EPIPE; }
    bool WSelect(bool& ready, long, long) override { return ready = false; }
    bool RSelect(bool& ready, long, long) override { return ready = false; }
    FILE* File() override { return nullptr; }
    void Describe(Sock*) override {}
    bool NonBlocking(bool) override { return false; }
};

}  // namespace

struct CommandSession::Command {
    const char* word;
    Handler run;
    const char* synopsis;
    const char* description;
};

// The command words, matched whole and case-sensitively; "help" lists them.
const CommandSession::Command CommandSession::kCommands[] = {
    {"help", &CommandSession::Help, "help", "this list"},
    {"version", &CommandSession::Version, "version", "the daemon's version"},
    {"uptime", &CommandSession::Uptime, "uptime", "time since the daemon started"},
    {"status", &CommandSession::Status, "status", "the table of open connections"},
    {"echo", &CommandSession::Echo, "echo <text>", "<text> as one output line"},
    {"sleep", &CommandSession::Sleep, "sleep <ms>", "wait <ms> milliseconds (0 to 3600000), then the prompt"},
    {"quit", &CommandSession::Quit, "quit", "\"Bye.\" and close the connection"},
    {"serial", &CommandSession::Serial, "serial enum", "the RS-485 centrals on /dev/ttyS1"},
    // A second synopsis of the word above, for the list only.
    {nullptr, nullptr, "serial set <mac> <addr>", "give a central an RS-485 address (1 to 254)"},
};

CommandSession::CommandSession(ShellShared& shared, AnswerSink& out, const std::atomic<bool>& stop,
                               const std::string& peer)
    : m_shared(shared), m_sink(out), m_stop(stop), m_peer(peer)
{
    syslog_safe(7, "DBG %s:%d %s: command channel.", __FILE__, __LINE__, m_peer.c_str());
}

bool CommandSession::HandleLine(const std::string& line)
{
    if (line.size() > kSimMaxCommandLine) return HandleTooLong();
    size_t end;
    const std::string word = first_word(line, end);
    if (word.empty()) return Answer(true);  // an empty command: just the prompt
    // The arguments start after one blank: echo keeps any further ones.
    const std::string args = end < line.size() ? line.substr(end + 1) : std::string();
    for (const Command& command : kCommands)
        if (command.word && word == command.word) return Answer((this->*command.run)(args));
    Line("Error: Unknown command '" + sim_printable(word) + "'.");
    return Answer(true);
}

bool CommandSession::HandleTooLong()
{
    Line("Error: line longer than " + std::to_string(kSimMaxCommandLine) + " bytes.");
    return Answer(true);
}

void CommandSession::Line(const std::string& text)
{
    m_out += text;
    m_out += '\n';
}

// The output and the prompt in one write, so that the client's next read
// never waits for a second segment; after "quit" no prompt.
bool CommandSession::Answer(bool open)
{
    if (open) m_out += strPrompt;
    bool sent = m_sink.Write(m_out.data(), m_out.size());
    m_out.clear();
    return open && sent;
}

bool CommandSession::Help(const std::string&)
{
    Line("Commands:");
    for (const Command& command : kCommands) {
        char text[120];
        snprintf(text, sizeof text, "  %-25s %s", command.synopsis, command.description);
        Line(text);
    }
    return true;
}

bool CommandSession::Version(const std::string&)
{
    Line("vantor-sim " VTEST_VERSION);
    return true;
}

bool CommandSession::Uptime(const std::string&)
{
    long s = m_shared.started.Duration();
    char text[80];
    snprintf(text, sizeof text, "Up %ld days, %02ld:%02ld:%02ld (%ld s).", s / 86400, s / 3600 % 24, s / 60 % 60,
             s % 60, s);
    Line(text);
    return true;
}

bool CommandSession::Status(const std::string&)
{
    TextSock table;
    Sock::StatusReport(&table);
    m_out += table.text;
    return true;
}

bool CommandSession::Echo(const std::string& args)
{
    Line(args);
    return true;
}

bool CommandSession::Sleep(const std::string& args)
{
    long ms = 0;
    if (!sim_parse_number(args, 0, kSimMaxSleepMs, ms)) {
        Line("Error: Usage: sleep <ms> (0 to " + std::to_string(kSimMaxSleepMs) + ").");
        return true;
    }
    TimeSpan slept;
    for (int left; (left = static_cast<int>(ms) - slept.DurationMs()) > 0;) {
        if (m_stop || daemon_should_exit) return false;
        TimeSpan::Sleep(std::min(left, kSleepSliceMs), 1);
    }
    return true;
}

bool CommandSession::Quit(const std::string&)
{
    Line("Bye.");
    return false;
}

bool CommandSession::Serial(const std::string& args)
{
    std::vector<std::string> words = sim_split_words(args);
    if (words.size() == 1 && words[0] == "enum") {
        m_out += m_shared.centrals.Enum();
    } else if (words.size() == 3 && words[0] == "set") {
        std::string answer = m_shared.centrals.Set(words[1], words[2]);
        if (answer.compare(0, 6, "Error:") != 0)
            syslog_safe(6, "<CommandSession> %s: %s", m_peer.c_str(), answer.c_str());
        Line(answer);
    } else {
        Line("Error: Usage: serial enum | serial set <mac> <addr>.");
    }
    return true;
}

bool sim_is_shell_line(const std::string& line)
{
    size_t end;
    const std::string word = first_word(line, end);
    return word == "comment" || word == "shell" || word == "monitor";
}
