#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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
    const struct {
        const char* text;
        bool ok;
        uint64_t value;
    } cases[] = {
        {"0", true, 0},
        {"1200", true, 1200},
        {"18446744073709551615", true, UINT64_MAX},
        {"18446744073709551616", false, 0},   // one above the maximum
        {"99999999999999999999", false, 0},   // 20 digits, overflow
        {"100000000000000000000", false, 0},  // 21 digits
        {"", false, 0},
        {"+1", false, 0},
        {"-1", false, 0},
        {" 1", false, 0},
        {"1 ", false, 0},
        {"01", false, 0},
        {"00", false, 0},
        {"1\n", false, 0},
        {"1\r", false, 0},
        {"1.5", false, 0},
        {"0x10", false, 0},
        {nullptr, false, 0},
    };
    for (const auto& c : cases) {
        Version v(kUntouched);
        EXPECT_EQ(v.Parse(c.text), c.ok) << (c.text ? c.text : "null");
        EXPECT_EQ(v.Value(), c.ok ? c.value : kUntouched) << (c.text ? c.text : "null");
    }
}

class VersionFile : public ::testing::Test {
protected:
    void SetUp() override { m_dir = MakeTempDir(); }
    void TearDown() override { std::filesystem::remove_all(m_dir); }
    std::string Path(const char* name) const { return m_dir + "/" + name; }

    // ReadFile's result and value, with the value preset so a failure shows it kept it.
    std::pair<int, uint64_t> Read(const std::string& path)
    {
        Version v(kUntouched);
        timespec mtime = {1, 2};
        int rv = v.ReadFile(path.c_str(), &mtime);
        if (rv != 0) {
            EXPECT_TRUE(mtime.tv_sec == 1 && mtime.tv_nsec == 2) << path;
        }
        return {rv, v.Value()};
    }

    std::string m_dir;
};

TEST_F(VersionFile, ReadsTheNumberAndOneLineEndOnly)
{
    const struct {
        std::string content;
        int rv;
        uint64_t value;
    } cases[] = {
        {"1200\n", 0, 1200},
        {"1200", 0, 1200},
        {"1200\r\n", 0, 1200},
        {"123", 0, 123},  // cut mid-number before the read: not detectable, the shorter number
        {"", -EBADMSG, 0},
        {"\n", -EBADMSG, 0},
        {"1200\r", -EBADMSG, 0},  // CR without LF
        {"1200\n\n", -EBADMSG, 0},
        {"1200 \n", -EBADMSG, 0},
        {std::string("12\0", 3), -EBADMSG, 0},
        {"012\n", -EBADMSG, 0},
        {"1" + std::string(64, '0'), -EBADMSG, 0},  // 65 bytes
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(WriteFile(Path("vantor.ver"), c.content));
        EXPECT_EQ(Read(Path("vantor.ver")), std::make_pair(c.rv, c.rv == 0 ? c.value : kUntouched)) << c.content;
    }
}

TEST_F(VersionFile, RefusesWhatIsNotARegularFileWithoutOpeningIt)
{
    ASSERT_EQ(mkdir(Path("dir").c_str(), 0755), 0);
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0644), 0);  // opening it would block: no writer
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", Path("sock").c_str());
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(Read(Path("dir")).first, -EISDIR);
    EXPECT_EQ(Read(Path("fifo")).first, -EINVAL);
    EXPECT_EQ(Read(Path("sock")).first, -EINVAL);
    EXPECT_EQ(Read("/dev/null").first, -EINVAL);
    EXPECT_EQ(Read(Path("none")).first, -ENOENT);
    close(s);
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
    RunResult ls = RunProgram({"/bin/ls", "-A", m_dir});
    EXPECT_EQ(ls.out, "vantor.ver.7\n");
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
        if (r.first == 0 && (r.second == kShort || r.second == kLong)) whole++;
        else other++;
    }
    writer.join();
    EXPECT_GT(whole, 0);
    EXPECT_EQ(other, 0);
}

}  // namespace
