#include <gtest/gtest.h>

#include <cstring>

#include "TimeSpan.h"
#include "utils.h"

namespace {

TEST(TimeSpan, FutureStartGivesNegativeDuration)
{
    TimeSpan span;
    span.Reset(5);
    long long ns = span.DurationNs();
    EXPECT_LT(ns, -4900000000LL);
    EXPECT_GE(ns, -5000000000LL);
    EXPECT_EQ(span.Duration(), static_cast<long>(ns / 1000000000LL));
    span.Reset(-2, -500000000LL);
    EXPECT_GE(span.DurationMs(), 2500);
}

TEST(TimeSpan, SubMicrosecondSleepDoesNotSleep)
{
    TimeSpan span;
    TimeSpan::Sleep(999LL, 1);
    // usleep(0) returns at once; allow generous scheduling slack.
    EXPECT_LT(span.DurationMs(), 500);
}

TEST(TimeSpan, StrFormatsLocalTimeAndGivesEmptyTextWhenTooSmall)
{
    setenv("TZ", "UTC", 1);
    tzset();
    timespec t = {86400 + 3661, 0};
    char buf[32];
    EXPECT_STREQ(TimeSpan::Str(t, buf, sizeof buf, "%Y-%m-%d %H:%M:%S"), "1970-01-02 01:01:01");
    char small[5];
    EXPECT_STREQ(TimeSpan::Str(t, small, sizeof small, "%Y-%m-%d"), "");
}

TEST(TimeSpan, ConversionsTruncate)
{
    timespec t = {3, 999999999};
    EXPECT_EQ(TimeSpan::ToMs(t), 3999);
    EXPECT_EQ(TimeSpan::ToUs(t), 3999999);
    EXPECT_EQ(TimeSpan::ToNs(t), 3999999999LL);
    EXPECT_EQ(TimeSpan::ToS(t), 3);
}

TEST(Base64, RoundTripsAndRejectsDamagedText)
{
    const std::pair<std::string, std::string> cases[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"user@example", "dXNlckBleGFtcGxl"},
        {std::string("\0\xff\x10", 3), "AP8Q"}};
    for (const auto& [plain, encoded] : cases) {
        char* text = base64(plain.data(), plain.size());
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(text), encoded);
        safe_mem_free(text, __FILE__, __LINE__);
        std::string back = "untouched";
        EXPECT_TRUE(decode64(encoded.c_str(), back));
        EXPECT_EQ(back, plain);
    }
    std::string long_(1000, 'z');
    char* text = base64(long_.data(), long_.size());
    EXPECT_EQ(strchr(text, '\n'), nullptr);
    safe_mem_free(text, __FILE__, __LINE__);

    for (const char* bad : {"Zg=", "Z!==", "Zm9v\n", "====", "Zg==Zg=="}) {
        std::string out = "untouched";
        EXPECT_FALSE(decode64(bad, out)) << bad;
        EXPECT_EQ(out, "untouched") << bad;
    }
}

TEST(GuardedAllocator, CountsBlocksAndDetectsOverruns)
{
    size_t live = safe_mem_live_blocks();
    char* p = static_cast<char*>(safe_mem_zalloc(16, __FILE__, __LINE__));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[15], 0);
    char* q = safe_mem_strndup("abcdef", 3, __FILE__, __LINE__);
    EXPECT_STREQ(q, "abc");
    EXPECT_EQ(safe_mem_live_blocks(), live + 2);
    p = static_cast<char*>(safe_mem_realloc(p, 4000, __FILE__, __LINE__));
    EXPECT_EQ(safe_mem_live_blocks(), live + 2);
    safe_mem_free(p, __FILE__, __LINE__);
    safe_mem_free(nullptr, __FILE__, __LINE__);

    // One byte past the end (after the terminating NUL) breaks the tail
    // guard: logged, and the block is leaked rather than freed.
    q[4] = 'X';
    testing::internal::CaptureStderr();
    safe_mem_free(q, "caller.cpp", 77);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("err  <safe_mem> caller.cpp:77: overrun past 4 bytes of block from "), std::string::npos)
        << log;
    EXPECT_EQ(safe_mem_live_blocks(), live + 1);
    q[4] = '\xFD';  // mended, the block frees normally
    safe_mem_free(q, __FILE__, __LINE__);
    EXPECT_EQ(safe_mem_live_blocks(), live);
}

TEST(ObjectCensus, TracksConstructionsAndDestructions)
{
    int a = 0, b = 0;
    safe_mem_object("x.cpp", 1, "Widget", &a);
    safe_mem_object("x.cpp", 2, "Widget", &b);
    safe_mem_object("x.cpp", 3, "~Widget", &a);
    EXPECT_EQ(safe_mem_object_count("Widget"), 1);
    EXPECT_EQ(safe_mem_object_count("Gadget"), 0);
}

TEST(Checksum, IsAPlainUnsignedByteSum)
{
    const unsigned char bytes[] = {0xff, 0xff, 0x01};
    EXPECT_EQ(checksum(bytes, 3), 0x1ffu);
    EXPECT_EQ(checksum(bytes, 0), 0u);
}

}  // namespace
