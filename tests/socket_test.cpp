// Socket over real loopback TCP (IPv4, IPv6) and Unix sockets: a server
// accepting through the accept list, clients connecting to it, and raw
// descriptor writes where the bytes on the wire must be pinned.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Socket.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

SockAddr Addr(sa_family_t family, const std::string& text)
{
    SockAddr a;
    EXPECT_TRUE(a.Parse(family, text.c_str())) << text;
    return a;
}

// A listening server, a client connected to it and the accepted end.
struct Link {
    std::unique_ptr<Socket> server, client;
    std::unique_ptr<Sock> accepted;
};

std::unique_ptr<Sock> AcceptOne(Socket& server)
{
    fd_set set;
    FD_ZERO(&set);
    int maxFd = -1;
    if (!server.AcceptListAdd(set, maxFd)) return nullptr;
    timeval tv = {ScaledMs(5000) / 1000, 0};
    if (select(maxFd + 1, &set, nullptr, nullptr, &tv) != 1) return nullptr;
    return std::unique_ptr<Sock>(server.AcceptListCheck(set));
}

Link Open(const SockAddr& at)
{
    Link link{std::make_unique<Socket>(at), nullptr, nullptr};
    EXPECT_TRUE(link.server->Create() && link.server->Bind() && link.server->Listen(5));
    SockAddr remote = at, bound;
    if (at.GetAF() != AF_UNIX) {
        EXPECT_EQ(bound.GetSockname(link.server->Fd()), 0);
        remote.SetPort(bound.GetPort());
    }
    link.client = std::make_unique<Socket>(remote);
    EXPECT_TRUE(link.client->Connect());
    link.accepted = AcceptOne(*link.server);
    EXPECT_NE(link.accepted, nullptr);
    return link;
}

void SendRaw(Sock& to, const std::string& bytes)
{
    ASSERT_EQ(send(to.Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

std::string RecvRaw(Sock& from, size_t n)
{
    std::string got(n, '\0');
    size_t at = 0;
    for (ssize_t r; at < n && (r = recv(from.Fd(), &got[at], n - at, 0)) > 0;) at += static_cast<size_t>(r);
    return got.substr(0, at);
}

// Complete lines until `count` came or the connection failed.
std::vector<std::string> Lines(Sock& s, size_t count)
{
    std::vector<std::string> lines;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(10000));
    bool complete = false;
    while (lines.size() < count && std::chrono::steady_clock::now() < deadline && s.ReadLine(complete) >= 0)
        if (complete) lines.push_back(s.RxBuffer());
    return lines;
}

class SocketFamilies : public ::testing::TestWithParam<const char*> {
protected:
    SockAddr Where()
    {
        std::string p = GetParam();
        if (p == "unix") return Addr(AF_UNIX, m_dir + "/s.sock");
        return p == "ipv4" ? Addr(AF_INET, "127.0.0.1") : Addr(AF_INET6, "::1|0");
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }
    std::string m_dir = MakeTempDir();
};

TEST_P(SocketFamilies, ExchangesLinesBothWays)
{
    Link l = Open(Where());
    ASSERT_TRUE(l.accepted);
    EXPECT_EQ(l.accepted->Remote().GetAF(), Where().GetAF());
    EXPECT_EQ(l.accepted->Local().GetPort(), l.client->Remote().GetPort());
    EXPECT_EQ(l.client->printf("hello %d\r\n", 1), 9);
    l.accepted->Checksum(true);
    EXPECT_EQ(l.accepted->printf("world\n"), 12);
    EXPECT_EQ(Lines(*l.accepted, 1), std::vector<std::string>{"hello 1"});
    EXPECT_EQ(Lines(*l.client, 1), std::vector<std::string>{"world"});
    EXPECT_EQ(l.client->TxBytes(), 9u);
    EXPECT_EQ(l.client->RxBytes(), 12u + 11u);  // bytes, then the line again
    int one = 0;
    timeval tv = {};
    socklen_t len = sizeof one, tvLen = sizeof tv;
    EXPECT_TRUE(getsockopt(l.client->Fd(), SOL_SOCKET, SO_KEEPALIVE, &one, &len) == 0 && one == 1);
    // An accepted end times out receives after 5 s.
    EXPECT_TRUE(getsockopt(l.accepted->Fd(), SOL_SOCKET, SO_RCVTIMEO, &tv, &tvLen) == 0 && tv.tv_sec == 5);
    if (GetParam() != std::string("unix")) return;
    l.accepted->Disconnect();  // a Unix peer's close shows on the very next write
    EXPECT_EQ(l.client->printf("x\n"), -EPIPE);
    EXPECT_FALSE(l.client->IsConnected());
}

INSTANTIATE_TEST_SUITE_P(Loopback, SocketFamilies, ::testing::Values("ipv4", "ipv6", "unix"));

class SocketTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_link.accepted); }
    Socket& client() { return *m_link.client; }
    Sock& peer() { return *m_link.accepted; }
    Link m_link = Open(Addr(AF_INET, "127.0.0.1"));
};

