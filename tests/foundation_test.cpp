#include <gtest/gtest.h>

#include <cstring>

#include "TimeSpan.h"
#include "fixed_paths.h"
#include "utils.h"

namespace {

// A start in the future is a deadline: its duration counts up from minus.
TEST(TimeSpan, DeadlineGivesNegativeDuration)
{
    TimeSpan span;
    span.Reset(5);
    long long ns = span.DurationNs();
    EXPECT_TRUE(ns < -4900000000LL && ns >= -5000000000LL) << ns;
    EXPECT_LT(span.Duration(), 0);
    span.Reset(-2, -500000000LL);
    EXPECT_GE(span.DurationMs(), 2500);
}

TEST(TimeSpan, StrFormatsLocalTimeAndGivesEmptyTextWhenTooSmall)
{
    setenv("TZ", "UTC", 1);
    tzset();
    const timespec t = {86400 + 3661, 0};
    char buf[32], small[5];
    EXPECT_STREQ(TimeSpan::Str(t, buf, sizeof buf, "%Y-%m-%d %H:%M:%S"), "1970-01-02 01:01:01");
    EXPECT_STREQ(TimeSpan::Str(t, small, sizeof small, "%Y-%m-%d"), "");
}

TEST(Base64, RoundTripsOnOneLineAndRejectsDamagedText)
{
    std::string longText(999, 'z'), longCode;
    while (longCode.size() < 1332) longCode += "enp6";  // no line breaks, however long
    const std::pair<std::string, std::string> cases[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {std::string("\0\xff\x10", 3), "AP8Q"},
        {longText, longCode}};
    for (const auto& [plain, encoded] : cases) {
        char* text = base64(plain.data(), plain.size());
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text), encoded);
        safe_mem_free(text, __FILE__, __LINE__);
        std::string back = "untouched";
        EXPECT_TRUE(decode64(encoded.c_str(), back)) << encoded.substr(0, 8);
        EXPECT_EQ(back, plain);
    }
    for (const char* bad : {"Zg=", "Z!==", "Zm9v\n", "====", "Zg==Zg=="}) {
        std::string out = "untouched";
        EXPECT_FALSE(decode64(bad, out)) << bad;
        EXPECT_EQ(out, "untouched") << bad;
    }
}

TEST(GuardedAllocator, CountsBlocksAndLeaksAnOverrunBlock)
{
    size_t live = safe_mem_live_blocks();
    char* p = static_cast<char*>(safe_mem_zalloc(16, __FILE__, __LINE__));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[15], 0);
    char* q = safe_mem_strndup("abcdef", 3, "alloc.cpp", 5);
    EXPECT_STREQ(q, "abc");
    p = static_cast<char*>(safe_mem_realloc(p, 4000, __FILE__, __LINE__));
    EXPECT_EQ(safe_mem_live_blocks(), live + 2);
    safe_mem_free(p, __FILE__, __LINE__);
    safe_mem_free(nullptr, __FILE__, __LINE__);

    // One byte past the end (after the terminating NUL) breaks the tail
    // guard: logged, and the block is leaked rather than freed.
    q[4] = 'X';
    StderrCapture capture;
    safe_mem_free(q, "caller.cpp", 77);
    EXPECT_EQ(LogLines(capture.Take()),
              "err  <safe_mem> caller.cpp:77: overrun past 4 bytes of block from alloc.cpp:5.\n");
    EXPECT_EQ(safe_mem_live_blocks(), live + 1);
    q[4] = '\xFD';  // mended, the block frees normally
    safe_mem_free(q, __FILE__, __LINE__);
    EXPECT_EQ(safe_mem_live_blocks(), live);
}

TEST(Census, CountsObjectsAndChecksumIsAnUnsignedByteSum)
{
    safe_mem_object("x.cpp", 1, "Widget", nullptr);
    safe_mem_object("x.cpp", 2, "Widget", nullptr);
    safe_mem_object("x.cpp", 3, "~Widget", nullptr);
    EXPECT_EQ(safe_mem_object_count("Widget"), 1);
    EXPECT_EQ(safe_mem_object_count("Gadget"), 0);
    const unsigned char bytes[] = {0xff, 0xff, 0x01};
    EXPECT_EQ(checksum(bytes, 3), 0x1ffu);
}

}  // namespace
