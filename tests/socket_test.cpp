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

SockAddr Addr(sa_family_t family, const std::string& text)
{
    SockAddr a;
    EXPECT_TRUE(a.Parse(family, text.c_str())) << text;
    return a;
}

// A Socket on each end of a Unix socket pair: `s` under test, `peer` written and read raw.
struct Pair {
    void Send(const std::string& b) { EXPECT_EQ(write(peer.Fd(), b.data(), b.size()), ssize_t(b.size())) << b; }
    std::string Take(size_t n)
    {
        std::string got;
        while (got.size() < n && ReadWithin(peer.Fd(), got, ScaledMs(5000)) > 0) {}
        return got;
    }
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
        ASSERT_TRUE(client.Connect());
        fd_set set;
        int maxFd = -1;
        FD_ZERO(&set);
        // The connection is made, so the accept waits for nothing.
        ASSERT_TRUE(server.AcceptListAdd(set, maxFd) && maxFd == server.Fd());
        std::unique_ptr<Sock> accepted(server.AcceptListCheck(set));
        ASSERT_TRUE(accepted);
        EXPECT_TRUE(accepted->Remote().GetAF() == at.GetAF() && accepted->Local().GetPort() == remote.GetPort());
        EXPECT_TRUE(client.printf("hello %d\r\n", 1) == 9 && accepted->printf("world\n") == 6 && client.TxBytes() == 9);
        EXPECT_EQ(Line(*accepted) + Line(client), "hello 1world");
        // Both ends: keep-alive, 5/5/5 on TCP; never don't-route, which would never reach a unit behind a router.
        for (auto [level, name, value] : {std::tuple{SOL_SOCKET, SO_KEEPALIVE, 1}, {SOL_SOCKET, SO_DONTROUTE, 0},
                                          {IPPROTO_TCP, TCP_KEEPIDLE, 5}, {IPPROTO_TCP, TCP_KEEPINTVL, 5},
                                          {IPPROTO_TCP, TCP_KEEPCNT, 5}})
            for (int fd : {client.Fd(), accepted->Fd()}) {
                int got = -1;
                socklen_t len = sizeof got;
                if (isUnix && level == IPPROTO_TCP) continue;
                EXPECT_TRUE(getsockopt(fd, level, name, &got, &len) == 0 && got == value) << name << " " << fd;
            }
        timeval tv = {};
        socklen_t tvLen = sizeof tv;
        // An accepted end's blocked read wakes every 5 s to check the link.
        EXPECT_TRUE(getsockopt(accepted->Fd(), SOL_SOCKET, SO_RCVTIMEO, &tv, &tvLen) == 0 && tv.tv_sec == 5);
        accepted->Disconnect();
        if (!isUnix) continue;
        EXPECT_TRUE(std::filesystem::exists(path));
        EXPECT_TRUE(client.printf("x\n") == -EPIPE && !client.IsConnected());  // a Unix peer's close shows at once
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
        EXPECT_EQ(p.Take(c.wire.size()), c.wire) << c.text.size();  // bytes a refusal leaked show in the next row
    }
    const struct { const char* wire; int rv; const char* text; } reads[] = {
        {"+0214 hello\n", 5, "hello"}, {"+0215 hello\n", -EINVAL, nullptr}, {"+zz hello\n", -EINVAL, nullptr},
        {"+0214\n", -EINVAL, nullptr}, {"+0000 \n", 0, ""},
        {"plain +0214\n", 11, "plain +0214"}, {"+00000214 hello\n", 5, "hello"}, {wide.c_str(), 600, nullptr},
    };
    for (const auto& c : reads) {
        p.Send(c.wire);
        bool complete = false;
        EXPECT_TRUE(p.s.ReadLine(complete) == c.rv && complete) << c.wire;
        if (c.text) { EXPECT_STREQ(p.s.RxBuffer(), c.text) << c.wire; }
    }
    char line[] = "+0215 hello";
    size_t len = sizeof line - 1;
    EXPECT_TRUE(Socket::CheckChecksum(line, len) == -EINVAL && len == size_t(-22));
    p.s.Checksum(false);
    p.s.SendFlags(1);  // wait for room first
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
    Socket& s = p.s;
    bool ready = false;
    p.Send("a\nbc\n");
    EXPECT_TRUE(Line(s) == "a" && s.RxBytes() == 2u + 1u);
    EXPECT_TRUE(s.RSelect(ready, 0, 0) && ready);
    StderrCapture log;
    EXPECT_EQ(s.File(), nullptr);  // would miss "bc\n"
    std::string lines = LogLines(log.Take());
    EXPECT_EQ(lines.find("warn Can't get FILE for /s, 3 bytes read ahead, socket 0x"), 0u) << lines;
    char buf[4] = {};
    EXPECT_TRUE(s.read(buf, 2, MSG_PEEK) == 2 && s.read(buf, 3, MSG_DONTWAIT) == 3);
    EXPECT_STREQ(buf, "bc\n");
    EXPECT_TRUE(s.RSelect(ready, 0, 0) && !ready);
    FILE* f = s.File();
    ASSERT_TRUE(f && s.File() == f);
    p.Send("d\n");
    EXPECT_EQ(Line(s), "d");  // a byte per read now, so the FILE view misses nothing
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
    Pair p, q;
    char c[2];
    p.s.WaitTimeout(150);
    p.Send("ab");
    EXPECT_EQ(p.s.Pending(), 2);
    EXPECT_TRUE(p.s.read(c, 2, 0) == 2 && p.s.Pending() == 0);  // the bytes looked at are still read
    EXPECT_EQ(p.s.read(c, 1, 0), -ETIMEDOUT);
    p.Send("c");
    EXPECT_TRUE(p.s.read(c, 1, 0) == 1 && c[0] == 'c');  // the link stays usable
    p.peer.Disconnect();
    EXPECT_EQ(p.s.Pending(), -EPIPE);
    q.s.WaitTimeout(150);
    std::string big(64 << 20, 'x');
    EXPECT_EQ(q.s.write(big.data(), big.size()), -ETIMEDOUT);  // the peer takes nothing
    Pair silent;  // the link-dead check runs when a read meets EAGAIN; its clock starts here
    ASSERT_TRUE(silent.s.NonBlocking(true));
    EXPECT_EQ(silent.s.read(c, 1, MSG_DONTWAIT), 0);
    silent.s.LinkDeadTimeout(0);  // dead after more than 0 whole seconds
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(silent.s.read(c, 1, 0), -EPIPE);
    EXPECT_GE(MsSince(start), 1000);
    EXPECT_EQ(silent.s.ReadLine(), -ESPIPE);
}