TEST_F(SocketTest, ChecksumsAreSentCheckedAndStripped)
{
    client().Checksum(true);
    EXPECT_EQ(client().printf("hello\n"), 12);
    EXPECT_EQ(RecvRaw(peer(), 12), "+0214 hello\n");
    EXPECT_EQ(client().printf("%s", ""), 6);
    EXPECT_EQ(RecvRaw(peer(), 6), "+0000 ");
    const std::string wide = "+1df0 " + std::string(600, 'z') + "\n";  // the byte sum cut to 16 bits
    EXPECT_EQ(client().printf("%s\n", std::string(600, 'z').c_str()), 607);
    EXPECT_EQ(RecvRaw(peer(), 607), wide);
    const struct { const char* wire; int rv; const char* text; } cases[] = {
        {"+0214 hello\n", 5, "hello"}, {"+0215 hello\n", -EINVAL, nullptr}, {"+zz hello\n", -EINVAL, nullptr},
        {"+0214\n", -EINVAL, nullptr}, {"+ 214 hello\n", -EINVAL, nullptr}, {"+0000 \n", 0, ""},
        {"plain +0214\n", 11, "plain +0214"}, {"+00000214 hello\n", 5, "hello"}, {wide.c_str(), 600, nullptr},
    };
    for (const auto& c : cases) {
        SendRaw(peer(), c.wire);
        bool complete = false;
        EXPECT_EQ(client().ReadLine(complete), c.rv) << c.wire;
        EXPECT_TRUE(complete) << c.wire;
        if (c.text) { EXPECT_STREQ(client().RxBuffer(), c.text) << c.wire; }
    }
    char line[] = "+0215 hello";
    size_t len = strlen(line);
    EXPECT_EQ(Socket::CheckChecksum(line, len), -EINVAL);
    EXPECT_EQ(len, static_cast<size_t>(-22));
}

TEST_F(SocketTest, RefusesTextAtTheBufferLimit)
{
    const struct { bool checksum; size_t length; int rv; } cases[] = {
        {false, 7999, 7999}, {false, 8000, -E2BIG}, {true, 7993, 7999}, {true, 7994, -E2BIG}};
    for (const auto& c : cases) {
        client().Checksum(c.checksum);
        StderrCapture log;
        EXPECT_EQ(client().printf("%s", std::string(c.length, 'x').c_str()), c.rv) << c.length;
        std::string warning = "warn <" + std::string(client().Addr()) + "> Trying to send too much data.\n";
        EXPECT_EQ(LogLines(log.Take()), c.rv < 0 ? warning : "") << c.length;
        if (c.rv > 0) { EXPECT_EQ(RecvRaw(peer(), static_cast<size_t>(c.rv)).size(), static_cast<size_t>(c.rv)); }
    }
}

// The link-dead check runs when a read meets EAGAIN: at once on a
// non-blocking socket (a blocking one first waits out its 5 s time-out).
TEST_F(SocketTest, SilentPeerIsDeclaredDead)
{
    ASSERT_TRUE(client().NonBlocking(true));
    char c;
    EXPECT_EQ(client().read(&c, 1, MSG_DONTWAIT), 0);
    client().LinkDeadTimeout(0);  // dead after more than 0 whole seconds
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client().read(&c, 1, 0), -EPIPE);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_FALSE(client().IsConnected());
    EXPECT_EQ(client().ReadLine(), -ESPIPE);
}

TEST_F(SocketTest, SendFlagsWaitForRoomFirst)
{
    client().SendFlags(1);
    EXPECT_EQ(client().printf("ok\n"), 3);
    std::string block(65536, 'f');
    while (send(client().Fd(), block.data(), block.size(), MSG_DONTWAIT) > 0) {
    }
    StderrCapture log;
    EXPECT_EQ(client().printf("late\n"), -EAGAIN);
    std::string lines = LogLines(log.Take());
    EXPECT_EQ(lines.find("warn <" + std::string(client().Addr()) + "> Unable to write to/INTR ("), 0u) << lines;
    EXPECT_EQ(lines.substr(lines.size() - 8), "): late\n") << lines;
}

