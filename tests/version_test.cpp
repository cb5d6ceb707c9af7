#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "Version.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

const uint64_t kUntouched = 9999;

TEST(Version, ParsesOnlyCanonicalDecimals)
{
    const std::pair<const char*, uint64_t> good[] = {{"0", 0}, {"1200", 1200}, {"18446744073709551615", UINT64_MAX}};
    for (const auto& g : good) {
        Version v;
        EXPECT_TRUE(v.Parse(g.first) && v.Value() == g.second) << g.first;
    }
    const char* const bad[] = {
        "18446744073709551616", "99999999999999999999", "100000000000000000000",  // overflow, 20 and 21 digits
        "", "+1", "-1", " 1", "1 ", "01", "00", "1\n", "1\r", "1.5", "0x10", nullptr,
    };
    for (const char* text : bad) {
        Version v(kUntouched);
        EXPECT_FALSE(v.Parse(text) || v.Value() != kUntouched) << (text ? text : "null");
    }
}

class VersionFile : public ::testing::Test {
protected:
    void SetUp() override { m_dir = MakeTempDir(); }
    void TearDown() override { std::filesystem::remove_all(m_dir); }
    std::string Path(const char* name) const { return m_dir + "/" + name; }

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

TEST_F(VersionFile, ReadsTheNumberAndOneLineEndOnly)
{
    const std::pair<std::string, std::pair<int, uint64_t>> cases[] = {
        {"1200\n", {0, 1200}}, {"1200", {0, 1200}}, {"1200\r\n", {0, 1200}},
        {"123", {0, 123}},  // cut mid-number before the read: not detectable, the shorter number
        {"", {-EBADMSG, kUntouched}}, {"\n", {-EBADMSG, kUntouched}},
        {"1200\r", {-EBADMSG, kUntouched}},  // CR without LF
        {"1200\n\n", {-EBADMSG, kUntouched}}, {"1200 \n", {-EBADMSG, kUntouched}},
        {std::string("12\0", 3), {-EBADMSG, kUntouched}}, {"012\n", {-EBADMSG, kUntouched}},
        {"1" + std::string(64, '0'), {-EBADMSG, kUntouched}},  // 65 bytes
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(WriteFile(Path("vantor.ver"), c.first));
        EXPECT_EQ(Read(Path("vantor.ver")), c.second) << c.first;
    }
}

TEST_F(VersionFile, RefusesWhatIsNotARegularFileWithoutOpeningIt)
{
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0755), 0);
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0644), 0);  // opening it would block: no writer
    EXPECT_EQ(Read(Path("dir")).first, -EISDIR);
    EXPECT_EQ(Read(Path("fifo")).first, -EINVAL);
    EXPECT_EQ(Read("/dev/null").first, -EINVAL);
    EXPECT_EQ(Read(Path("none")).first, -ENOENT);
}

TEST_F(VersionFile, NoPermissionIsEacces)
{
    ASSERT_TRUE(WriteFile(Path("vantor.ver"), "5\n"));
    ASSERT_EQ(chmod(Path("vantor.ver").c_str(), 0), 0);
    ASSERT_EQ(chmod(m_dir.c_str(), 0755), 0);
    // Root reads anything: read as nobody in a child.
    pid_t pid = fork();
    if (pid == 0) _exit((geteuid() != 0 || setresuid(65534, 65534, 65534) == 0) ? -Read(Path("vantor.ver")).first : 0);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), EACCES);
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
// the other, never a part of one, and a replaced file is simply read again.
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
