#include "ShellLine.h"

#include <vector>

#include "MonitorHub.h"

namespace {

bool is_line_end(char c)
{
    return c == '\n' || c == '\r';
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

// A printable, non-blank ASCII character: usable as escape or separator.
bool is_marker_char(const std::string& word)
{
    return word.size() == 1 && word[0] > ' ' && word[0] < 0x7f;
}

void parse_invalid(ShellCommand& command, const std::string& message)
{
    command.kind = ShellCommand::kInvalid;
    command.error = message;
}

void parse_shell(const std::vector<std::string>& words, ShellCommand& command)
{
    if (words.size() != 3 || !is_marker_char(words[1]) || !is_marker_char(words[2]) || words[1] == words[2])
        return parse_invalid(command, "usage: shell <escape> <separator> (two different printable characters)");
    command.kind = ShellCommand::kShell;
    command.escape = words[1][0];
    command.separator = words[2][0];
}

void parse_header(const std::vector<std::string>& words, ShellCommand& command)
{
    if (words.size() != 2 || (words[1] != "on" && words[1] != "off"))
        return parse_invalid(command, "usage: .header on|off");
    command.kind = ShellCommand::kHeader;
    command.header = words[1] == "on";
}

unsigned monitor_word_bit(const std::string& word)
{
    if (word == "select") return kMonitorSelect;
    if (word == "insert") return kMonitorInsert;
    if (word == "update") return kMonitorUpdate;
    if (word == "delete") return kMonitorDelete;
    return 0;
}

void parse_monitor(const std::vector<std::string>& words, ShellCommand& command)
{
    if (words.size() < 2 || words[1].size() > kShellMaxTableName)
        return parse_invalid(command, "usage: monitor <table> [select] [insert] [update] [delete]");
    unsigned ops = 0;
    for (size_t i = 2; i < words.size(); ++i) {
        unsigned bit = monitor_word_bit(words[i]);
        if (bit == 0) return parse_invalid(command, "unknown monitor operation: " + words[i].substr(0, 40));
        ops |= bit;
    }
    command.kind = ShellCommand::kMonitor;
    command.table = words[1];
    command.ops = ops ? ops : kMonitorChanges;
}

}  // namespace

std::vector<std::string> sim_split_words(const std::string& line)
{
    std::vector<std::string> words;
    for (size_t at = 0; at < line.size();) {
        while (at < line.size() && is_blank(line[at])) ++at;
        size_t end = at;
        while (end < line.size() && !is_blank(line[end])) ++end;
        if (end > at) words.push_back(line.substr(at, end - at));
        at = end;
    }
    return words;
}

size_t LineAssembler::Feed(const char* data, size_t len, Result& result)
{
    if (m_complete) {
        m_line.clear();
        m_complete = false;
    }
    result = kNeedMore;
    for (size_t i = 0; i < len; ++i) {
        char c = data[i];
        if (m_ends == kLf ? c == '\n' : is_line_end(c)) {
            if (m_tooLong) {
                m_tooLong = false;
                m_line.clear();
                result = kTooLong;
                return i + 1;
            }
            if (m_ends == kLf && !m_line.empty() && m_line.back() == '\r') m_line.pop_back();
            else if (m_ends == kCrOrLf && m_line.empty()) continue;
            m_complete = true;
            result = kLine;
            return i + 1;
        }
        if (m_tooLong) continue;
        if (m_line.size() == m_max) {
            m_tooLong = true;
            m_line.clear();
            continue;
        }
        m_line.push_back(c);
    }
    return len;
}

void shell_parse_command(const std::string& line, ShellCommand& command)
{
    command = ShellCommand();
    size_t start = 0;
    while (start < line.size() && is_blank(line[start])) ++start;
    size_t end = start;
    while (end < line.size() && !is_blank(line[end])) ++end;
    const std::string verb = line.substr(start, end - start);
    // SQL lines can be long: only directives are split into words.
    if (verb == "comment") command.kind = ShellCommand::kComment;
    else if (verb == "shell") parse_shell(sim_split_words(line), command);
    else if (verb == ".header") parse_header(sim_split_words(line), command);
    else if (verb == "monitor") parse_monitor(sim_split_words(line), command);
    else if (verb == ".quit" || verb == ".exit") command.kind = ShellCommand::kQuit;
    else if (!verb.empty() && verb[0] == '.') parse_invalid(command, "unknown command: " + verb.substr(0, 40));
}