// Bytes fetched ahead stay invisible: counters, readiness, flagged reads
// and the FILE view behave as if each byte were read when handed out.
TEST_F(SocketTest, ReadAheadIsInvisibleToCallers)
{
    bool ready = true;
    EXPECT_TRUE(client().RSelect(ready, 0, 1000) && !ready);
    EXPECT_TRUE(client().WSelect(ready, 0, 1000) && ready);
    SendRaw(peer(), "a\nbc\n");
    EXPECT_EQ(Lines(client(), 1), std::vector<std::string>{"a"});
    EXPECT_EQ(client().RxBytes(), 2u + 1u);
    EXPECT_TRUE(client().RSelect(ready, 0, 0) && ready);
    StderrCapture log;
    EXPECT_EQ(client().File(), nullptr);  // would miss "bc\n"
    std::string lines = LogLines(log.Take());
    EXPECT_EQ(lines.find("warn Can't get FILE for " + std::string(client().Addr()) + ", 3 bytes read ahead, socket 0x"),
              0u) << lines;
    char buf[4] = {};
    EXPECT_EQ(client().read(buf, 2, MSG_PEEK), 2);
    EXPECT_EQ(client().read(buf, 3, MSG_DONTWAIT), 3);
    EXPECT_STREQ(buf, "bc\n");
    EXPECT_TRUE(client().RSelect(ready, 0, 0) && !ready);
    FILE* f = client().File();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(client().File(), f);
    SendRaw(peer(), "d\ne\n");
    char line[8];
    EXPECT_STREQ(fgets(line, sizeof line, f), "d\n");
    EXPECT_STREQ(fgets(line, sizeof line, f), "e\n");
}

// A reconnection starts clean; a peer closing mid-line leaves the partial line.
TEST_F(SocketTest, DisconnectDiscardsBytesReadAheadAndPeerCloseKeepsAPartialLine)
{
    SendRaw(peer(), "a\nstale\n");
    EXPECT_EQ(Lines(client(), 1), std::vector<std::string>{"a"});
    client().Disconnect();
    ASSERT_TRUE(client().Connect());
    std::unique_ptr<Sock> again = AcceptOne(*m_link.server);
    ASSERT_TRUE(again);
    SendRaw(*again, "fresh\nabc");
    EXPECT_EQ(Lines(client(), 1), std::vector<std::string>{"fresh"});
    again->Disconnect();
    bool complete = true;
    EXPECT_EQ(client().ReadLine(complete), -EPIPE);
    EXPECT_FALSE(complete);
    EXPECT_STREQ(client().RxBuffer(), "abc");
}

TEST(Socket, FailuresAreRefusedAndLogged)
{
    Socket s(Addr(AF_INET, "127.0.0.1:1"));
    bool ready = true;
    fd_set set;
    int maxFd = -1;
    EXPECT_FALSE(s.NonBlocking(true) || s.RSelect(ready, 0, 0) || ready || s.WSelect(ready, 0, 0));
    EXPECT_FALSE(s.AcceptListAdd(set, maxFd));
    EXPECT_EQ(maxFd, -1);
    EXPECT_EQ(s.printf("x\n"), -EAGAIN);
    StderrCapture log;
    EXPECT_EQ(s.File(), nullptr);
    Socket name(SockAddr(AF_NAME, "eth0"));
    EXPECT_FALSE(name.Create() || name.Connect());
    std::string lines = LogLines(log.Take());
    EXPECT_EQ(lines.find("warn Can't get FILE for 127.0.0.1:1, no FD, socket 0x"), 0u) << lines;
    EXPECT_NE(lines.find("Socket.cpp:"), std::string::npos) << lines;
    EXPECT_NE(lines.find(" virtual bool Socket::Create() Address family 33 not supported.\n"), std::string::npos)
        << lines;
    Socket probe(Addr(AF_INET, "127.0.0.1"));
    ASSERT_TRUE(probe.Create() && probe.Bind());
    SockAddr free;
    ASSERT_EQ(free.GetSockname(probe.Fd()), 0);
    probe.Disconnect();  // nothing listens on the port now
    Socket refused(free);
    StderrCapture connectLog;
    EXPECT_FALSE(refused.Connect() || refused.IsConnected());
    EXPECT_EQ(LogLines(connectLog.Take()), "err  <" + std::string(refused.Addr()) + "> Unable to connect (111).\n");
}

TEST(Socket, UnixBindReplacesAStaleFileAndRemovesItsOwn)
{
    std::string dir = MakeTempDir(), path = dir + "/srv.sock";
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    Socket server(Addr(AF_UNIX, path));
    StderrCapture log;
    ASSERT_TRUE(server.Create() && server.Bind() && server.Listen(5));
    EXPECT_EQ(LogLines(log.Take()), "info Removing existing file at \"" + path + "\".\n");
    Socket client(Addr(AF_UNIX, path));
    ASSERT_TRUE(client.Connect());
    std::unique_ptr<Sock> accepted = AcceptOne(server);
    ASSERT_TRUE(accepted);
    accepted->Disconnect();  // an accepted end leaves the server's file alone
    client.Disconnect();
    EXPECT_TRUE(std::filesystem::exists(path));
    server.Disconnect();
    EXPECT_FALSE(std::filesystem::exists(path));
    std::filesystem::remove_all(dir);
}

