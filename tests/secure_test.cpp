// Starting children safely: statuses, what a child sees, forks under held locks, identity changes, sec-exec.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "Mutex.hpp"
#include "Secure.h"
#include "debugger.h"
#include "process.h"
#include "utils.h"
#include "wait.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
const bool kAddressSanitizer = true;
#elif defined(__has_feature)
const bool kAddressSanitizer = __has_feature(address_sanitizer);
#else
const bool kAddressSanitizer = false;
#endif

const std::string kSafeEnv = "IFS= \t\n\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\n";

// What the stream form reads from `command`, then "|" and pclose's status.
std::string StreamOutput(const char* command)
{
    FILE* r = Secure::popen(command, "r");
    std::string out;
    for (int c; r && (c = fgetc(r)) != EOF;) out += static_cast<char>(c);
    return out + "|" + std::to_string(r ? Secure::pclose(r) : -1);
}

// The exit status of pid, or -1 (the caller's RunInNamespaces bounds the wait).
int WaitChild(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What `body`, run in a child, returned, a blank and what it wrote to its standard output.
std::string InChild(const std::function<int()>& body)
{
    FILE* out = tmpfile();
    fflush(stdout);
    int rv = RunInNamespaces(0, [&] { return out && dup2(fileno(out), 1) == 1 ? body() : 99; });
    std::string text = std::to_string(rv) + " " + (out ? ReadFd(fileno(out)) : "");
    if (out) fclose(out);
    return text;
}

// /usr/bin/env as a child sees it, with `vars` set before `start` (0 in the child).
std::string EnvSeen(const std::vector<std::pair<const char*, const char*>>& vars, const std::function<pid_t()>& start)
{
    return InChild([&] {
        for (const auto& [name, value] : vars) setenv(name, value, 1);
        pid_t pid = start();
        if (pid == 0) execl("/usr/bin/env", "env", static_cast<char*>(nullptr));
        return pid > 0 ? WaitChild(pid) : 99;
    });
}

// Each command through system (output discarded) and through the stream form; then a child's environment and files.
TEST(Secure, StatusesWhatTheChildSeesAndForksUnderHeldLocks)
{
    int inherited = open("/dev/null", O_RDONLY);  // deliberately without close-on-exec; 3 is ls's own
    ASSERT_GE(inherited, 3);
    const struct { const char* command; int status; std::string out; } rows[] = {
        {"/bin/true", 0, ""}, {"/bin/false", 1, ""}, {"/nonexistent", 127, ""}, {"ls -l", 127, ""},  // no PATH search
        {"/bin/sh -c 'kill -9 $$'", 0, ""}, {"/bin/sh -c 'exit 255'", 255, ""}, {"", -1, ""},
        {"/usr/bin/head -c 1000000 /dev/zero", 0, std::string(1000000, '\0')},  // more than a pipe holds
        {"/bin/echo hello there", 0, "hello there\n"}, {"/usr/bin/env", 0, ""},  // an empty environment
        {"/bin/ls /proc/self/fd", 0, "0\n1\n2\n3\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Secure::system(row.command), row.status) << row.command;
        EXPECT_EQ(StreamOutput(row.command), row.out + "|" + std::to_string(row.status)) << row.command;
    }
    close(inherited);
    FILE* w = Secure::popen("/bin/sh -c 'read line; test \"$line\" = ping'", "w");
    EXPECT_TRUE(w && fputs("ping\n", w) >= 0 && Secure::pclose(w) == 0);
    for (const char* mode : {"rw", "", "R", "r+", static_cast<const char*>(nullptr)})
        EXPECT_EQ(Secure::popen("/bin/cat", mode), nullptr) << (mode ? mode : "null");
    Secure::POPEN none = {nullptr, nullptr, nullptr, -1};
    EXPECT_TRUE(Secure::pclose(none) == -1 && Secure::pclose(stdin) == -1);
    // SanitizeEnvironment keeps named variables in the order named (sec-exec's rows cover SafeEnvironment).
    EXPECT_EQ(EnvSeen({{"TZ", "UTC"}, {"VTEST_SECRET", "x"}}, Secure::fork), "0 " + kSafeEnv + "TZ=UTC\n");
    EXPECT_EQ(EnvSeen({{"VTEST_B", "b=2"}, {"VTEST_A", ""}}, [] {
        char b[] = "VTEST_B", u[] = "VTEST_UNSET", a[] = "VTEST_A", h[] = "HOME", *names[] = {b, u, a, nullptr, h};
        return Secure::SanitizeEnvironment(5, names), 0;
    }), "0 " + kSafeEnv + "VTEST_B=b=2\nVTEST_A=\n");
    EXPECT_EQ("0 ", InChild([] {
        int dropped = open("/dev/null", O_RDONLY), kept = open("/dev/null", O_RDONLY), keep[] = {kept, -1};
        struct stat null, now;
        stat("/dev/null", &null);
        close(1);
        Secure::SanitizeFiles(keep);
        CHILD_CHECK(fcntl(dropped, F_GETFD) == -1 && errno == EBADF && fcntl(kept, F_GETFD) >= 0);
        CHILD_CHECK(fstat(1, &now) == 0 && now.st_rdev == null.st_rdev && S_ISCHR(now.st_mode));
        return (fcntl(1, F_GETFL) & O_ACCMODE) == O_WRONLY ? 0 : 1;
    }));
    // Children start from several threads while others hold the allocator's and the logger's locks; this
    // toolchain's AddressSanitizer does not hold its allocator locks across fork.
    if (kAddressSanitizer) GTEST_SKIP() << "AddressSanitizer's allocator is not fork-safe with threads here";
    secureInit();
    int savedErr = dup(2), devNull = open("/dev/null", O_WRONLY);
    ASSERT_EQ(dup2(devNull, 2), 2);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> busy, starters;
    auto useLocks = [] {  // the allocator's, the logger's and the object census's
        void* p = safe_mem_malloc(64, __FILE__, __LINE__);
        Mutex census(false);
        syslog_safe(7, "DBG %s:%d busy %p", __FILE__, __LINE__, p);
        safe_mem_free(p, __FILE__, __LINE__);
    };
    for (int t = 0; t < 3; t++) busy.emplace_back([&] { while (!stop) useLocks(); });
    for (int t = 0; t < 4; t++)
        starters.emplace_back([t, &failures, &useLocks] {
            for (int i = 0; i < 12 && failures == 0; i++) {
                std::string expected = std::to_string(t) + "-" + std::to_string(i);
                bool echoed = StreamOutput(("/bin/echo " + expected).c_str()) == expected + "\n|0";
                int rv = RunInNamespaces(0, [&] {  // the forked child takes the same locks itself
                    pid_t pid = Secure::fork();
                    if (pid == 0) useLocks(), _exit(0);
                    return WaitChild(pid);
                }, 20000);
                if (!echoed || rv != 0 || Secure::system("/nonexistent") != 127) failures++;
            }
        });
    for (std::thread& t : starters) t.join();
    stop = true;
    for (std::thread& t : busy) t.join();
    dup2(savedErr, 2), close(savedErr), close(devNull);
    EXPECT_EQ(failures, 0);
}

const uid_t kNobody = 65534;

// `body` in a child shaped like a set-user-id program of `owner` (uid = gid) that nobody runs.
std::string AsSetId(uid_t owner, const std::function<int()>& body)
{
    return InChild([&] {
        bool shaped = setgroups(0, nullptr) == 0 && setresgid(kNobody, owner, owner) == 0 &&
                      setresuid(kNobody, owner, owner) == 0;
        return shaped ? body() : 90;
    });
}

// Root and ordinary owners; a temporary drop is undone from a record filled before (root's groups too).
TEST(SecurePrivileges, DropsArePermanentOrRestoredAndImpossibleRestoresAbort)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs root to take set-user-id shapes with setresuid";
    for (uid_t owner : {0u, 1u}) {
        EXPECT_EQ(AsSetId(owner, [owner] {
            auto saved = std::make_unique<Secure::PRIVILEGES>();
            Secure::DropPrivileges(saved.get());
            CHILD_CHECK(saved->uid == owner && saved->gid == owner);
            CHILD_CHECK(getuid() == kNobody && geteuid() == kNobody && getegid() == kNobody);
            return seteuid(owner) == 0 || setegid(owner) == 0 ? 3 : 0;
        }), "0 ") << "permanent, owner " << owner;
        EXPECT_EQ(AsSetId(owner, [owner] {
            gid_t groups[8] = {4, 7};
            auto saved = std::make_unique<Secure::PRIVILEGES>();
            if (owner == 0 && setgroups(2, groups) != 0) return 91;
            saved->uid = geteuid(), saved->gid = getegid(), saved->ngroups = getgroups(65536, saved->groups);
            Secure::DropPrivileges(nullptr);
            CHILD_CHECK(geteuid() == kNobody && getegid() == kNobody);
            Secure::RestorePrivileges(*saved);
            CHILD_CHECK(owner != 0 || (getgroups(8, groups) == 2 && groups[0] == 4 && groups[1] == 7));
            return geteuid() == owner && getegid() == owner ? 0 : 3;
        }), "0 ") << "temporary, owner " << owner;
    }
    for (uid_t uid : {0u, kNobody})
        EXPECT_EQ(AsSetId(kNobody, [uid] {
            auto saved = std::make_unique<Secure::PRIVILEGES>();  // zeroed: gid 0, no groups
            saved->uid = uid;
            return Secure::RestorePrivileges(*saved), 0;
        }), std::to_string(128 + SIGABRT) + " ") << "restoring uid " << uid << " gid 0";
}

const std::string kNoPath = " (no PATH search: give the full path).\n";
const std::string kUsage =
    std::string("Usage: ") + VTEST_BINARY + " sec-exec [--keep-env=<name>]... <command> [<argument>]...\n";

// Words are joined, then split again like the daemon's; each stream carries far more than a pipe holds.
TEST(SecExec, StatusesWordsStreamsEnvironmentAndUsage)
{
    std::string lines;
    for (int i = 0; i < 30000; i++) lines += std::to_string(i) + "\n";
    const std::string script = "'i=0; while [ $i -lt 30000 ]; do echo $i; echo $i >&2; i=$((i+1)); done'";
    const char* const vars[][2] = {{"TZ", "Europe/Oslo"}, {"VTEST_KEEP", "a b"}, {"VTEST_DROP", "x"}};
    for (const auto& [name, value] : vars) setenv(name, value, 1);
    // A kept name holds its first place; PATH, when kept, its safe one.
    const std::string keptEnv =
        "IFS= \t\n\nPATH=" + std::string(getenv("PATH")) + "\nTZ=Europe/Oslo\nVTEST_KEEP=a b\n";
    const struct { std::vector<std::string> words; int status; std::string out, err, input = ""; } rows[] = {
        {{"/bin/sh", "-c", "'exit 1'"}, 1, "", ""},
        {{"/nonexistent"}, 127, "", "sec-exec: cannot execute /nonexistent: No such file or directory" + kNoPath},
        {{"/etc"}, 127, "", "sec-exec: cannot execute /etc: Is a directory" + kNoPath},  // found by stat, not by exec
        {{"/bin/sh", "-c", "'kill -TERM $$'"}, 143, "", "sec-exec: /bin/sh killed by signal 15 (Terminated).\n"},
        {{"/bin/echo", "'a  b'", "c\"d e\""}, 0, "a  b c d e\n", ""}, {{"/bin/pwd"}, 0, "/tmp\n", ""},
        {{"--", "/bin/true"}, 0, "", ""}, {{}, 255, "", kUsage},
        {{"--keep-env=", "/bin/true"}, 255, "", "sec-exec: unknown option '--keep-env='.\n" + kUsage},
        {{"--bogus", "/bin/true"}, 255, "", "sec-exec: unknown option '--bogus'.\n" + kUsage},
        {{"--keep-env=VTEST_KEEP", "--keep-env=VTEST_UNSET", "--keep-env=PATH", "--keep-env=VTEST_KEEP",
          "/usr/bin/env"}, 0, keptEnv, ""},
        {{"/bin/sh", "-c", script}, 0, lines, lines}, {{"/bin/cat"}, 0, lines, "", lines},
        {{"/bin/echo", "done"}, 0, "done\n", "", lines},  // a child that never reads its input still ends
    };
    for (const auto& row : rows) {
        std::vector<std::string> args{"sec-exec"};
        args.insert(args.end(), row.words.begin(), row.words.end());
        RunResult r = RunVtest(args, row.input);
        EXPECT_EQ(std::tie(r.timedOut, r.status, r.out, r.err), std::make_tuple(false, row.status, row.out, row.err))
            << (row.words.empty() ? "" : row.words.front() + " " + row.words.back().substr(0, 40));
    }
    for (const auto& [name, value] : vars) unsetenv(name);
}

TEST(SecExec, InstalledSetIdGivesUpItsIdsForGood)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs root to install a set-user-id copy and run it as nobody";
    SKIP_IF_EMULATED(EmulationGap::SetIdPrograms);
    std::string dir = MakeTempDir(), copy = dir + "/vtest";
    ASSERT_EQ(system(("cp " VTEST_BINARY " " + copy + " && chown 1:1 " + copy + " && chmod 6755 " + copy +
                      " && chmod 755 " + dir).c_str()), 0);
    RunResult r = RunProgram({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", copy,
                              "sec-exec", "/bin/grep", "^[UG]id:", "/proc/self/status"});
    const std::string ids = "\t65534\t65534\t65534\t65534\n";
    EXPECT_EQ(std::to_string(r.status) + " " + r.out, "0 Uid:" + ids + "Gid:" + ids) << r.err;
    RunProgram({"/bin/rm", "-rf", dir});
}

}  // namespace
