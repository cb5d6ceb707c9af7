#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ArgArray.h"
#include "fixed_paths.h"
#include "utils.h"

namespace {

using Words = std::vector<std::string>;

Words WordsOf(const ArgArray& a)
{
    Words words;
    for (int i = 0; i < a.Argc(); i++) words.push_back(a.Argv()[i]);
    return words;
}

// Parses `line` with `capacity`, checks the words, the terminator and the
// log lines the parse wrote.
void ExpectParse(const char* line, int capacity, const Words& words, const std::string& log = "")
{
    StderrCapture capture;
    ArgArray a(line, capacity);
    EXPECT_EQ(LogLines(capture.Take()), log) << "line: " << line;
    EXPECT_EQ(WordsOf(a), words) << "line: " << line;
    EXPECT_EQ(a.Argv()[a.Argc()], nullptr) << "line: " << line;
}

TEST(ArgArray, ParsesLinesIntoWords)
{
    ExpectParse("", 10, {});
    ExpectParse(" \t  \t", 10, {});
    ExpectParse("/bin/ls -l \"my dir\"", 10, {"/bin/ls", "-l", "my dir"});
    ExpectParse("  a \t b  ", 10, {"a", "b"});
    ExpectParse("echo ''", 10, {"echo", ""});
    ExpectParse("''\"\"", 10, {"", ""});
    ExpectParse("ab\"c d\"e", 10, {"ab", "c d", "e"});
    ExpectParse("'x'\"y\"", 10, {"x", "y"});
    ExpectParse("'a\"b' \"c'd\"", 10, {"a\"b", "c'd"});
    ExpectParse("x\\ y", 10, {"x\\", "y"});
    ExpectParse("a\nb\r", 10, {"a\nb\r"});
    ExpectParse("'  spaced\tout  '", 10, {"  spaced\tout  "});
}

TEST(ArgArray, UnclosedQuoteKeepsEarlierWordsAndWarns)
{
    ExpectParse("a 'b c", 10, {"a"}, "warn Ignoring unclosed argument: 'b c\n");
    ExpectParse("\"open", 10, {}, "warn Ignoring unclosed argument: \"open\n");
    ExpectParse("a \"b' c", 10, {"a"}, "warn Ignoring unclosed argument: \"b' c\n");
}

TEST(ArgArray, CapacityTruncatesSilently)
{
    ExpectParse("a b c", 2, {"a", "b"});
    ExpectParse("a 'unclosed", 1, {"a"});
    ExpectParse("a b", 0, {});
    ExpectParse("a b", -3, {});
}

TEST(ArgArray, EmptyArrayIsATerminatedVector)
{
    ArgArray a(5);
    EXPECT_EQ(a.Argc(), 0);
    ASSERT_NE(a.Argv(), nullptr);
    EXPECT_EQ(a.Argv()[0], nullptr);
    ArgArray nullLine(static_cast<const char*>(nullptr), 3);
    EXPECT_EQ(nullLine.Argc(), 0);
}

TEST(ArgArray, ParseAndCleanupReplaceTheWords)
{
    ArgArray a(std::string("one two three"), 5);
    a.Parse("four");
    EXPECT_EQ(WordsOf(a), Words{"four"});
    EXPECT_EQ(a.Argv()[1], nullptr);
    a.Cleanup();
    EXPECT_EQ(a.Argc(), 0);
    EXPECT_EQ(a.Argv()[0], nullptr);
}

TEST(ArgArray, CopiesAVectorUpToNullOrCapacity)
{
    const char* argv[] = {"a", "b c", "", nullptr, "unseen"};
    EXPECT_EQ(WordsOf(ArgArray(argv, 10)), (Words{"a", "b c", ""}));
    EXPECT_EQ(WordsOf(ArgArray(argv, 2)), (Words{"a", "b c"}));
    EXPECT_EQ(WordsOf(ArgArray(static_cast<const char**>(nullptr), 2)), Words{});
}

TEST(ArgArray, CopiesAreDeepAndIndependent)
{
    size_t before = safe_mem_live_blocks();
    {
        ArgArray original("a 'b c' d", 3);
        ArgArray copy(original);
        EXPECT_NE(copy.Argv()[0], original.Argv()[0]);
        original.Parse("x");
        EXPECT_EQ(WordsOf(copy), (Words{"a", "b c", "d"}));

        ArgArray small("p q", 1);
        small = copy;
        EXPECT_EQ(WordsOf(small), (Words{"a", "b c", "d"}));
        small.Parse("1 2 3 4");  // takes over the source's capacity of 3
        EXPECT_EQ(WordsOf(small), (Words{"1", "2", "3"}));

        ArgArray& alias = copy;
        copy = alias;
        EXPECT_EQ(WordsOf(copy), (Words{"a", "b c", "d"}));
        EXPECT_EQ(copy.Argv()[3], nullptr);
    }
    EXPECT_EQ(safe_mem_live_blocks(), before);
}

}  // namespace