// Runs a script against a Socket on one end of a socket pair: "S<bytes>" the
// peer sends, "C" it closes, "L" one whole-line read, "P" one partial-line
// read. Each read gives "rv complete pos rxBytes|buffer+canary". A FILE view
// switches the read-ahead off: every byte then comes from a read() of one.
std::vector<std::string> RunScript(const std::vector<std::string>& steps, int size, bool bytePath)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return {};
    Socket reader(fds[1], Addr(AF_UNIX, "/lines"));
    reader.WaitTimeout(ScaledMs(5000));  // a script that waits shows, not hangs
    std::vector<std::string> got;
    if (bytePath && !reader.File()) return got;
    std::string buf(static_cast<size_t>(size) + 4, '#');
    int pos = 0;
    for (const std::string& step : steps) {
        bool complete = false;
        int rv = 0;
        if (step[0] == 'S') {
            EXPECT_EQ(write(fds[0], step.data() + 1, step.size() - 1), static_cast<ssize_t>(step.size() - 1));
        } else if (step == "C") {
            close(fds[0]);
        } else {
            rv = step == "L" ? reader.ReadLine(&buf[0], size, &pos, complete)
                             : reader.ReadIncompleteLine(&buf[0], size, &pos);
            got.push_back(std::to_string(rv) + " " + std::to_string(complete) + " " + std::to_string(pos) + " " +
                          std::to_string(reader.RxBytes()) + "|" + buf);
        }
    }
    if (steps.back() != "C") close(fds[0]);
    return got;
}

// Lines are taken from the read-ahead a span at a time; a connection
// without one reads a byte per call. Both give the same results, pieces,
// positions, counts and buffers.
TEST(SocketLines, SpansGiveWhatOneByteReadsGive)
{
    const struct { const char* label; int size; std::vector<std::string> steps; } cases[] = {
        {"size - 2", 8, {"Sabcdef\n", "L"}},
        {"size - 1", 8, {"Sabcdefg\nx\n", "L", "L", "L"}},
        {"size", 8, {"Sabcdefgh\n", "L", "L"}},
        {"several lines in one read", 8, {"Sa\nbc\r\n\ndef\n", "L", "L", "L", "L", "L"}},
        {"CR LF split across reads", 8, {"Sab\r", "L", "S\ncd\n", "L", "L"}},
        {"vertical tab ends a read", 8, {"Sab\v", "P", "Scd\n", "L"}},
        {"vertical tabs inside a line", 8, {"S\va\v\vbc\vdefgh\n", "L", "L", "L"}},
        {"close mid-line", 8, {"Sab", "C", "L", "L"}},
        {"close after a piece", 4, {"Sabcdef", "C", "L", "L", "L"}},
        {"NUL is content", 8, {std::string("Sa\0b\n", 5), "L"}},
        {"checksum prefix", 16, {"S+0214 hello\n+0215 hello\n", "L", "L"}},
        {"prompt read", 4, {"S#> x\n", "P", "L"}},
        {"line longer than the read-ahead", 9000, {"S" + std::string(8500, 'q') + "\nz\n", "L", "L"}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> spans = RunScript(c.steps, c.size, false);
        EXPECT_FALSE(spans.empty()) << c.label;
        EXPECT_EQ(spans, RunScript(c.steps, c.size, true)) << c.label;
    }
}

// A reader blocked in ReadLine on its own thread while others list the
// connections and connections are made and destroyed: a listing never sees
// one half-built or half-destroyed, and the peer's close ends the reader.
TEST_F(SocketTest, StatusReportWhileOtherThreadsReadAndChurn)
{
    std::atomic<int> result{1};
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        int rv;
        while ((rv = client().ReadLine()) >= 0) {
        }
        result = rv;
    });
    for (int i = 0; i < 5; i++) Sock::StatusReport(&peer());
    std::thread lister([&] {  // now the only writer on the peer
        while (!stop) Sock::StatusReport(&peer());
    });
    for (int i = 0; i < 2000; i++) Socket churn(Addr(AF_INET, "127.0.0.1"));
    stop = true;
    lister.join();
    peer().Disconnect();
    reader.join();
    EXPECT_EQ(result, -EPIPE);
    EXPECT_GT(client().RxBytes(), 5u * 85u);
    Sock::CloseAll();
    EXPECT_FALSE(client().IsConnected() || m_link.server->IsConnected());
}

}  // namespace
