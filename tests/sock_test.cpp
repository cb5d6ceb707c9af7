// Line assembly and the live list, over a scripted connection: the input
// is a byte script whose gaps ('~' = nothing available once) and end (an
// error, optionally a disconnect) are chosen per case.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Sock.h"
#include "daemon.h"

namespace {

class ScriptedSock : public Sock {
public:
    explicit ScriptedSock(std::string input = "", ssize_t end = -EPIPE, bool dropAtEnd = true)
        : Sock(SockAddr(AF_INET, 0x7f000001u, 3543)), m_input(std::move(input)), m_end(end), m_drop(dropAtEnd)
    {
        m_fd = 7;
        Listed(true);
    }
    ~ScriptedSock() override
    {
        Listed(false);
        Disconnect();
    }

    void Feed(const std::string& more) { m_input += more; }
    std::string m_sent;

    bool Create() override { return false; }
    bool Bind() override { return false; }
    bool Listen(int) override { return false; }
    bool AcceptListAdd(fd_set&, int&) override { return false; }
    Sock* AcceptListCheck(fd_set&) override { return nullptr; }
    bool Connect() override { return false; }
    void Disconnect() override { m_fd = -1; }
    bool IsConnected() override { return m_fd != -1; }
    bool SetKeepAlive(int, int, int) override { return false; }
    int vprintf(const char* format, va_list args) override
    {
        return static_cast<int>(write(m_txBuf, static_cast<size_t>(vsnprintf(m_txBuf, m_bufLen, format, args))));
    }
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
    bool WSelect(bool&, long, long) override { return false; }
    bool RSelect(bool&, long, long) override { return false; }
    FILE* File() override { return nullptr; }
    void Describe(Sock* out) override { out->printf("%4d %9u %9u %s %s\n", Fd(), RxBytes(), TxBytes(), Addr(), Name()); }
    bool NonBlocking(bool on) override { return m_nonBlocking = on, true; }

private:
    std::string m_input;
    size_t m_at = 0;
    ssize_t m_end;
    bool m_drop;
};

struct Read {
    int rv;
    bool complete;
    std::string text;
};

std::vector<Read> ReadAll(ScriptedSock& s, size_t count)
{
    std::vector<Read> got;
    for (size_t i = 0; i < count; i++) {
        bool complete = true;
        int rv = s.ReadLine(complete);
        got.push_back({rv, complete, s.RxBuffer()});
    }
    return got;
}

bool operator==(const Read& a, const Read& b) { return a.rv == b.rv && a.complete == b.complete && a.text == b.text; }
void PrintTo(const Read& r, std::ostream* os) { *os << "{" << r.rv << "," << r.complete << ",\"" << r.text << "\"}"; }

TEST(Sock, LineAssemblyAcrossTerminators)
{
    struct Case {
        std::string input;
        std::vector<Read> reads;
        ssize_t end = -EPIPE;
        bool drop = true;
    } cases[] = {
        {"abc\n", {{3, true, "abc"}, {-ESPIPE, false, ""}}},
        {"\n\nabc\n", {{0, false, ""}, {0, false, ""}, {3, true, "abc"}}},
        {"ab\r\ncd\n", {{2, true, "ab"}, {0, false, ""}, {2, true, "cd"}}},
        {"a\vb\n", {{2, true, "ab"}}},
        {"\vx\v\vy\r", {{0, false, ""}, {2, true, "xy"}}},  // a leading "\v" reads as an empty line
        {"a~b~\n", {{2, true, "ab"}}},  // nothing available: sleeps, then goes on
        {"ab", {{-ESPIPE, false, "ab"}}},  // the peer closes mid-line
        {std::string("a\0b\n", 4), {{3, true, "a"}}},  // a NUL byte is line content
        {"ab", {{-EIO, false, "ab"}}, -EIO, false},     // an error without a disconnect is passed on
    };
    for (const Case& c : cases) {
        ScriptedSock s(c.input, c.end, c.drop);
        EXPECT_EQ(ReadAll(s, c.reads.size()), c.reads) << c.input;
    }
}

TEST(Sock, NonBlockingReturnsPartialLinesAndKeepsThem)
{
    ScriptedSock s("ab", 0, false);
    s.NonBlocking(true);
    EXPECT_EQ(ReadAll(s, 2), (std::vector<Read>{{2, false, "ab"}, {2, false, "ab"}}));
    s.Feed("c\n");
    EXPECT_EQ(ReadAll(s, 1), (std::vector<Read>{{3, true, "abc"}}));
}

// A line longer than size - 1 comes in pieces, and nothing is written
// past the buffer: the bytes after it are a canary.
TEST(Sock, LongLinesComeInPiecesWithinTheBuffer)
{
    struct Case {
        const char* input;
        std::vector<Read> reads;
    } cases[] = {
        {"abcdefg\n", {{3, false, "abc"}, {3, false, "def"}, {1, true, "g"}}},
        {"abc\nd\n", {{3, false, "abc"}, {0, false, ""}, {1, true, "d"}}},
        {"ab\v\vcde\n", {{3, false, "abc"}, {2, true, "de"}}},
    };
    for (const Case& c : cases) {
        ScriptedSock s(c.input);
        char area[4 + 8];
        memset(area, '#', sizeof area);
        int pos = 0;
        for (const Read& want : c.reads) {
            bool complete = !want.complete;
            int rv = s.ReadLine(area, 4, &pos, complete);
            EXPECT_EQ((Read{rv, complete, area}), want) << c.input;
        }
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
    EXPECT_EQ(ReadAll(s, 2), (std::vector<Read>{{3, true, "abc"}, {0, false, ""}}));
    EXPECT_EQ(s.RxBytes(), 5u + 3u);
}

const char kRule[] = "-------------------------------------------------------------------------------------\n";

TEST(Sock, StatusReportListsLiveConnectionsInCreationOrder)
{
    ScriptedSock out;
    Sock::StatusReport(&out);
    std::string header = std::string("\nS o c k e t s\n") + kRule + " FD  RX bytes  TX bytes  From, name\n" + kRule;
    std::string outRow = "   7         0         0 127.0.0.1:3543 Sock 127.0.0.1:3543\n";
    EXPECT_EQ(out.m_sent, header + outRow);
    {
        ScriptedSock other("x\n");
        other.ReadLine();
        out.m_sent.clear();
        Sock::StatusReport(&out);
        EXPECT_EQ(out.m_sent, header + outRow + "   7         3         0 127.0.0.1:3543 Sock 127.0.0.1:3543\n");
    }
    out.m_sent.clear();
    Sock::CloseAll();
    EXPECT_FALSE(out.IsConnected());
    Sock::StatusReport(&out);
    EXPECT_EQ(out.m_sent, header + "  -1         0         0 127.0.0.1:3543 Sock 127.0.0.1:3543\n");
}

TEST(Debuggable, StatusReportListsTheRegistry)
{
    ScriptedSock out;
    Debuggable named("item %d", 2);
    char row[64];
    std::string expected = "\nD e b u g g a b l e ( 2 )\nPtr      Name\n"
                           "--------------------------------------------------------\n";
    for (Debuggable* d : {static_cast<Debuggable*>(&out), &named}) {
        snprintf(row, sizeof row, "%08x %s\n", static_cast<unsigned>(reinterpret_cast<uintptr_t>(d)),
                 d == &named ? "item 2" : "Sock 127.0.0.1:3543");
        expected += row;
    }
    Debuggable::StatusReport(&out);
    EXPECT_EQ(out.m_sent, expected);
}

}  // namespace
