#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <regex>
#include <vector>

#include "daemon.h"
#include "debugger.h"
#include "fixed_paths.h"
#include "process.h"
#include "wait.h"

namespace {

// Each piece of a message is a line with the same prefix; levels past the named ones read "unk ".
TEST(SyslogSafe, SplitsLinesNamesLevelsAndChunksForTheDaemon)
{
    StderrCapture capture;
    syslog_safe(6, "%s", "a\n\nb");
    for (int level : {0, 3, 4, 7, 8, 12}) syslog_safe(level, "x");
    const std::string out = capture.Take(), tid = std::to_string(dbg_gettid());
    EXPECT_EQ(LogLines(out), "info a\ninfo b\nemrg x\nerr  x\nwarn x\ndbg  x\nunk  x\nunk  x\n");
    EXPECT_TRUE(std::regex_search(out, std::regex("^(\\d\\d\\.\\d{6} \\[" + tid + "\\] )info a\n\\1info b\n"))) << out;
    // Daemon mode sends chunks marked as continued: read back in a private mount namespace whose /dev holds only
    // our own /dev/log.
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNS); !why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNS, [] {
        CHILD_CHECK(mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") == 0);
        int server = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un addr = {AF_UNIX, "/dev/log"};
        CHILD_CHECK(bind(server, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0);
        openlog("t", LOG_NDELAY, LOG_LOCAL5);
        daemon_is_on = true;
        syslog_safe(6, "%s", std::string(450, 'm').c_str());
        daemon_is_on = false;
        // Each record: "<pri>timestamp t: PREFIX[...]chunk"; 200 bytes but the last, the later ones marked.
        const std::regex record(R"(t: (\d\d\.\d{6} \[\d+\] )(\.\.\.)?(m+)$)");
        char buf[1024];
        size_t total = 0, i = 0;
        for (ssize_t n; (n = recv(server, buf, sizeof buf, MSG_DONTWAIT)) > 0; i++) {
            std::string text(buf, n);
            std::smatch m;
            CHILD_CHECK(std::regex_search(text, m, record) && m[2].matched == (i > 0));
            CHILD_CHECK(i == 2 || m[3].length() == 200 - m[1].length());
            total += m[3].length();
        }
        return i == 3 && total == 450 ? 0 : 16;
    }), 0);
}

// The edges the dump test does not see: the general cause table ends every search, odd frames stay, an added file
// is split at line ends and long lines are cut.
TEST(CrashHandler, NamesDemanglingAndAddedFiles)
{
    std::string names = dbg_code2str(SIGSEGV, 1);
    for (int sig : {0, 31, 32, 6, 29}) names += std::string(" ") + dbg_sig2str(sig);
    EXPECT_EQ(names, "kill(2) or raise(3) UNKNOWN SIGSYS UNKNOWN SIGABRT/SIGIOT SIGPOLL/SIGIO");
    for (std::string kept : {"./vtest(main+0x71) [0x55]", "/lib/libc.so.6(+0x3c050) [0x7f]", "./vtest() [0x55]",
                             "no parenthesis here", "./vtest(_Zbroken+0x1) [0x1]", "./vtest(_Z1fv+0x1 [0x1]"}) {
        std::string line = kept;
        dbg_demangle(line);
        EXPECT_EQ(line, kept);
    }
    std::string dir = MakeTempDir(), path = dir + "/in";
    ASSERT_TRUE(WriteFile(path, "one\r\ntwo\vthree\n" + std::string(300, 'x') + "\n"));
    FILE* dump = tmpfile();
    StderrCapture capture;
    std::string rvs = std::to_string(dbg_add_file(path.c_str(), dump, 1));
    rvs += std::to_string(dbg_add_file((dir + "/missing").c_str(), dump, 1));
    std::string log = LogLines(capture.Take());
    fflush(dump);
    const std::string lines = "one\ntwo\nthree\n" + std::string(255, 'x') + "\n" + std::string(45, 'x') + "\n";
    EXPECT_EQ(rvs + ReadFd(fileno(dump)), "0-1\n" + path + "\n-----------------------------------------\n" + lines);
    fclose(dump);
    EXPECT_TRUE(log.find("! ----------------------------------------------------\n") != std::string::npos &&
                log.find("err  Unable to open " + dir + "/missing (2).\n") != std::string::npos) << log;
    RunProgram({"/bin/rm", "-rf", dir});
}

