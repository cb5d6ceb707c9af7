#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Mutex.hpp"
#include "Secure.h"
#include "debugger.h"
#include "fixed_paths.h"
#include "process.h"
#include "utils.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
const bool kAddressSanitizer = true;
#elif defined(__has_feature)
const bool kAddressSanitizer = __has_feature(address_sanitizer);
#else
const bool kAddressSanitizer = false;
#endif
// A child forked while another thread is inside AddressSanitizer's malloc
// can hang there: this toolchain's runtime does not hold its locks across fork.
const char kAsanForkReason[] = "AddressSanitizer's allocator is not fork-safe with threads here";

const char kSafeEnv[] = "IFS= \t\n\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\n";

struct Finished {
    int status = -1;
    int waitStatus = 0;
    std::string out;
    std::string err;
};

// Feeds `input`, drains both outputs until they end or the time limit
// passes (then the child is killed) and closes the record.
Finished Finish(Secure::POPEN& child, const std::string& input = "", int timeoutMs = 10000)
{
    Finished f;
    if (!input.empty()) fputs(input.c_str(), child.fwrite);
    fclose(child.fwrite);
    child.fwrite = nullptr;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(timeoutMs));
    FILE* streams[2] = {child.fread, child.ferr};
    std::string* sinks[2] = {&f.out, &f.err};
    bool open[2] = {true, true};
    while ((open[0] || open[1]) && std::chrono::steady_clock::now() < deadline) {
        pollfd fds[2] = {{open[0] ? fileno(streams[0]) : -1, POLLIN, 0}, {open[1] ? fileno(streams[1]) : -1, POLLIN, 0}};
        if (poll(fds, 2, 50) <= 0) continue;
        for (int i = 0; i < 2; i++) {
            char buf[4096];
            ssize_t n = fds[i].revents ? read(fds[i].fd, buf, sizeof buf) : -2;
            if (n > 0) sinks[i]->append(buf, static_cast<size_t>(n));
            if (n == 0 || n == -1) open[i] = false;
        }
    }
    if (open[0] || open[1]) kill(child.pid, SIGKILL);
    f.status = Secure::pclose(child, &f.waitStatus);
    return f;
}

Finished RunCommand(const char* command, const std::string& input = "")
{
    Secure::POPEN child;
    if (Secure::popen(command, child) != 0) return Finished();
    return Finish(child, input);
}

// Runs `body` in a forked child with standard output on a file; returns the
// child's status (128 + signal when killed) and what it wrote.
std::pair<int, std::string> RunWithStdout(const std::function<int()>& body)
{
    std::string path = MakeTempDir() + "/out";
    fflush(stdout);
    int rv = RunInNamespaces(0, [&] {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0 || dup2(fd, 1) != 1) return 99;
        close(fd);
        return body();
    });
    std::string text = ReadFile(path);
    unlink(path.c_str());
    rmdir(path.substr(0, path.rfind('/')).c_str());
    return {rv, text};
}

