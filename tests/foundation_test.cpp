#include <gtest/gtest.h>

#include <cstring>

#include "ArgArray.h"
#include "TimeSpan.h"
#include "fixed_paths.h"
#include "utils.h"

namespace {

using Words = std::vector<std::string>;

// A start in the future is a deadline: its duration counts up from minus.
TEST(TimeSpan, DeadlineGivesNegativeDurationAndStrFitsOrIsEmpty)
{
    TimeSpan span;
    span.Reset(5);
    long long ns = span.DurationNs();
    EXPECT_TRUE(ns < -4900000000LL && ns >= -5000000000LL) << ns;
    setenv("TZ", "UTC", 1);
    tzset();
    const timespec t = {86400 + 3661, 0};
    char buf[32], small[5];
    EXPECT_STREQ(TimeSpan::Str(t, buf, sizeof buf, "%Y-%m-%d %H:%M:%S"), "1970-01-02 01:01:01");
    EXPECT_STREQ(TimeSpan::Str(t, small, sizeof small, "%Y-%m-%d"), "");
}

TEST(Base64, RoundTripsOnOneLineAndRejectsDamagedText)
{
    std::string longCode;
    while (longCode.size() < 1332) longCode += "enp6";  // no line breaks, however long
    const std::pair<std::string, std::string> cases[] = {
        {"", ""}, {"f", "Zg=="}, {std::string("\0\xff\x10", 3), "AP8Q"}, {std::string(999, 'z'), longCode}};
    for (const auto& [plain, encoded] : cases) {
        char* text = base64(plain.data(), plain.size());
        EXPECT_EQ(std::string(text ? text : "(null)"), encoded);
        safe_mem_free(text, __FILE__, __LINE__);
        std::string back = "untouched";
        EXPECT_TRUE(decode64(encoded.c_str(), back) && back == plain) << encoded.substr(0, 8);
    }
    for (const char* bad : {"Zg=", "Z!==", "Zm9v\n", "====", "Zg==Zg=="}) {
        std::string out = "untouched";
        EXPECT_TRUE(!decode64(bad, out) && out == "untouched") << bad;
    }
}

// One byte past the end (after the NUL) breaks the tail guard: logged and leaked; mended, it frees normally.
TEST(GuardedAllocator, CountsBlocksAndObjectsAndLeaksAnOverrunBlock)
{
    size_t live = safe_mem_live_blocks();
    char* p = static_cast<char*>(safe_mem_zalloc(16, __FILE__, __LINE__));
    ASSERT_TRUE(p && p[15] == 0);
    char* q = safe_mem_strndup("abcdef", 3, "alloc.cpp", 5);
    EXPECT_STREQ(q, "abc");
    safe_mem_free(safe_mem_realloc(p, 4000, __FILE__, __LINE__), __FILE__, __LINE__);
    safe_mem_free(nullptr, __FILE__, __LINE__);
    q[4] = 'X';
    StderrCapture capture;
    safe_mem_free(q, "caller.cpp", 77);
    EXPECT_EQ(LogLines(capture.Take()) + std::to_string(safe_mem_live_blocks() - live),
              "err  <safe_mem> caller.cpp:77: overrun past 4 bytes of block from alloc.cpp:5.\n1");
    q[4] = '\xFD';
    safe_mem_free(q, __FILE__, __LINE__);
    EXPECT_EQ(safe_mem_live_blocks(), live);
    for (const char* event : {"Widget", "Widget", "~Widget"}) safe_mem_object("x.cpp", 1, event, nullptr);
    EXPECT_EQ(std::make_pair(safe_mem_object_count("Widget"), safe_mem_object_count("Gadget")), std::make_pair(1L, 0L));
    const unsigned char bytes[] = {0xff, 0xff, 0x01};  // bytes add as unsigned
    EXPECT_EQ(checksum(bytes, 3), 0x1ffu);
}

// The words, checking the terminator execv needs after the last one.
Words WordsOf(const ArgArray& a) { EXPECT_FALSE(a.Argv()[a.Argc()]); return Words(a.Argv(), a.Argv() + a.Argc()); }

TEST(ArgArray, ParsesUpToTheCapacityAndCopiesDeeply)
{
    struct Case { const char* line; int capacity; Words words; const char* log = ""; } cases[] = {
        {nullptr, 3, {}}, {"/bin/ls -l \"my dir\"", 10, {"/bin/ls", "-l", "my dir"}}, {"  a \t b  ", 10, {"a", "b"}},
        {"''\"\"", 10, {"", ""}}, {"ab\"c d\"e", 10, {"ab", "c d", "e"}},  // a quote also ends an unquoted word
        {"'a\"b' \"c'd\"", 10, {"a\"b", "c'd"}}, {"x\\ y", 10, {"x\\", "y"}},  // nothing is escaped
        {"a\nb\r", 10, {"a\nb\r"}}, {"a 'b c", 10, {"a"}, "warn Ignoring unclosed argument: 'b c\n"},
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
    // Copies are deep, independent and leak-free.
    size_t before = safe_mem_live_blocks();
    {
        ArgArray original(std::string("a 'b c' d"), 3);
        ArgArray copy(original), small("p q", 1);
        original.Parse("x");  // a shallow copy would change with it
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
