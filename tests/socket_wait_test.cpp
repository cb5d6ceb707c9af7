// The script-line reader and the whole-file reader that every command reading files shares.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ScriptReader.h"
#include "Socket.h"
#include "fixed_paths.h"
#include "process.h"
#include "regular_file.h"
#include "scripted_server.h"

namespace {

// One entry per Next(): "L<n>:<text>", "R<n>:<reason>|<preview>", "E" end, "X<errno>".
std::string Describe(ScriptReader& reader, ScriptReader::Result r)
{
    const std::string n = std::to_string(reader.Number());
    return r == ScriptReader::kLine      ? "L" + n + ":" + reader.Text()
           : r == ScriptReader::kRefused ? "R" + n + ":" + reader.Reason() + "|" + reader.Preview()
           : r == ScriptReader::kEnd     ? "E" : "X" + std::to_string(reader.Errno());
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
        {"over the cap refused whole, preview cut at 80", "12345\n123456\n" + std::string(90, 'q') + "\n", 5,
         {"L1:12345", "R2:line longer than 5 bytes|123456",
          "R3:line longer than 5 bytes|" + std::string(80, 'q') + "...", "E"}},
        {"long comment skipped, tail never run", "  # " + std::string(5000, 'c') + " DELETE;\nx\n", 99, {"L2:x", "E"}},
    };
    for (const auto& c : cases) {
        // In pieces a millisecond apart, so that lines and the mark straddle reads.
        ScriptedServer peer({Then(Trickle(c.input, std::max<size_t>(2, c.input.size() / 20), 1), {Close()})});
        Socket link(peer.Addr());
        ASSERT_TRUE(link.Connect());
        ScriptReader reader(link.Fd(), c.cap);
        std::vector<std::string> got;
        // Until the end or an error (a runaway reader stops at 11 entries).
        for (auto r = ScriptReader::kLine; r != ScriptReader::kEnd && r != ScriptReader::kError && got.size() <= 10;)
            got.push_back(Describe(reader, r = reader.Next()));
        EXPECT_EQ(got, c.expected) << c.label;
    }
    int dir = open("/", O_RDONLY | O_DIRECTORY);
    ScriptReader reader(dir, 10);
    EXPECT_EQ(Describe(reader, reader.Next()), "X" + std::to_string(EISDIR));
    close(dir);
}

TEST(RegularFile, ReadsWholeWithinTheCapOrLeavesTheOutputAlone)
{
    std::string dir = MakeTempDir(), path = dir + "/f", text = "kept";
    ASSERT_TRUE(WriteFile(path, "12345"));
    EXPECT_TRUE(regular_file_read(path.c_str(), 4, text) == -EFBIG && text == "kept");
    EXPECT_TRUE(regular_file_read(path.c_str(), 5, text) == 0 && text == "12345");
    RunProgram({"/bin/rm", "-rf", dir});
}

}  // namespace