// "how it ended pid <pid>", "<dump files> <first>", log and dump of a vtest sent `sig` while blocked opening a FIFO,
// once SIGSTKFLT (installed last; no sanitizer catches it) is caught and, for qemu's sake, it blocks in the open.
std::string CrashReport(int sig)
{
    return RunInMountNamespace([sig] {
        const std::string dir = MakeTempDir(), errPath = dir + "/stderr", fifo = dir + "/hub";
        std::vector<std::string> argv = TargetArgv(VTEST_BINARY, {"usb", "reset", fifo});
        std::vector<char*> args(argv.size() + 1, nullptr);
        for (size_t i = 0; i < argv.size(); i++) args[i] = argv[i].data();
        rlimit noCore = {0, 0};  // this is a RunInNamespaces child: the limit stays in it
        pid_t pid = mkfifo(fifo.c_str(), 0600) == 0 && setrlimit(RLIMIT_CORE, &noCore) == 0 ? fork() : -1;
        if (pid == 0) {
            int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (dup2(err, 2) == 2) execv(args[0], args.data());
            _exit(127);
        }
        if (pid < 0) return std::string("no vtest");  // never kill(-1) or waitpid(-1)
        const std::string proc = "/proc/" + std::to_string(pid);
        auto blocked = [&] {
            std::string status = ReadFile(proc + "/status");
            size_t at = status.find("SigCgt:");
            return at != std::string::npos && std::stoull(status.substr(at + 7), nullptr, 16) >> (SIGSTKFLT - 1) & 1 &&
                   ReadFile(proc + "/wchan") == "wait_for_partner";
        };
        auto stored = [&] { return ReadFile(errPath).find("Debug info stored") != std::string::npos; };
        int reader = -1, status = 0;
        if (!WaitUntil(blocked, ScaledMs(5000)) || kill(pid, sig) != 0) kill(pid, SIGKILL);
        else if (sig == SIGUSR1)  // a run that never stores its dump would block in its open for good
            WaitUntil(stored, ScaledMs(5000)) ? reader = open(fifo.c_str(), O_RDONLY) : kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        close(reader);
        glob_t dumps{};
        std::string path = glob("/var/local/vtest-*.dbg", 0, nullptr, &dumps) == 0 ? dumps.gl_pathv[0] : "";
        std::string report = (WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                                : "signal " + std::to_string(WTERMSIG(status))) +
                             " pid " + std::to_string(pid) + "\n" + std::to_string(dumps.gl_pathc) + " " + path +
                             "\n" + ReadFile(errPath) + ReadFile(path);
        globfree(&dumps);
        RunProgram({"/bin/rm", "-rf", dir});
        return report;
    });
}

// Only fault signals have a fault address; a SIGUSR1 run goes on and fails its ioctl on the FIFO.
TEST(CrashHandler, FatalSignalLeavesLogAndDumpFileAndUsr1DumpsAndGoesOn)
{
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNS); !why.empty()) GTEST_SKIP() << why;
    const struct { int sig; std::string ended, name, afterHead, more; } rows[] = {
        {SIGSEGV, "signal 11", "SIGSEGV(11)", "Fault address: 0x", "Debug info stored to /var/local/vtest-"},
        {SIGUSR1, "exit 1", "SIGUSR1(10)", "\nBacktrace", "Error in ioctl: Inappropriate ioctl for device\n"},
    };
    for (const auto& row : rows) {
        const std::string report = CrashReport(row.sig);
        const std::regex head(row.ended + R"( pid (\d+)\n1 /var/local/vtest-\1-\d{4}-\d\d-\d\d-\d{6}\.dbg\n)");
        EXPECT_TRUE(std::regex_search(report, head, std::regex_constants::match_continuous)) << report.substr(0, 300);
        const std::vector<std::string> pieces = {
            "err  ! vtest ", "info ! Fatal signal received: " + row.name + "\n", "info ! Backtrace (PID ",
            "info ! Signal code: 0 - kill(2) or raise(3)\n", "main_usb(int, char**)", "info ! /proc/self/maps\n",
            row.more, "Signal code: 0 - kill(2) or raise(3)Fatal signal received: " + row.name + "\n" + row.afterHead,
            "\nBacktrace (PID ", "\n/proc/self/limits\n-----", "\n/proc/self/status\n-----", "\n/proc/self/maps\n-----",
            "\n/proc/self/net/tcp\n-----", "\n/proc/self/net/udp\n-----"};
        for (const std::string& piece : pieces)
            EXPECT_NE(report.find(piece), std::string::npos) << row.name << ": " << piece;
    }
}

}  // namespace