// Waits at most timeoutMs for pid, then kills it; its exit status or -1.
int WaitChild(pid_t pid, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(timeoutMs));
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(1000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Execs /usr/bin/env with this process's (sanitised) environment.
int ExecEnv()
{
    char* const argv[] = {const_cast<char*>("/usr/bin/env"), nullptr};
    execv(argv[0], argv);
    return 98;
}

TEST(Secure, SystemReturnsTheChildsStatus)
{
    EXPECT_EQ(Secure::system("/bin/true"), 0);
    EXPECT_EQ(Secure::system("/bin/false"), 1);
    EXPECT_EQ(Secure::system("/nonexistent"), 127);
    EXPECT_EQ(Secure::system("ls -l"), 127);  // no PATH search
    EXPECT_EQ(Secure::system("/bin/sh -c 'kill -9 $$'"), 0);
    EXPECT_EQ(Secure::system("/bin/sh -c 'exit 255'"), 255);
    EXPECT_EQ(Secure::system(""), -1);
    // More output than a pipe holds still lets the child end.
    EXPECT_EQ(Secure::system("/usr/bin/head -c 1000000 /dev/zero"), 0);
}

TEST(Secure, PcloseReportsRawStatusOfASignalledChild)
{
    Finished f = RunCommand("/bin/sh -c 'kill -TERM $$'");
    EXPECT_EQ(f.status, 0);
    ASSERT_TRUE(WIFSIGNALED(f.waitStatus));
    EXPECT_EQ(WTERMSIG(f.waitStatus), SIGTERM);
    Secure::POPEN none = {nullptr, nullptr, nullptr, -1};
    EXPECT_EQ(Secure::pclose(none), -1);
}

TEST(Secure, StringPopenGivesEmptyEnvironmentAndTmp)
{
    EXPECT_EQ(RunCommand("/usr/bin/env").out, "");
    EXPECT_EQ(RunCommand("/bin/pwd").out, "/tmp\n");
    Finished cat = RunCommand("/bin/cat", "through stdin\n");
    EXPECT_EQ(cat.out, "through stdin\n");
    EXPECT_EQ(RunCommand("/bin/sh -c 'echo to stderr >&2'").err, "to stderr\n");
}

TEST(Secure, VectorPopenPassesTheGivenEnvironment)
{
    char* const argv[] = {const_cast<char*>("env"), nullptr};
    char* const envp[] = {const_cast<char*>("A=1"), const_cast<char*>("B=two words"), nullptr};
    Secure::POPEN child;
    ASSERT_EQ(Secure::popen("/usr/bin/env", argv, envp, child), 0);
    EXPECT_EQ(Finish(child).out, "A=1\nB=two words\n");
}

TEST(Secure, ParentDescriptorsAreNotInherited)
{
    int fd = open("/dev/null", O_RDONLY);  // deliberately without close-on-exec
    ASSERT_GE(fd, 3);
    // 3 is ls's own handle on the directory it lists.
    EXPECT_EQ(RunCommand("/bin/ls /proc/self/fd").out, "0\n1\n2\n3\n");
    close(fd);
}

// Sets `vars` for one child run of `body`, which must exit 0; returns what
// the child printed.
std::string PrintedWith(const std::vector<std::pair<const char*, const char*>>& vars,
                        const std::function<int()>& body)
{
    for (const auto& [name, value] : vars) setenv(name, value, 1);
    auto [rv, out] = RunWithStdout(body);
    for (const auto& var : vars) unsetenv(var.first);
    EXPECT_EQ(rv, 0);
    return out;
}

TEST(Secure, ForkChildGetsTheSafeEnvironment)
{
    std::string out = PrintedWith({{"TZ", "UTC"}, {"VTEST_SECRET", "x"}}, [] {
        pid_t pid = Secure::fork();
        return pid == 0 ? ExecEnv() : WaitChild(pid, 10000);
    });
    EXPECT_EQ(out, std::string(kSafeEnv) + "TZ=UTC\n");
}

TEST(Secure, SanitizeEnvironmentKeepsNamedVariablesInOrder)
{
    std::string out = PrintedWith({{"VTEST_B", "b=2"}, {"VTEST_A", ""}}, [] {
        char* names[] = {const_cast<char*>("VTEST_B"), const_cast<char*>("VTEST_UNSET"),
                         const_cast<char*>("VTEST_A"), nullptr, const_cast<char*>("HOME")};
        Secure::SanitizeEnvironment(5, names);
        return ExecEnv();
    });
    EXPECT_EQ(out, std::string(kSafeEnv) + "VTEST_B=b=2\nVTEST_A=\n");
}

TEST(Secure, SafeEnvironmentListsTheSameEntries)
{
    setenv("TZ", "CET", 1);
    setenv("VTEST_K", "v", 1);
    char* names[] = {const_cast<char*>("VTEST_K"), const_cast<char*>("PATH"), const_cast<char*>("VTEST_K")};
    std::vector<std::string> entries;
    Secure::SafeEnvironment(3, names, entries);
    std::string path = std::string("PATH=") + getenv("PATH");
    unsetenv("VTEST_K");
    unsetenv("TZ");
    EXPECT_EQ(entries, (std::vector<std::string>{"IFS= \t\n", path, "TZ=CET", "VTEST_K=v"}));
}

TEST(Secure, SanitizeFilesClosesAllButKeptAndReopensStandardOnes)
{
    int rv = RunInNamespaces(0, [] {
        int dropped = open("/dev/null", O_RDONLY), kept = open("/dev/null", O_RDONLY);
        struct stat null, now;
        stat("/dev/null", &null);
        close(1);
        int keep[] = {kept, -1};
        Secure::SanitizeFiles(keep);
        if (fcntl(dropped, F_GETFD) != -1 || errno != EBADF) return 1;
        if (fcntl(kept, F_GETFD) < 0) return 2;
        if (fstat(1, &now) != 0 || now.st_rdev != null.st_rdev || !S_ISCHR(now.st_mode)) return 3;
        if ((fcntl(1, F_GETFL) & O_ACCMODE) != O_WRONLY) return 4;
        return 0;
    });
    EXPECT_EQ(rv, 0);
}

TEST(Secure, StreamPairReadsAndWrites)
{
    FILE* r = Secure::popen("/bin/echo hello there", "r");
    ASSERT_NE(r, nullptr);
    char line[64] = {};
    ASSERT_NE(fgets(line, sizeof line, r), nullptr);
    EXPECT_STREQ(line, "hello there\n");
    EXPECT_EQ(Secure::pclose(r), 0);

    FILE* w = Secure::popen("/bin/sh -c 'read line; test \"$line\" = ping'", "w");
    ASSERT_NE(w, nullptr);
    fputs("ping\n", w);
    EXPECT_EQ(Secure::pclose(w), 0);

    for (const char* mode : {"rw", "", "R", "r+"}) EXPECT_EQ(Secure::popen("/bin/cat", mode), nullptr) << mode;
    EXPECT_EQ(Secure::popen("/bin/cat", nullptr), nullptr);
    FILE* missing = Secure::popen("/nonexistent", "r");  // fails in the child only
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(Secure::pclose(missing), 127);
    EXPECT_EQ(Secure::pclose(stdin), -1);
}

TEST(Secure, StreamPairFromManyThreads)
{
    if (kAddressSanitizer) GTEST_SKIP() << kAsanForkReason;
    secureInit();
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t, &mismatches] {
            for (int i = 0; i < 15; i++) {
                std::string expected = std::to_string(t) + "-" + std::to_string(i);
                FILE* r = Secure::popen(("/bin/echo " + expected).c_str(), "r");
                char line[64] = {};
                if (!r || !fgets(line, sizeof line, r) || expected + "\n" != line || Secure::pclose(r) != 0)
                    mismatches++;
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(mismatches, 0);
}

// Children must start and end while other threads hold the allocator's and
// the logger's resources at the moment of fork.
TEST(Secure, ChildrenStartWhileOtherThreadsAllocateAndLog)
{
    if (kAddressSanitizer) GTEST_SKIP() << kAsanForkReason;
    int savedErr = dup(2);
    int devNull = open("/dev/null", O_WRONLY);
    ASSERT_EQ(dup2(devNull, 2), 2);
    std::atomic<bool> stop{false};
    std::vector<std::thread> busy;
    for (int t = 0; t < 3; t++)
        busy.emplace_back([&stop] {
            while (!stop) {
                void* p = safe_mem_malloc(64, __FILE__, __LINE__);
                Mutex census(false);
                syslog_safe(7, "DBG %s:%d busy %p", __FILE__, __LINE__, p);
                safe_mem_free(p, __FILE__, __LINE__);
            }
        });
    std::atomic<int> failures{0};
    std::vector<std::thread> starters;
    for (int t = 0; t < 2; t++)
        starters.emplace_back([&failures] {
            for (int i = 0; i < 20 && failures == 0; i++) {
                // The forked child logs, allocates and reports an object itself.
                int rv = RunInNamespaces(0, [] {
                    pid_t pid = Secure::fork();
                    if (pid != 0) return WaitChild(pid, 5000);
                    syslog_safe(7, "DBG %s:%d in the child", __FILE__, __LINE__);
                    safe_mem_free(safe_mem_malloc(16, __FILE__, __LINE__), __FILE__, __LINE__);
                    Mutex census(true);
                    _exit(0);
                }, 20000);
                Finished f = RunCommand("/nonexistent");
                if (rv != 0 || f.status != 127) failures++;
            }
        });
    for (std::thread& t : starters) t.join();
    stop = true;
    for (std::thread& t : busy) t.join();
    dup2(savedErr, 2);
    close(savedErr);
    close(devNull);
    EXPECT_EQ(failures, 0);
}

// Privilege changes run in forked children of a root test process that first
// take the shape of a set-user-id program.
class SecurePrivileges : public testing::Test {
protected:
    struct Ids {
        uid_t uid;
        gid_t gid;
    };

    void SetUp() override
    {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to take set-user-id shapes with setresuid";
        if (!LookUp("nobody", m_nobody) || !LookUp("daemon", m_daemon))
            GTEST_SKIP() << "needs the users nobody and daemon";
    }

    static bool LookUp(const char* name, Ids& ids)
    {
        const passwd* pw = getpwnam(name);
        if (pw) ids = {pw->pw_uid, pw->pw_gid};
        return pw != nullptr;
    }

    // Runs body after taking real ids `real` and effective and saved `owner`.
    int RunShaped(Ids real, Ids owner, const std::function<int()>& body)
    {
        return RunInNamespaces(0, [&] {
            if (setgroups(0, nullptr) != 0 || setresgid(real.gid, owner.gid, owner.gid) != 0 ||
                setresuid(real.uid, owner.uid, owner.uid) != 0)
                return 90;
            return body();
        });
    }

    static bool AllIds(uid_t uid, gid_t gid)
    {
        uid_t r, e, s;
        gid_t rg, eg, sg;
        getresuid(&r, &e, &s);
        getresgid(&rg, &eg, &sg);
        return r == uid && e == uid && s == uid && rg == gid && eg == gid && sg == gid;
    }

    Ids m_nobody{}, m_daemon{};
};

TEST_F(SecurePrivileges, PermanentDropLeavesOnlyTheRealIds)
{
    for (Ids owner : {Ids{0, 0}, m_daemon}) {
        int rv = RunShaped(m_nobody, owner, [&] {
            auto saved = std::make_unique<Secure::PRIVILEGES>();
            Secure::DropPrivileges(saved.get());
            if (saved->uid != owner.uid || saved->gid != owner.gid) return 1;
            if (!AllIds(m_nobody.uid, m_nobody.gid)) return 2;
            if (seteuid(owner.uid) == 0 || setegid(owner.gid) == 0) return 3;
            return 0;
        });
        EXPECT_EQ(rv, 0) << "owner uid " << owner.uid;
    }
}

TEST_F(SecurePrivileges, TemporaryDropIsRestored)
{
    for (Ids owner : {Ids{0, 0}, m_daemon}) {
        int rv = RunShaped(m_nobody, owner, [&] {
            if (owner.uid == 0) {
                gid_t groups[] = {4, 7};
                if (setgroups(2, groups) != 0) return 91;
            }
            auto saved = std::make_unique<Secure::PRIVILEGES>();
            saved->uid = geteuid();
            saved->gid = getegid();
            saved->ngroups = getgroups(65536, saved->groups);
            Secure::DropPrivileges(nullptr);
            if (geteuid() != m_nobody.uid || getegid() != m_nobody.gid) return 1;
            Secure::RestorePrivileges(*saved);
            if (geteuid() != owner.uid || getegid() != owner.gid) return 2;
            gid_t groups[8];
            int n = getgroups(8, groups);
            if (owner.uid == 0 && (n != 2 || groups[0] != 4 || groups[1] != 7)) return 3;
            return 0;
        });
        EXPECT_EQ(rv, 0) << "owner uid " << owner.uid;
    }
}

TEST_F(SecurePrivileges, ImpossibleIdentityChangeAborts)
{
    auto restoreRoot = [] {
        auto saved = std::make_unique<Secure::PRIVILEGES>();
        saved->uid = 0;
        saved->gid = 0;
        saved->ngroups = 0;
        Secure::RestorePrivileges(*saved);
        return 0;
    };
    auto restoreGroup = [this] {
        auto saved = std::make_unique<Secure::PRIVILEGES>();
        saved->uid = m_nobody.uid;
        saved->gid = 0;
        saved->ngroups = 0;
        Secure::RestorePrivileges(*saved);
        return 0;
    };
    EXPECT_EQ(RunShaped(m_nobody, m_nobody, restoreRoot), 128 + SIGABRT);
    EXPECT_EQ(RunShaped(m_nobody, m_nobody, restoreGroup), 128 + SIGABRT);
}

}  // namespace
