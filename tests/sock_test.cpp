// Line assembly and the live list, over a scripted connection: the input
// is a byte script whose gaps ('~' = nothing available once) and end (an
// error, optionally a disconnect) are chosen per case.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Socket.h"
#include "daemon.h"

namespace {

// Socket with Sock's line handling and scripted reads and writes: its
// descriptor is never touched.
class ScriptedSock : public Socket {
public:
    explicit ScriptedSock(std::string input = "", ssize_t end = -EPIPE, bool dropAtEnd = true)
        : Socket(SockAddr(AF_INET, 0x7f000001u, 3543)), m_input(std::move(input)), m_end(end), m_drop(dropAtEnd)
    {
        m_fd = 7;
    }
    ~ScriptedSock() override { m_fd = -1; }
    std::string m_sent;

    void Disconnect() override { m_fd = -1; }
    bool NonBlocking(bool on) override { return m_nonBlocking = on, true; }
    size_t ReadBuffered(char* buf, size_t len) override { return Sock::ReadBuffered(buf, len); }
    int ProcessCompleteLine(char* line, int len) override { return Sock::ProcessCompleteLine(line, len); }
    ssize_t write(const void* buf, size_t len) override
    {
        m_sent.append(static_cast<const char*>(buf), len);
        return static_cast<ssize_t>(len);
    }
    ssize_t read(void* buf, size_t len, int) override
    {
        if (len != 1) return -EINVAL;
        if (m_at >= m_input.size()) {
            if (m_drop) Disconnect();
            return m_end;
        }
        char c = m_input[m_at++];
        if (c == '~') return 0;
        *static_cast<char*>(buf) = c;
        m_rxBytes++;
        return 1;
    }

private:
    std::string m_input;
    size_t m_at = 0;
    ssize_t m_end;
    bool m_drop;
};

// Each read as "rv complete|text".
std::vector<std::string> ReadAll(ScriptedSock& s, size_t count)
{
    std::vector<std::string> got;
    for (bool complete = true; got.size() < count; complete = true) {
        int rv = s.ReadLine(complete);
        got.push_back(std::to_string(rv) + " " + std::to_string(complete) + "|" + s.RxBuffer());
    }
    return got;
}

TEST(Sock, LineAssemblyAcrossTerminators)
{
    const std::string E = std::to_string(-ESPIPE);
    const struct {
        std::string input;
        std::vector<std::string> reads;
        ssize_t end = -EPIPE;
        bool drop = true, nonBlocking = false;
    } cases[] = {
        {"abc\n", {"3 1|abc", E + " 0|"}},
        {"\n\nabc\n", {"0 0|", "0 0|", "3 1|abc"}},
        {"ab\r\ncd\n", {"2 1|ab", "0 0|", "2 1|cd"}},
        {"a\vb\n", {"2 1|ab"}},
        {"\vx\v\vy\r", {"0 0|", "2 1|xy"}},  // a leading "\v" reads as an empty line
        {"a~b~\n", {"2 1|ab"}},  // nothing available: sleeps, then goes on
        {"ab", {E + " 0|ab"}},  // the peer closes mid-line
        {std::string("a\0b\n", 4), {"3 1|a"}},  // a NUL byte is line content
        {"ab", {"-5 0|ab"}, -EIO, false},  // an error without a disconnect is passed on
        {"ab~~c\n", {"2 0|ab", "2 0|ab", "3 1|abc"}, 0, false, true},  // non-blocking: partial lines, kept
    };
    for (const auto& c : cases) {
        ScriptedSock s(c.input, c.end, c.drop);
        s.NonBlocking(c.nonBlocking);
        EXPECT_EQ(ReadAll(s, c.reads.size()), c.reads) << c.input;
    }
}

// A line longer than size - 1 comes in pieces, and nothing is written
// past the buffer: the bytes after it are a canary.
TEST(Sock, LongLinesComeInPiecesWithinTheBuffer)
{
    const struct { const char* input; std::vector<std::string> reads; } cases[] = {
        {"abcdefg\n", {"3 0|abc", "3 0|def", "1 1|g"}},
        {"abc\nd\n", {"3 0|abc", "0 0|", "1 1|d"}},
        {"ab\v\vcde\n", {"3 0|abc", "2 1|de"}},
    };
    for (const auto& c : cases) {
        ScriptedSock s(c.input);
        char area[4 + 8];
        memset(area, '#', sizeof area);
        int pos = 0;
        std::vector<std::string> got;
        for (bool complete; got.size() < c.reads.size();) {
            int rv = s.ReadLine(area, 4, &pos, complete);
            got.push_back(std::to_string(rv) + " " + std::to_string(complete) + "|" + area);
        }
        EXPECT_EQ(got, c.reads) << c.input;
        EXPECT_EQ(std::string(area + 4, 8), "########") << c.input;
    }
}

TEST(Sock, BadSizesAndPositionsAreRefusedUntouched)
{
    ScriptedSock s("abc\n");
    char buf[4] = {'x', 'x', 'x', 'x'};
    int pos = 4;
    bool complete = true;
    EXPECT_EQ(s.ReadLine(buf, 4, &pos, complete), -EINVAL);
    EXPECT_EQ(pos, 4);
    EXPECT_EQ(s.ReadIncompleteLine(buf, 0, nullptr), -EINVAL);
    EXPECT_EQ(std::string(buf, 4), "xxxx");
    pos = 0;
    EXPECT_EQ(s.ReadIncompleteLine(1, &pos), 0);  // room for the NUL only: reads nothing
    EXPECT_EQ(s.ReadIncompleteLine(-1, &pos), 3);
    EXPECT_EQ(s.RxBuffer()[3], '\n');
}

// The exit flag stops assembly; complete lines are counted twice.
TEST(Sock, ExitFlagAndByteCount)
{
    ScriptedSock s("abc\n\n");
    daemon_should_exit = true;
    EXPECT_EQ(s.ReadLine(), 0);
    daemon_should_exit = false;
    EXPECT_EQ(ReadAll(s, 2), (std::vector<std::string>{"3 1|abc", "0 0|"}));
    EXPECT_EQ(s.RxBytes(), 5u + 3u);
}

// The rows are Socket's own (descriptor, received, sent, address, name).
TEST(Sock, StatusReportListsLiveConnectionsInCreationOrder)
{
    const std::string rule(85, '-'), row = " 127.0.0.1:3543 Sock 127.0.0.1:3543\n";
    const std::string header = "\nS o c k e t s\n" + rule + "\n FD  RX bytes  TX bytes  From, name\n" + rule + "\n";
    ScriptedSock out;
    Sock::StatusReport(&out);
    EXPECT_EQ(out.m_sent, header + "   7         0         0" + row);
    {
        ScriptedSock other("x\n");
        other.ReadLine();
        out.m_sent.clear();
        Sock::StatusReport(&out);
        EXPECT_EQ(out.m_sent, header + "   7         0         0" + row + "   7         3         0" + row);
    }
    Sock::CloseAll();
    EXPECT_FALSE(out.IsConnected());
    ScriptedSock later;  // a closed connection cannot take the listing
    Sock::StatusReport(&later);
    EXPECT_EQ(later.m_sent, header + "  -1         0         0" + row + "   7         0         0" + row);
}

TEST(Debuggable, StatusReportListsTheRegistry)
{
    ScriptedSock out;
    Debuggable named("item %d", 2);
    char row[64];
    std::string expected = "\nD e b u g g a b l e ( 2 )\nPtr      Name\n" + std::string(56, '-') + "\n";
    for (Debuggable* d : {static_cast<Debuggable*>(&out), &named}) {
        snprintf(row, sizeof row, "%08x %s\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(d)),
                 d == &named ? "item 2" : "Sock 127.0.0.1:3543");
        expected += row;
    }
    Debuggable::StatusReport(&out);
    EXPECT_EQ(out.m_sent, expected);
}

}  // namespace
