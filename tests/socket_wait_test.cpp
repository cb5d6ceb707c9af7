// The bounded waits of Socket (connect, each read wait, each write wait),
// its non-waiting look at what a connection holds, and the script-line
// reader and regular-file opener that every command reading files shares.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "ScriptReader.h"
#include "Socket.h"
#include "process.h"
#include "regular_file.h"
#include "scripted_server.h"
#include "wait.h"

namespace {

TEST(SocketWait, ConnectTimeoutEndsAHangingConnect)
{
    BlackHole hole;
    Socket link(hole.Addr());
    link.ConnectTimeout(300);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(link.Connect());
    EXPECT_EQ(link.ConnectErrno(), ETIMEDOUT);
    EXPECT_LT(MsSince(start), ScaledMs(5000));
    EXPECT_FALSE(link.IsConnected());
}

TEST(SocketWait, ReadWaitTimesOutWithoutDroppingTheLink)
{
    ScriptedServer server({{Send("a"), Wait(400), Send("b")}});
    Socket link(server.Addr());
    ASSERT_TRUE(link.Connect());
    link.LinkDeadTimeout(-1);
    link.WaitTimeout(150);
    char c[2];
    EXPECT_EQ(link.read(c, 1, 0), 1);
    EXPECT_EQ(link.read(c, 1, 0), -ETIMEDOUT);  // "b" comes 400 ms later
    EXPECT_TRUE(link.IsConnected());
    link.WaitTimeout(ScaledMs(5000));
    EXPECT_EQ(link.read(c, 1, 0), 1);  // each wait counts from its own start
    EXPECT_EQ(c[0], 'b');
}

TEST(SocketWait, WriteWaitTimesOutWhenThePeerTakesNothing)
{
    ScriptedServer server({{Wait(ScaledMs(10000))}});
    Socket link(server.Addr());
    ASSERT_TRUE(link.Connect());
    link.WaitTimeout(200);
    std::string big(64 << 20, 'x');
    EXPECT_EQ(link.write(big.data(), big.size()), -ETIMEDOUT);
}

TEST(SocketWait, PendingTellsBytesFromTheCloseWithoutWaiting)
{
    ScriptedServer server({{Send("ab"), Wait(300), Close()}});
    Socket link(server.Addr());
    ASSERT_TRUE(link.Connect());
    EXPECT_TRUE(WaitUntil([&] { return link.Pending() == 2; }, ScaledMs(5000)));
    char c[2];
    EXPECT_EQ(link.read(c, 2, 0), 2);  // the bytes looked at are still read
    EXPECT_EQ(link.Pending(), 0);
    EXPECT_TRUE(WaitUntil([&] { return link.Pending() == -EPIPE; }, ScaledMs(5000)));
}

struct ScriptCase {
    const char* label;
    std::string input;
    size_t cap;
    // One entry per Next(): "L<n>:<text>", "R<n>:<reason>|<preview>", "E" end.
    std::vector<std::string> expected;
};

std::string Describe(ScriptReader& reader, ScriptReader::Result r)
{
    switch (r) {
    case ScriptReader::kLine: return "L" + std::to_string(reader.Number()) + ":" + reader.Text();
    case ScriptReader::kRefused:
        return "R" + std::to_string(reader.Number()) + ":" + reader.Reason() + "|" + reader.Preview();
    case ScriptReader::kEnd: return "E";
    case ScriptReader::kError: return "X" + std::to_string(reader.Errno());
    }
    return "?";
}

TEST(ScriptReader, SplitsCutsSkipsAndRefusesLines)
{
    const std::string longComment = "  # " + std::string(5000, 'c');
    const ScriptCase cases[] = {
        {"LF, CR LF and no final line end", "a\r\nb\nc", 10, {"L1:a", "L2:b", "L3:c", "E"}},
        {"blanks cut, empties and comments counted", " \t x y \t\n\n  # c\n\t\nz\n", 10, {"L1:x y", "L5:z", "E"}},
        {"byte-order mark dropped once", "\xef\xbb\xbfx\n\xef\xbb\xbfy\n", 10, {"L1:x", "L2:\xef\xbb\xbfy", "E"}},
        {"a mark's start alone is text", "\xef\xbbx\n", 10, {"L1:\xef\xbbx", "E"}},
        {"NUL refuses the line", std::string("a\0b\nc\n", 6), 10, {"R1:line holds a NUL byte|a\\x00b", "L2:c", "E"}},
        {"lone CR refuses the line", "a\rb\nc\r", 10,
         {"R1:line holds a lone carriage return|a\\x0db", "R2:line holds a lone carriage return|c\\x0d", "E"}},
        {"over the cap refused whole", "12345\n123456\nx\n", 5,
         {"L1:12345", "R2:line longer than 5 bytes|123456", "L3:x", "E"}},
        {"long comment skipped, its tail never run", longComment + " DELETE;\nx\n", 100, {"L2:x", "E"}},
        {"preview cut at 80 bytes", std::string(90, 'q') + "\n", 10,
         {"R1:line longer than 10 bytes|" + std::string(80, 'q') + "...", "E"}},
        {"empty input", "", 10, {"E"}},
    };
    for (const ScriptCase& c : cases) {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        // Fed in small pieces so that lines and the mark straddle reads.
        std::thread writer([&] {
            for (size_t at = 0; at < c.input.size(); at += 2) (void)!::write(fds[1], c.input.data() + at, std::min<size_t>(2, c.input.size() - at));
            close(fds[1]);
        });
        ScriptReader reader(fds[0], c.cap);
        std::vector<std::string> got;
        for (;;) {
            ScriptReader::Result r = reader.Next();
            got.push_back(Describe(reader, r));
            if (r == ScriptReader::kEnd || r == ScriptReader::kError || got.size() > 10) break;
        }
        writer.join();
        close(fds[0]);
        EXPECT_EQ(got, c.expected) << c.label;
    }
}

TEST(ScriptReader, ReportsAReadError)
{
    int fd = open("/", O_RDONLY | O_DIRECTORY);
    ScriptReader reader(fd, 10);
    EXPECT_EQ(reader.Next(), ScriptReader::kError);
    EXPECT_EQ(reader.Errno(), EISDIR);
    close(fd);
}

TEST(RegularFile, OpensOnlyRegularFilesAndReadsThemWhole)
{
    std::string dir = MakeTempDir();
    std::string file = dir + "/f", fifo = dir + "/p";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    int fd = open(file.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_EQ(::write(fd, "12345", 5), 5);
    close(fd);
    struct stat st;
    fd = regular_file_open(file.c_str(), &st);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(st.st_size, 5);
    close(fd);
    std::string text = "kept";
    EXPECT_EQ(regular_file_open(dir.c_str(), nullptr), -EISDIR);
    EXPECT_EQ(regular_file_open(fifo.c_str(), nullptr), -EINVAL);  // never opened: no block
    EXPECT_EQ(regular_file_open("/dev/null", nullptr), -EINVAL);
    EXPECT_EQ(regular_file_open((dir + "/none").c_str(), nullptr), -ENOENT);
    EXPECT_EQ(regular_file_read(file.c_str(), 4, text), -EFBIG);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(regular_file_read(file.c_str(), 5, text), 0);
    EXPECT_EQ(text, "12345");
    RunProgram({"/bin/rm", "-rf", dir});
}

}  // namespace
