// Version: the strict text form, and version files read whole or not at all (the reasons a peer file is
// refused show end to end in backlog_test).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "Version.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

const uint64_t kUntouched = 9999;  // preset; what a refused input must leave

// ReadFile's result and value; on failure the preset value and time must stay.
std::pair<int, uint64_t> Read(const std::string& path)
{
    Version v(kUntouched);
    timespec mtime = {1, 2};
    int rv = v.ReadFile(path.c_str(), &mtime);
    EXPECT_TRUE(rv == 0 || (mtime.tv_sec == 1 && mtime.tv_nsec == 2)) << path;
    return {rv, v.Value()};
}

struct VersionFile : ::testing::Test {
    ~VersionFile() override { std::filesystem::remove_all(m_dir); }
    const std::string m_dir = MakeTempDir(), m_path = m_dir + "/vantor.ver";
};

// Each text parsed, then read as a whole file: one LF or CR LF may end a file, never a text.
TEST_F(VersionFile, TakesOnlyCanonicalDecimals)
{
    const uint64_t x = kUntouched;
    const struct { std::string text; uint64_t parsed, read; } cases[] = {
        {"0", 0, 0}, {"18446744073709551615", UINT64_MAX, UINT64_MAX}, {"1\n", x, 1}, {"1\r\n", x, 1},
        {std::string("12\0", 3), 12, x}, {"18446744073709551616", x, x}, {"", x, x}, {"+1", x, x}, {"01", x, x},
        {"\n", x, x}, {"1200\r", x, x}, {"1200\n\n", x, x}, {"1" + std::string(64, '0'), x, x},
    };
    for (const auto& c : cases) {
        Version v(kUntouched);
        EXPECT_EQ(v.Parse(c.text.c_str()), c.parsed != x) << c.text;
        EXPECT_EQ(v.Value(), c.parsed) << c.text;
        ASSERT_TRUE(WriteFile(m_path, c.text));
        EXPECT_EQ(Read(m_path), std::make_pair(c.read == x ? -EBADMSG : 0, c.read)) << c.text;
    }
    EXPECT_FALSE(Version().Parse(nullptr));
}

// A reader racing a writer that replaces the file sees one whole number or the other, never a part of one;
// the replaced files leave nothing behind, and what stays is readable by all.
TEST_F(VersionFile, ReplacesWholeAndLeavesNothingElse)
{
    const uint64_t kShort = 7, kLong = 1234567890123;
    ASSERT_EQ(Version(kLong).WriteFile(m_path.c_str()), 0);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; i++) (void)Version(i % 2 ? kShort : kLong).WriteFile(m_path.c_str());
        done = true;
    });
    int whole = 0, other = 0;
    for (std::pair<int, uint64_t> r; !done;)
        ((r = Read(m_path)).first == 0 && (r.second == kShort || r.second == kLong) ? whole : other)++;
    writer.join();
    EXPECT_TRUE(whole > 0 && other == 0) << whole << " whole, " << other << " other";
    struct stat st;
    EXPECT_TRUE(stat(m_path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0644);
    EXPECT_EQ(RunProgram({"/bin/ls", "-A", m_dir}).out, "vantor.ver\n");
    EXPECT_EQ(Version(1).WriteFile((m_dir + "/none/vantor.ver").c_str()), -ENOENT);
}

}  // namespace
