// The bounded waits of Socket that Api does not show (a read wait that ends
// without dropping the link, a write wait, Pending() on bytes not yet read
// ahead), and the script-line reader and whole-file reader every command
// reading files shares. Connect time-outs run through api_test, the kinds
// of file through version_test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "ScriptReader.h"
#include "Socket.h"
#include "fixed_paths.h"
#include "process.h"
#include "regular_file.h"
#include "scripted_server.h"
#include "wait.h"

namespace {

TEST(SocketWait, EachReadOrWriteWaitTimesOutWithoutDroppingTheLink)
{
    ScriptedServer server({{Send("a"), Wait(400), Send("b")}, {Wait(ScaledMs(10000))}});
    Socket link(server.Addr()), stuck(server.Addr());
    ASSERT_TRUE(link.Connect() && stuck.Connect());
    link.LinkDeadTimeout(-1);
    link.WaitTimeout(150);
    char c[2];
    EXPECT_EQ(link.read(c, 1, 0), 1);
    EXPECT_EQ(link.read(c, 1, 0), -ETIMEDOUT);  // "b" comes 400 ms later
    EXPECT_TRUE(link.IsConnected());
    link.WaitTimeout(ScaledMs(5000));
    EXPECT_EQ(link.read(c, 1, 0), 1);  // each wait counts from its own start
    EXPECT_EQ(c[0], 'b');
    stuck.WaitTimeout(200);  // the peer takes nothing
    std::string big(64 << 20, 'x');
    EXPECT_EQ(stuck.write(big.data(), big.size()), -ETIMEDOUT);
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

// One entry per Next(): "L<n>:<text>", "R<n>:<reason>|<preview>", "E" end.
std::string Describe(ScriptReader& reader, ScriptReader::Result r)
{
    const std::string n = std::to_string(reader.Number());
    switch (r) {
    case ScriptReader::kLine: return "L" + n + ":" + reader.Text();
    case ScriptReader::kRefused: return "R" + n + ":" + reader.Reason() + "|" + reader.Preview();
    case ScriptReader::kEnd: return "E";
    case ScriptReader::kError: return "X" + std::to_string(reader.Errno());
    }
    return "?";
}

TEST(ScriptReader, SplitsCutsSkipsAndRefusesLines)
{
    const struct { const char* label; std::string input; size_t cap; std::vector<std::string> expected; } cases[] = {
        {"LF, CR LF and no final line end", "a\r\nb\nc", 10, {"L1:a", "L2:b", "L3:c", "E"}},
        {"blanks cut, empties and comments counted", " \t x y \t\n\n  # c\n\t\nz\n", 10, {"L1:x y", "L5:z", "E"}},
        {"byte-order mark dropped once", "\xef\xbb\xbfx\n\xef\xbb\xbfy\n", 10, {"L1:x", "L2:\xef\xbb\xbfy", "E"}},
        {"a mark's start alone is text", "\xef\xbbx\n", 10, {"L1:\xef\xbbx", "E"}},
        {"NUL refuses the line", std::string("a\0b\nc\n", 6), 10, {"R1:line holds a NUL byte|a\\x00b", "L2:c", "E"}},
        {"lone CR refuses the line", "a\rb\nc\r", 10,
         {"R1:line holds a lone carriage return|a\\x0db", "R2:line holds a lone carriage return|c\\x0d", "E"}},
        {"over the cap refused whole", "12345\n123456\nx\n", 5,
         {"L1:12345", "R2:line longer than 5 bytes|123456", "L3:x", "E"}},
        {"long comment skipped, its tail never run", "  # " + std::string(5000, 'c') + " DELETE;\nx\n", 100,
         {"L2:x", "E"}},
        {"preview cut at 80 bytes", std::string(90, 'q') + "\n", 10,
         {"R1:line longer than 10 bytes|" + std::string(80, 'q') + "...", "E"}},
        {"empty input", "", 10, {"E"}},
    };
    for (const auto& c : cases) {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        // Fed in small pieces so that lines and the mark straddle reads.
        std::thread writer([&] {
            for (size_t at = 0; at < c.input.size(); at += 2)
                (void)!::write(fds[1], c.input.data() + at, std::min<size_t>(2, c.input.size() - at));
            close(fds[1]);
        });
        ScriptReader reader(fds[0], c.cap);
        std::vector<std::string> got;
        // Until the end or an error (a runaway reader stops at 11 entries).
        for (auto r = ScriptReader::kLine; r != ScriptReader::kEnd && r != ScriptReader::kError && got.size() <= 10;)
            got.push_back(Describe(reader, r = reader.Next()));
        writer.join();
        close(fds[0]);
        EXPECT_EQ(got, c.expected) << c.label;
    }
    int dir = open("/", O_RDONLY | O_DIRECTORY);
    ScriptReader reader(dir, 10);
    EXPECT_EQ(Describe(reader, reader.Next()), "X" + std::to_string(EISDIR));
    close(dir);
}

TEST(RegularFile, ReadsWholeWithinTheCapOrLeavesTheOutputAlone)
{
    std::string dir = MakeTempDir(), text = "kept";
    ASSERT_TRUE(WriteFile(dir + "/f", "12345"));
    EXPECT_EQ(regular_file_read((dir + "/f").c_str(), 4, text), -EFBIG);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(regular_file_read((dir + "/f").c_str(), 5, text), 0);
    EXPECT_EQ(text, "12345");
    RunProgram({"/bin/rm", "-rf", dir});
}

}  // namespace
