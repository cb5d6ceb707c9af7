// Line assembly and the live lists over a scripted connection: gaps ('~' = nothing available once) and
// the end (an error, optionally a disconnect) chosen per case.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "Socket.h"
#include "daemon.h"

namespace {

// A Socket whose reads and writes are scripted: its descriptor is never touched.
struct ScriptedSock : Socket {
    explicit ScriptedSock(std::string input = "", ssize_t end = -EPIPE, bool drop = true, bool nonBlocking = false)
        : Socket(SockAddr(AF_INET, 0x7f000001u, 3543)), m_input(std::move(input)), m_end(end), m_drop(drop)
    { m_fd = 7, m_nonBlocking = nonBlocking; }
    ~ScriptedSock() override { m_fd = -1; }
    void Disconnect() override { m_fd = -1; }
    // Sock's own hooks, as a connection without a read-ahead or checksums has them.
    size_t ReadBuffered(char* buf, size_t len) override { return Sock::ReadBuffered(buf, len); }
    int ProcessCompleteLine(char* line, int len) override { return Sock::ProcessCompleteLine(line, len); }
    ssize_t write(const void* buf, size_t len) override { return m_sent.append((const char*)buf, len), ssize_t(len); }
    ssize_t read(void* buf, size_t len, int) override
    {
        if (len != 1) return -EINVAL;
        if (m_at >= m_input.size()) return m_drop ? (Disconnect(), m_end) : m_end;
        if (m_input[m_at] == '~') return m_at++, 0;
        *static_cast<char*>(buf) = m_input[m_at++];
        return m_rxBytes++, 1;
    }
    std::string m_sent, m_input;
    size_t m_at = 0;
    const ssize_t m_end;  // what a read past the input gives, after a disconnect if m_drop
    const bool m_drop;
};

// Each read as "rv complete|text"; a line longer than size - 1 comes in pieces, nothing written past them.
TEST(Sock, LineAssemblyAcrossTerminatorsGapsAndEnds)
{
    const std::string E = std::to_string(-ESPIPE);
    const struct { const char* label; std::string input; int size; std::vector<std::string> reads;
                   ssize_t end = -EPIPE; bool drop = true, nonBlocking = false, exiting = false; } cases[] = {
        {"empties, CR LF, the end", "\n\nab\r\ncd\n", 9, {"0 0|", "0 0|", "2 1|ab", "0 0|", "2 1|cd", E + " 0|"}},
        {"leading vertical tab: an empty line", "\vx\v\vy\r", 9, {"0 0|", "2 1|xy"}},
        {"nothing available: sleeps, goes on", "a~b~\n", 9, {"2 1|ab"}},
        {"NUL is content; the peer closes mid-line", std::string("a\0b\nab", 6), 9, {"3 1|a", E + " 0|ab"}},
        {"error without a disconnect passed on", "ab", 9, {"-5 0|ab"}, -EIO, false},
        {"non-blocking: partial lines kept", "ab~~c\n", 9, {"2 0|ab", "2 0|ab", "3 1|abc"}, -EAGAIN, false, true},
        {"exit flag stops assembly", "abc\n", 9, {"0 0|"}, -EPIPE, true, false, true},
        {"pieces of size - 1", "abcdefg\n", 4, {"3 0|abc", "3 0|def", "1 1|g"}},
        {"terminator after a full piece", "abc\nd\n", 4, {"3 0|abc", "0 0|", "1 1|d"}},
        {"vertical tabs across pieces", "ab\v\vcde\n", 4, {"3 0|abc", "2 1|de"}},
    };
    for (const auto& c : cases) {
        ScriptedSock s(c.input, c.end, c.drop, c.nonBlocking);
        daemon_should_exit = c.exiting;
        std::string area(size_t(c.size) + 8, '#');
        int pos = 0;
        std::vector<std::string> got;
        for (bool complete; got.size() < c.reads.size();) {
            int rv = s.ReadLine(&area[0], c.size, &pos, complete);
            got.push_back(std::to_string(rv) + " " + std::to_string(complete) + "|" + area.c_str());
        }
        daemon_should_exit = false;
        EXPECT_EQ(got, c.reads) << c.label;
        EXPECT_EQ(area.substr(size_t(c.size)), "########") << c.label;
    }
    // Bad sizes and positions are refused, the buffer untouched.
    ScriptedSock s("abc\n");
    char buf[4] = {'x', 'x', 'x', 'x'};
    int pos = 4, start = 0;
    bool complete = true;
    EXPECT_TRUE(s.ReadLine(buf, 4, &pos, complete) == -EINVAL && pos == 4);
    EXPECT_TRUE(s.ReadIncompleteLine(buf, 0, nullptr) == -EINVAL && std::string(buf, 4) == "xxxx");
    EXPECT_EQ(s.ReadIncompleteLine(1, &start), 0);  // room for the NUL only: reads nothing
    EXPECT_TRUE(s.ReadIncompleteLine(-1, &start) == 3 && s.RxBuffer()[3] == '\n');
}

// Sock's rows are Socket's own (descriptor, received, sent, address, name), in creation order.
TEST(Sock, StatusReportsListLiveConnectionsAndTheRegistry)
{
    const std::string rule(85, '-'), row = " 127.0.0.1:3543 Sock 127.0.0.1:3543\n";
    ScriptedSock read("x\n");
    read.ReadLine();
    Sock::CloseAll();
    ScriptedSock out;  // made after CloseAll: a closed connection cannot take the listing
    Sock::StatusReport(&out);
    EXPECT_EQ(out.m_sent, "\nS o c k e t s\n" + rule + "\n FD  RX bytes  TX bytes  From, name\n" + rule +
                              "\n  -1         3         0" + row + "   7         0         0" + row);
    out.m_sent.clear();
    Debuggable named("item %d", 2);
    std::string expected = "\nD e b u g g a b l e ( 3 )\nPtr      Name\n" + std::string(56, '-') + "\n";
    char line[64];
    for (Debuggable* d : {static_cast<Debuggable*>(&read), static_cast<Debuggable*>(&out), &named})
        snprintf(line, sizeof line, "%08x %s", unsigned(uintptr_t(d)), d == &named ? "item 2\n" : row.c_str() + 16),
            expected += line;
    Debuggable::StatusReport(&out);
    EXPECT_EQ(out.m_sent, expected);
}

}  // namespace
