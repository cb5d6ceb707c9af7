// Starting children safely: statuses, what a child sees, the stream form,
// forks while other threads hold locks, and identity changes that must abort.
// (The vector form with its environment runs through sec_exec_test.)
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

const char kSafeEnv[] = "IFS= \t\n\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\n";

struct Finished {
    int status = -1, waitStatus = 0;
    std::string out, err;
};

// Starts `command`, feeds `input`, drains both outputs until they end or ten
// (scaled) seconds pass without a byte (then kills it) and closes the record.
Finished RunCommand(const char* command, const std::string& input = "")
{
    Finished f;
    Secure::POPEN child;
    if (Secure::popen(command, child) != 0) return f;
    fputs(input.c_str(), child.fwrite);
    fclose(child.fwrite);
    child.fwrite = nullptr;
    pollfd fds[2] = {{fileno(child.fread), POLLIN, 0}, {fileno(child.ferr), POLLIN, 0}};
    std::string* sinks[2] = {&f.out, &f.err};
    for (int idle = 0; (fds[0].fd >= 0 || fds[1].fd >= 0) && idle < ScaledMs(10000) / 50;) {
        if (poll(fds, 2, 50) <= 0) {
            idle++;
            continue;
        }
        for (int i = 0; i < 2; i++) {
            char buf[4096];
            ssize_t n = fds[i].revents ? read(fds[i].fd, buf, sizeof buf) : -2;
            if (n > 0) sinks[i]->append(buf, static_cast<size_t>(n));
            if (n == 0 || n == -1) fds[i].fd = -1;  // poll skips it from now on
        }
    }
    if (fds[0].fd >= 0 || fds[1].fd >= 0) kill(child.pid, SIGKILL);
    f.status = Secure::pclose(child, &f.waitStatus);
    return f;
}

// Runs `body` in a forked child with `vars` set and standard output on a
// file; returns the child's status (128 + signal when killed) and what it wrote.
std::pair<int, std::string> RunWithStdout(const std::vector<std::pair<const char*, const char*>>& vars,
                                          const std::function<int()>& body)
{
    std::string dir = MakeTempDir(), path = dir + "/out";
    fflush(stdout);
    int rv = RunInNamespaces(0, [&] {
        for (const auto& [name, value] : vars) setenv(name, value, 1);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        return fd < 0 || dup2(fd, 1) != 1 ? 99 : body();
    });
    std::string text = ReadFile(path);
    RunProgram({"/bin/rm", "-rf", dir});
    return {rv, text};
}