TEST(Socket, FailuresAreRefusedAndLogged)
{
    Socket closed(Addr(AF_INET, "127.0.0.1:1")), name(SockAddr(AF_NAME, "eth0")), refused(RefusedAddr());
    BlackHole hole;
    Socket slow(hole.Addr());
    slow.ConnectTimeout(ScaledMs(300));
    bool ready = true;
    fd_set set;
    int maxFd = -1;
    EXPECT_FALSE(closed.NonBlocking(true) || closed.RSelect(ready, 0, 0) || ready || closed.WSelect(ready, 0, 0) ||
                 closed.AcceptListAdd(set, maxFd));
    EXPECT_EQ(closed.printf("x\n"), -EAGAIN);
    StderrCapture log;
    EXPECT_EQ(closed.File(), nullptr);
    EXPECT_FALSE(name.Create() || name.Connect() || refused.Connect() || refused.IsConnected());
    EXPECT_TRUE(!slow.Connect() && slow.ConnectErrno() == ETIMEDOUT && !slow.IsConnected());
    std::string lines = LogLines(log.Take());
    EXPECT_EQ(lines.find("warn Can't get FILE for 127.0.0.1:1, no FD, socket 0x"), 0u) << lines;
    EXPECT_NE(lines.find("Socket.cpp:"), std::string::npos) << lines;
    EXPECT_NE(lines.find(" virtual bool Socket::Create() Address family 33 not supported.\nerr  <" +
                         std::string(refused.Addr()) + "> Unable to connect (111).\nerr  <" + slow.Addr() +
                         "> Unable to connect (110).\n"), std::string::npos) << lines;
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
