// Version: the strict text form, and version files read whole or not at all.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "Version.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

const uint64_t kUntouched = 9999;  // preset; what a refused input must leave

TEST(Version, ParsesOnlyCanonicalDecimals)
{
    const std::pair<const char*, uint64_t> cases[] = {
        {"0", 0}, {"1200", 1200}, {"18446744073709551615", UINT64_MAX},
        {"18446744073709551616", kUntouched}, {"99999999999999999999", kUntouched},  // overflow, 20 digits
        {"100000000000000000000", kUntouched}, {"", kUntouched}, {"+1", kUntouched}, {"-1", kUntouched},
        {" 1", kUntouched}, {"1 ", kUntouched}, {"01", kUntouched}, {"00", kUntouched}, {"1\n", kUntouched},
        {"1\r", kUntouched}, {"1.5", kUntouched}, {"0x10", kUntouched}, {nullptr, kUntouched},
    };
    for (const auto& [text, value] : cases) {
        Version v(kUntouched);
        EXPECT_EQ(v.Parse(text), value != kUntouched) << (text ? text : "null");
        EXPECT_EQ(v.Value(), value) << (text ? text : "null");
    }
}

class VersionFile : public ::testing::Test {
protected:
    void SetUp() override { m_dir = MakeTempDir(); }
    void TearDown() override { std::filesystem::remove_all(m_dir); }
    std::string Path(const char* name) const { return name[0] == '/' ? name : m_dir + "/" + name; }

    // ReadFile's result and value; on failure the preset value and time must stay.
    std::pair<int, uint64_t> Read(const std::string& path)
    {
        Version v(kUntouched);
        timespec mtime = {1, 2};
        int rv = v.ReadFile(path.c_str(), &mtime);
        EXPECT_TRUE(rv == 0 || (mtime.tv_sec == 1 && mtime.tv_nsec == 2)) << path;
        return {rv, v.Value()};
    }

    std::string m_dir;
};

TEST_F(VersionFile, ReadsTheNumberAndOneLineEndFromRegularFilesOnly)
{
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0755), 0);
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0644), 0);  // opening it would block: no writer
    // name: read as is; null: `content` written to vantor.ver first.
    const struct { const char* name; std::string content; int rv; uint64_t value; } cases[] = {
        {nullptr, "1200\n", 0, 1200}, {nullptr, "1200", 0, 1200}, {nullptr, "1200\r\n", 0, 1200},
        {nullptr, "", -EBADMSG, kUntouched}, {nullptr, "\n", -EBADMSG, kUntouched},
        {nullptr, "1200\r", -EBADMSG, kUntouched}, {nullptr, "1200\n\n", -EBADMSG, kUntouched},
        {nullptr, std::string("12\0", 3), -EBADMSG, kUntouched},
        {nullptr, "1" + std::string(64, '0'), -EBADMSG, kUntouched},  // 65 bytes: longer than any number and line end
        {"dir", "", -EISDIR, kUntouched}, {"fifo", "", -EINVAL, kUntouched}, {"/dev/null", "", -EINVAL, kUntouched},
        {"none", "", -ENOENT, kUntouched},
    };
    for (const auto& c : cases) {
        if (!c.name) { ASSERT_TRUE(WriteFile(Path("vantor.ver"), c.content)); }
        const char* name = c.name ? c.name : "vantor.ver";
        EXPECT_EQ(Read(Path(name)), std::make_pair(c.rv, c.value)) << name << " " << c.content;
    }
}

TEST_F(VersionFile, WriteReplacesWholeAndLeavesNothingElse)
{
    std::string path = Path("vantor.ver.7");
    EXPECT_EQ(Version(42).WriteFile(path.c_str()), 0);
    EXPECT_EQ(ReadFile(path), "42\n");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(RunProgram({"/bin/ls", "-A", m_dir}).out, "vantor.ver.7\n");
    EXPECT_EQ(Version(1).WriteFile(Path("none/vantor.ver").c_str()), -ENOENT);
}

// A reader racing a writer that replaces the file sees one whole number or
// the other, never a part of one, however often it is replaced.
TEST_F(VersionFile, ReaderNeverSeesHalfANumber)
{
    const uint64_t kShort = 7, kLong = 1234567890123;
    std::string path = Path("vantor.ver");
    ASSERT_EQ(Version(kLong).WriteFile(path.c_str()), 0);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; i++) (void)Version(i % 2 ? kShort : kLong).WriteFile(path.c_str());
        done = true;
    });
    int whole = 0, other = 0;
    while (!done) {
        std::pair<int, uint64_t> r = Read(path);
        (r.first == 0 && (r.second == kShort || r.second == kLong) ? whole : other)++;
    }
    writer.join();
    EXPECT_GT(whole, 0);
    EXPECT_EQ(other, 0);
}

}  // namespace