// The exit status of pid, or -1 (the caller's RunInNamespaces bounds the wait).
int WaitChild(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Execs /usr/bin/env with this process's (sanitised) environment.
int ExecEnv()
{
    char* const argv[] = {const_cast<char*>("/usr/bin/env"), nullptr};
    execv(argv[0], argv);
    return 98;
}

TEST(Secure, ExitStatusesAndWhatTheChildSees)
{
    const std::pair<const char*, int> statuses[] = {
        {"/bin/true", 0}, {"/bin/false", 1}, {"/nonexistent", 127}, {"ls -l", 127},  // no PATH search
        {"/bin/sh -c 'kill -9 $$'", 0}, {"/bin/sh -c 'exit 255'", 255}, {"", -1},
        {"/usr/bin/head -c 1000000 /dev/zero", 0},  // more output than a pipe holds
    };
    for (const auto& [command, status] : statuses) EXPECT_EQ(status, Secure::system(command)) << command;
    // pclose leaves the raw status of a signalled child to the caller.
    Finished f = RunCommand("/bin/sh -c 'kill -TERM $$'");
    EXPECT_EQ(f.status, 0);
    EXPECT_TRUE(WIFSIGNALED(f.waitStatus) && WTERMSIG(f.waitStatus) == SIGTERM) << f.waitStatus;
    Secure::POPEN none = {nullptr, nullptr, nullptr, -1};
    EXPECT_EQ(Secure::pclose(none), -1);
    // An empty environment and none of the parent's descriptors (3 is ls's own).
    int fd = open("/dev/null", O_RDONLY);  // deliberately without close-on-exec
    ASSERT_GE(fd, 3);
    EXPECT_EQ("", RunCommand("/usr/bin/env").out);
    EXPECT_EQ("0\n1\n2\n3\n", RunCommand("/bin/ls /proc/self/fd").out);
    close(fd);
    EXPECT_EQ("through stdin\n", RunCommand("/bin/cat", "through stdin\n").out);
    EXPECT_EQ("to stderr\n", RunCommand("/bin/sh -c 'echo to stderr >&2'").err);
}

TEST(Secure, StreamFormReadsOrWrites)
{
    FILE* r = Secure::popen("/bin/echo hello there", "r");
    char line[64] = {};
    ASSERT_TRUE(r && fgets(line, sizeof line, r));
    EXPECT_STREQ(line, "hello there\n");
    EXPECT_EQ(Secure::pclose(r), 0);
    FILE* w = Secure::popen("/bin/sh -c 'read line; test \"$line\" = ping'", "w");
    ASSERT_TRUE(w && fputs("ping\n", w) >= 0);
    EXPECT_EQ(Secure::pclose(w), 0);
    for (const char* mode : {"rw", "", "R", "r+", static_cast<const char*>(nullptr)})
        EXPECT_EQ(Secure::popen("/bin/cat", mode), nullptr) << (mode ? mode : "null");
    FILE* missing = Secure::popen("/nonexistent", "r");  // fails in the child only
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(Secure::pclose(missing), 127);
    EXPECT_EQ(Secure::pclose(stdin), -1);
}

// A forked child gets the safe set and TZ; SanitizeEnvironment keeps the
// named variables in the order named; SafeEnvironment lists a name given
// twice once, in its first place.
TEST(Secure, EnvironmentIsTheSafeSetPlusWhatIsKept)
{
    const std::string safe = kSafeEnv;
    auto forked = [] {
        pid_t pid = Secure::fork();
        return pid == 0 ? ExecEnv() : WaitChild(pid);
    };
    EXPECT_EQ(RunWithStdout({{"TZ", "UTC"}, {"VTEST_SECRET", "x"}}, forked), std::make_pair(0, safe + "TZ=UTC\n"));
    auto sanitized = [] {
        char* names[] = {const_cast<char*>("VTEST_B"), const_cast<char*>("VTEST_UNSET"),
                         const_cast<char*>("VTEST_A"), nullptr, const_cast<char*>("HOME")};
        Secure::SanitizeEnvironment(5, names);
        return ExecEnv();
    };
    EXPECT_EQ(RunWithStdout({{"VTEST_B", "b=2"}, {"VTEST_A", ""}}, sanitized),
              std::make_pair(0, safe + "VTEST_B=b=2\nVTEST_A=\n"));
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
    EXPECT_EQ(0, RunInNamespaces(0, [] {
        int dropped = open("/dev/null", O_RDONLY), kept = open("/dev/null", O_RDONLY);
        struct stat null, now;
        stat("/dev/null", &null);
        close(1);
        int keep[] = {kept, -1};
        Secure::SanitizeFiles(keep);
        if (fcntl(dropped, F_GETFD) != -1 || errno != EBADF) return 1;
        if (fcntl(kept, F_GETFD) < 0) return 2;
        if (fstat(1, &now) != 0 || now.st_rdev != null.st_rdev || !S_ISCHR(now.st_mode)) return 3;
        return (fcntl(1, F_GETFL) & O_ACCMODE) != O_WRONLY ? 4 : 0;
    }));
}

// Children must start and end from several threads at once while other
// threads hold the allocator's and the logger's resources at the moment of fork.
TEST(Secure, ChildrenStartFromManyThreadsWhileOthersAllocateAndLog)
{
    // A child forked while another thread is inside AddressSanitizer's malloc
    // can hang there: this toolchain's runtime does not hold its locks across fork.
    if (kAddressSanitizer) GTEST_SKIP() << "AddressSanitizer's allocator is not fork-safe with threads here";
    secureInit();
    int savedErr = dup(2), devNull = open("/dev/null", O_WRONLY);
    ASSERT_EQ(dup2(devNull, 2), 2);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> busy, starters;
    for (int t = 0; t < 3; t++)
        busy.emplace_back([&stop] {
            while (!stop) {
                void* p = safe_mem_malloc(64, __FILE__, __LINE__);
                Mutex census(false);
                syslog_safe(7, "DBG %s:%d busy %p", __FILE__, __LINE__, p);
                safe_mem_free(p, __FILE__, __LINE__);
            }
        });
    for (int t = 0; t < 4; t++)
        starters.emplace_back([t, &failures] {
            for (int i = 0; i < 12 && failures == 0; i++) {
                std::string expected = std::to_string(t) + "-" + std::to_string(i);
                FILE* r = Secure::popen(("/bin/echo " + expected).c_str(), "r");
                char line[64] = {};
                bool echoed = r && fgets(line, sizeof line, r) && expected + "\n" == line;
                if (r && Secure::pclose(r) != 0) echoed = false;
                // The forked child logs, allocates and reports an object itself.
                int rv = RunInNamespaces(0, [] {
                    pid_t pid = Secure::fork();
                    if (pid != 0) return WaitChild(pid);
                    syslog_safe(7, "DBG %s:%d in the child", __FILE__, __LINE__);
                    safe_mem_free(safe_mem_malloc(16, __FILE__, __LINE__), __FILE__, __LINE__);
                    Mutex census(true);
                    _exit(0);
                }, 20000);
                if (!echoed || rv != 0 || RunCommand("/nonexistent").status != 127) failures++;
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
    struct Ids { uid_t uid; gid_t gid; };

    void SetUp() override
    {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to take set-user-id shapes with setresuid";
        const passwd* nobody = getpwnam("nobody");
        if (nobody) m_nobody = {nobody->pw_uid, nobody->pw_gid};
        const passwd* daemon = getpwnam("daemon");
        if (!nobody || !daemon) GTEST_SKIP() << "needs the users nobody and daemon";
        m_daemon = {daemon->pw_uid, daemon->pw_gid};
    }

    // Runs body after taking real ids of nobody and effective and saved `owner`.
    int RunShaped(Ids owner, const std::function<int()>& body)
    {
        return RunInNamespaces(0, [&] {
            if (setgroups(0, nullptr) != 0 || setresgid(m_nobody.gid, owner.gid, owner.gid) != 0 ||
                setresuid(m_nobody.uid, owner.uid, owner.uid) != 0)
                return 90;
            return body();
        });
    }

    Ids m_nobody{}, m_daemon{};
};

// For a root-owned and an ordinary owner: a permanent drop leaves only the
// real ids for good; a temporary drop is undone from a record filled before;
// a restore that cannot be done aborts.
TEST_F(SecurePrivileges, DropsArePermanentOrRestoredAndImpossibleRestoresAbort)
{
    for (Ids owner : {Ids{0, 0}, m_daemon}) {
        EXPECT_EQ(0, RunShaped(owner, [&] {
            auto saved = std::make_unique<Secure::PRIVILEGES>();
            Secure::DropPrivileges(saved.get());
            if (saved->uid != owner.uid || saved->gid != owner.gid) return 1;
            uid_t r, e, s;
            gid_t rg, eg, sg;
            if (getresuid(&r, &e, &s) != 0 || getresgid(&rg, &eg, &sg) != 0) return 2;
            if (r != m_nobody.uid || e != r || s != r || rg != m_nobody.gid || eg != rg || sg != rg) return 2;
            return seteuid(owner.uid) == 0 || setegid(owner.gid) == 0 ? 3 : 0;
        })) << "permanent, owner uid " << owner.uid;
        EXPECT_EQ(0, RunShaped(owner, [&] {
            gid_t groups[8] = {4, 7};
            if (owner.uid == 0 && setgroups(2, groups) != 0) return 91;
            auto saved = std::make_unique<Secure::PRIVILEGES>();
            saved->uid = geteuid();
            saved->gid = getegid();
            saved->ngroups = getgroups(65536, saved->groups);
            Secure::DropPrivileges(nullptr);
            if (geteuid() != m_nobody.uid || getegid() != m_nobody.gid) return 1;
            Secure::RestorePrivileges(*saved);
            if (geteuid() != owner.uid || getegid() != owner.gid) return 2;
            int n = getgroups(8, groups);
            return owner.uid == 0 && (n != 2 || groups[0] != 4 || groups[1] != 7) ? 3 : 0;
        })) << "temporary, owner uid " << owner.uid;
    }
    for (Ids target : {Ids{0, 0}, Ids{m_nobody.uid, 0}})
        EXPECT_EQ(128 + SIGABRT, RunShaped(m_nobody, [target] {
            auto saved = std::make_unique<Secure::PRIVILEGES>();
            saved->uid = target.uid;
            saved->gid = target.gid;
            saved->ngroups = 0;
            Secure::RestorePrivileges(*saved);
            return 0;
        })) << "restoring uid " << target.uid << " gid " << target.gid;
}

}  // namespace
