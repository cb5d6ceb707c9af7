// Socket over loopback TCP and Unix sockets; raw bytes on the peer's end where the wire is pinned.
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>

#include "Socket.h"
#include "fixed_paths.h"
#include "process.h"
#include "scripted_server.h"
#include "wait.h"

namespace {

SockAddr Addr(sa_family_t af, const std::string& t) { SockAddr a; EXPECT_TRUE(a.Parse(af, t.c_str())) << t; return a; }

// A Socket on each end of a Unix socket pair: `s` under test, `peer` written and read raw.
struct Pair {
    void Send(const std::string& b) { EXPECT_EQ(write(peer.Fd(), b.data(), b.size()), ssize_t(b.size())) << b; }
    int fds[2] = {-1, -1}, made = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
    Socket s{fds[0], Addr(AF_UNIX, "/s")}, peer{fds[1], Addr(AF_UNIX, "/peer")};
};

std::string Line(Sock& s) { return s.ReadLine() >= 0 ? s.RxBuffer() : "error"; }

// A Unix server replaces a stale file at its path and removes it on close, an accepted end never.
TEST(Socket, AcceptsAndExchangesLinesInEveryFamily)
{
    const std::string dir = MakeTempDir(), path = dir + "/s.sock";
    for (const SockAddr& at : {Addr(AF_INET, "127.0.0.1"), Addr(AF_INET6, "::1|0"), Addr(AF_UNIX, path)}) {
        SCOPED_TRACE(at.GetAF());
        const bool isUnix = at.GetAF() == AF_UNIX;
        ASSERT_TRUE(!isUnix || WriteFile(path, ""));
        StderrCapture log;
        Socket server(at);
        ASSERT_TRUE(server.Create() && server.Bind() && server.Listen(5));
        EXPECT_EQ(LogLines(log.Take()), isUnix ? "info Removing existing file at \"" + path + "\".\n" : "");
        SockAddr remote = at;
        EXPECT_TRUE(isUnix || remote.GetSockname(server.Fd()) == 0);
        Socket client(remote);
        fd_set set = {};
        int maxFd = -1;
        ASSERT_TRUE(client.Connect() && server.AcceptListAdd(set, maxFd) && maxFd == server.Fd());
        std::unique_ptr<Sock> accepted(server.AcceptListCheck(set));  // connected, so it waits for nothing
        ASSERT_TRUE(accepted);
        EXPECT_TRUE(accepted->Remote().GetAF() == at.GetAF() && accepted->Local().GetPort() == remote.GetPort());
        EXPECT_TRUE(client.printf("hello %d\r\n", 1) == 9 && accepted->printf("world\n") == 6 && client.TxBytes() == 9);
        EXPECT_EQ(Line(*accepted) + Line(client), "hello 1world");
        // Both ends: keep-alive, 5/5/5 on TCP; never don't-route, which would never reach a unit behind a router.
        int got = -1;
        socklen_t len = sizeof got;
        for (auto [level, opt, want] : {std::tuple{SOL_SOCKET, SO_KEEPALIVE, 1}, {SOL_SOCKET, SO_DONTROUTE, 0},
                                        {IPPROTO_TCP, TCP_KEEPIDLE, 5}, {IPPROTO_TCP, TCP_KEEPINTVL, 5},
                                        {IPPROTO_TCP, TCP_KEEPCNT, 5}})
            for (int fd : {client.Fd(), accepted->Fd()})
                EXPECT_TRUE((isUnix && level != SOL_SOCKET) || (!getsockopt(fd, level, opt, &got, &len) && got == want))
                    << opt << " " << fd;
        timeval tv = {};
        socklen_t tvLen = sizeof tv;
        // An accepted end's blocked read wakes every 5 s to check the link.
        EXPECT_TRUE(getsockopt(accepted->Fd(), SOL_SOCKET, SO_RCVTIMEO, &tv, &tvLen) == 0 && tv.tv_sec == 5);
        accepted->Disconnect();
        if (!isUnix) continue;
        // A Unix peer's close shows at once.
        EXPECT_TRUE(std::filesystem::exists(path) && client.printf("x\n") == -EPIPE && !client.IsConnected());
        server.Disconnect();
        EXPECT_FALSE(std::filesystem::exists(path));
    }
    std::filesystem::remove_all(dir);
}

// Sent as given or behind "+<sum> " (the byte sum cut to 16 bits, the final newline not in it); text that does
// not fit the buffer is refused whole. Read back, a "+" line is checked and stripped.
TEST(Socket, SendsWithinTheBufferAndChecksumsLines)
{
    Pair p;
    const std::string z600(600, 'z'), wide = "+1df0 " + z600 + "\n", x(7999, 'x');
    const struct { bool checksum; std::string text; int rv; std::string wire; } sends[] = {
        {false, x + "x", -E2BIG, ""}, {false, x, 7999, x}, {true, x.substr(5), -E2BIG, ""},
        {true, x.substr(6), 7999, "+a240 " + x.substr(6)}, {true, "hello\n", 12, "+0214 hello\n"},
        {true, "", 6, "+0000 "}, {true, z600 + "\n", 607, wide}};
    for (const auto& c : sends) {
        p.s.Checksum(c.checksum);
        StderrCapture log;
        EXPECT_EQ(p.s.printf("%s", c.text.c_str()), c.rv) << c.text.size();
        EXPECT_EQ(LogLines(log.Take()), c.rv < 0 ? "warn </s> Trying to send too much data.\n" : "") << c.text.size();
        std::string wire;  // bytes a refusal leaked show in the next row
        while (wire.size() < c.wire.size() && ReadWithin(p.peer.Fd(), wire, ScaledMs(5000)) > 0) {}
        EXPECT_EQ(wire, c.wire) << c.text.size();
    }
    const struct { const char* wire; int rv; const char* text; } reads[] = {{"+0214 hello\n", 5, "hello"},
        {"+0215 hello\n", -EINVAL, nullptr}, {"+zz hello\n", -EINVAL, nullptr}, {"+0214\n", -EINVAL, nullptr},
        {"+0000 \n", 0, ""}, {"plain +0214\n", 11, "plain +0214"}, {"+00000214 hello\n", 5, "hello"},
        {wide.c_str(), 600, nullptr}};
    for (const auto& c : reads) {
        p.Send(c.wire);
        bool complete = false;
        EXPECT_TRUE(p.s.ReadLine(complete) == c.rv && complete) << c.wire;
        if (c.text) { EXPECT_STREQ(p.s.RxBuffer(), c.text) << c.wire; }
    }
    char line[] = "+0215 hello";  // refused, its length set to the result
    size_t len = sizeof line - 1;
    EXPECT_TRUE(Socket::CheckChecksum(line, len) == -EINVAL && len == size_t(-22));
    p.s.Checksum(false), p.s.SendFlags(1);  // plain lines, each waiting for room first
    EXPECT_EQ(p.s.printf("ok\n"), 3);
    std::string block(65536, 'f');
    while (send(p.s.Fd(), block.data(), block.size(), MSG_DONTWAIT) > 0) {}
    StderrCapture log;
    EXPECT_EQ(p.s.printf("late\n"), -EAGAIN);
    std::string lines = LogLines(log.Take());
    EXPECT_EQ(lines.find("warn </s> Unable to write to/INTR ("), 0u) << lines;
    EXPECT_EQ(lines.substr(lines.size() - 8), "): late\n") << lines;
}

// Bytes fetched ahead stay invisible: counters, readiness, flagged reads, the FILE view and a reconnection
// behave as if each byte were read when handed out; lines are taken from the read-ahead a span at a time.
TEST(Socket, ReadAheadIsInvisibleToCallers)
{
    Pair p;
    bool ready = false;
    p.Send("a\nbc\n");
    EXPECT_TRUE(Line(p.s) == "a" && p.s.RxBytes() == 2u + 1u);
    EXPECT_TRUE(p.s.RSelect(ready, 0, 0) && ready);
    StderrCapture log;
    EXPECT_EQ(p.s.File(), nullptr);  // would miss "bc\n"
    std::string lines = LogLines(log.Take());
    EXPECT_EQ(lines.find("warn Can't get FILE for /s, 3 bytes read ahead, socket 0x"), 0u) << lines;
    char buf[4] = {};
    EXPECT_TRUE(p.s.read(buf, 2, MSG_PEEK) == 2 && p.s.read(buf, 3, MSG_DONTWAIT) == 3 && buf == std::string("bc\n"));
    EXPECT_TRUE(p.s.RSelect(ready, 0, 0) && !ready);
    FILE* f = p.s.File();
    ASSERT_TRUE(f && p.s.File() == f);
    p.Send("d\n");
    EXPECT_EQ(Line(p.s), "d");  // a byte per read now, so the FILE view misses nothing
    p.Send("e\n");
    char line[8];
    EXPECT_STREQ(fgets(line, sizeof line, f), "e\n");
    // A reconnection starts clean: bytes read ahead on the old connection are gone.
    ScriptedServer server({{Send("a\nstale\n")}, {Send("fresh\n")}});
    Socket link(server.Addr());
    link.ConnectTimeout(ScaledMs(5000));  // bounded connects, which must leave the descriptor as they found it
    ASSERT_TRUE(link.Connect());
    EXPECT_EQ(Line(link), "a");
    EXPECT_TRUE(WaitUntil([&] { return link.Pending() == 6; }, ScaledMs(5000)));  // "stale\n" read ahead
    link.Disconnect();
    ASSERT_TRUE(link.Connect());
    EXPECT_EQ(Line(link), "fresh");
}

// Each wait of a read or write is bounded on its own and leaves the link up, unless it is dead; Pending() never waits.
TEST(Socket, WaitsEndWithoutDroppingTheLinkUnlessItIsDead)
{
    Pair p, q;  // q's peer takes nothing (closing a peer with bytes unread would reset the link)
    char c[2];
    p.s.WaitTimeout(150), q.s.WaitTimeout(150);
    p.Send("ab");
    EXPECT_TRUE(p.s.Pending() == 2 && p.s.read(c, 2, 0) == 2 && p.s.Pending() == 0);  // looked at, still read
    EXPECT_EQ(p.s.read(c, 1, 0), -ETIMEDOUT);
    p.Send("c");
    EXPECT_TRUE(p.s.read(c, 1, 0) == 1 && c[0] == 'c');  // the link stays usable
    p.peer.Disconnect();
    EXPECT_EQ(p.s.Pending(), -EPIPE);
    std::string big(64 << 20, 'x');
    EXPECT_EQ(q.s.write(big.data(), big.size()), -ETIMEDOUT);
    Pair quiet;  // a read that meets EAGAIN checks the link: dead after more than 0 whole seconds without a byte
    quiet.s.LinkDeadTimeout(0);
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(quiet.s.NonBlocking(true) && quiet.s.read(c, 1, MSG_DONTWAIT) == 0 && quiet.s.read(c, 1, 0) == -EPIPE);
    EXPECT_TRUE(MsSince(start) >= 1000 && quiet.s.ReadLine() == -ESPIPE);
}

TEST(Socket, FailuresAreRefusedAndLogged)
{
    Socket closed(Addr(AF_INET, "127.0.0.1:1")), name(SockAddr(AF_NAME, "eth0")), refused(RefusedAddr());
    BlackHole hole;
    Socket slow(hole.Addr());
    slow.ConnectTimeout(ScaledMs(300));
    bool ready = true;
    fd_set set = {};
    int maxFd = -1;
    EXPECT_FALSE(closed.NonBlocking(true) || closed.RSelect(ready, 0, 0) || ready || closed.WSelect(ready, 0, 0) ||
                 closed.AcceptListAdd(set, maxFd));
    EXPECT_EQ(closed.printf("x\n"), -EAGAIN);
    StderrCapture log;
    EXPECT_EQ(closed.File(), nullptr);
    EXPECT_FALSE(name.Create() || name.Connect() || refused.Connect() || refused.IsConnected());
    EXPECT_TRUE(!slow.Connect() && slow.ConnectErrno() == ETIMEDOUT && !slow.IsConnected());
    std::string lines = LogLines(log.Take());
    EXPECT_TRUE(lines.find("warn Can't get FILE for 127.0.0.1:1, no FD, socket 0x") == 0 &&
                lines.find("Socket.cpp:") != std::string::npos &&
                lines.find(" virtual bool Socket::Create() Address family 33 not supported.\nerr  <" +
                           std::string(refused.Addr()) + "> Unable to connect (111).\nerr  <" + slow.Addr() +
                           "> Unable to connect (110).\n") != std::string::npos) << lines;
}

// A reader blocked in ReadLine on its own thread while others list the connections and connections
// are made and destroyed: a listing never sees one half-built or half-destroyed.
TEST(Socket, StatusReportWhileOtherThreadsReadAndChurn)
{
    Pair p;
    std::atomic<int> result{1};
    std::atomic<bool> stop{false};
    std::thread reader([&] { while ((result = p.s.ReadLine()) >= 0) {} });
    for (int i = 0; i < 5; i++) Sock::StatusReport(&p.peer);
    std::thread lister([&] { while (!stop) Sock::StatusReport(&p.peer); });  // now the peer's only writer
    for (int i = 0; i < 2000; i++) Socket churn(Addr(AF_INET, "127.0.0.1"));
    stop = true;
    lister.join();
    p.peer.Disconnect();
    reader.join();
    EXPECT_TRUE(result == -EPIPE && p.s.RxBytes() > 5u * 85u);
}

}  // namespace
