#include <gtest/gtest.h>

#include "ArgArray.h"
#include "fixed_paths.h"
#include "utils.h"

namespace {

using Words = std::vector<std::string>;

// The words, checking the terminator execv needs after the last one.
Words WordsOf(const ArgArray& a)
{
    EXPECT_EQ(a.Argv()[a.Argc()], nullptr);
    return Words(a.Argv(), a.Argv() + a.Argc());
}

TEST(ArgArray, ParsesLinesIntoWordsUpToTheCapacity)
{
    struct Case { const char* line; int capacity; Words words; const char* log = ""; } cases[] = {
        {nullptr, 3, {}}, {"/bin/ls -l \"my dir\"", 10, {"/bin/ls", "-l", "my dir"}}, {"  a \t b  ", 10, {"a", "b"}},
        {"''\"\"", 10, {"", ""}}, {"ab\"c d\"e", 10, {"ab", "c d", "e"}},  // a quote also ends an unquoted word
        {"'a\"b' \"c'd\"", 10, {"a\"b", "c'd"}}, {"x\\ y", 10, {"x\\", "y"}},  // nothing is escaped
        {"a\nb\r", 10, {"a\nb\r"}}, {"a 'b c", 10, {"a"}, "warn Ignoring unclosed argument: 'b c\n"},
        {"a \"b' c", 10, {"a"}, "warn Ignoring unclosed argument: \"b' c\n"},
        {"a b c", 2, {"a", "b"}}, {"a 'unclosed", 1, {"a"}},  // the capacity ends the parse before the quote
        {"a b", 0, {}}, {"a b", -3, {}},
    };
    for (const Case& c : cases) {
        StderrCapture capture;
        ArgArray a(c.line, c.capacity);
        std::string log = LogLines(capture.Take());
        EXPECT_EQ(std::make_pair(WordsOf(a), log), std::make_pair(c.words, std::string(c.log)))
            << (c.line ? c.line : "(null)");
    }
    const char* argv[] = {"a", "b c", "", nullptr, "unseen"};
    EXPECT_EQ(WordsOf(ArgArray(argv, 10)), (Words{"a", "b c", ""}));
    EXPECT_EQ(WordsOf(ArgArray(argv, 2)), (Words{"a", "b c"}));
    EXPECT_EQ(WordsOf(ArgArray(static_cast<const char**>(nullptr), 2)), Words{});
    EXPECT_EQ(WordsOf(ArgArray(5)), Words{});
}

TEST(ArgArray, CopiesAreDeepIndependentAndLeakFree)
{
    size_t before = safe_mem_live_blocks();
    {
        ArgArray original(std::string("a 'b c' d"), 3);
        ArgArray copy(original), small("p q", 1);
        original.Parse("x");
        EXPECT_EQ(WordsOf(original), Words{"x"});
        EXPECT_EQ(WordsOf(copy), (Words{"a", "b c", "d"}));
        small = copy;
        small.Parse("1 2 3 4");  // takes over the source's capacity of 3
        EXPECT_EQ(WordsOf(small), (Words{"1", "2", "3"}));
        ArgArray& alias = copy;
        copy = alias;
        EXPECT_EQ(WordsOf(copy), (Words{"a", "b c", "d"}));
        copy.Cleanup();
        EXPECT_EQ(WordsOf(copy), Words{});
    }
    EXPECT_EQ(safe_mem_live_blocks(), before);
}

}  // namespace
