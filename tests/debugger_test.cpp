#include <fcntl.h>
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

#include <cerrno>
#include <fstream>
#include <regex>
#include <sstream>
#include <vector>

#include "daemon.h"
#include "debugger.h"
#include "process.h"

namespace {

std::string CaptureLog(int level, const char* text)
{
    testing::internal::CaptureStderr();
    syslog_safe(level, "%s", text);
    return testing::internal::GetCapturedStderr();
}

TEST(SyslogSafe, SplitsLinesSkipsEmptyPiecesAndNamesLevels)
{
    std::string out = CaptureLog(6, "a\n\nb");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(out, m, std::regex(R"((\d\d\.\d{6} \[\d+\] )info a\n(\d\d\.\d{6} \[\d+\] )info b\n)")))
        << out;
    EXPECT_EQ(m[1], m[2]);
    EXPECT_NE(out.find("[" + std::to_string(dbg_gettid()) + "] "), std::string::npos);

    const std::pair<int, const char*> levels[] = {{0, "emrg"}, {3, "err "}, {4, "warn"}, {7, "dbg "},
                                                  {8, "unk "}, {12, "unk "}};
    for (const auto& [level, name] : levels)
        EXPECT_NE(CaptureLog(level, "x").find(std::string(name) + " x\n"), std::string::npos) << level;
}

// Runs in a private mount namespace whose /dev is a tmpfs holding only our
// own /dev/log, so the daemon path's syslog records can be read back.
int CheckDaemonChunks()
{
    if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) return 10;
    int server = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    if (bind(server, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return 11;
    openlog("t", LOG_NDELAY, LOG_LOCAL5);
    daemon_is_on = true;
    std::string message(450, 'm');
    syslog_safe(6, "%s", message.c_str());
    daemon_is_on = false;
    std::vector<std::string> records;
    char buf[1024];
    for (ssize_t n; (n = recv(server, buf, sizeof buf, MSG_DONTWAIT)) > 0;) records.emplace_back(buf, n);
    // Each record: "<pri>timestamp t: PREFIX[...]chunk".
    std::regex prefix(R"(t: (\d\d\.\d{6} \[\d+\] )(\.\.\.)?(m+)$)");
    if (records.size() != 3) return 12;
    size_t total = 0;
    for (size_t i = 0; i < records.size(); i++) {
        std::smatch m;
        if (!std::regex_search(records[i], m, prefix)) return 13;
        if (m[2].matched != (i > 0)) return 14;
        if (i < 2 && m[3].length() != 200 - m[1].length()) return 15;
        total += m[3].length();
    }
    return total == 450 ? 0 : 16;
}

TEST(SyslogSafe, DaemonModeSendsChunksMarkedAsContinued)
{
    std::string why = NamespacesUnavailableReason(CLONE_NEWNS);
    if (!why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNS, CheckDaemonChunks), 0);
}

TEST(CrashHandler, SignalNamesAndTheFixedCauseText)
{
    EXPECT_STREQ(dbg_sig2str(0), "UNKNOWN");
    EXPECT_STREQ(dbg_sig2str(40), "UNKNOWN");
    EXPECT_STREQ(dbg_sig2str(6), "SIGABRT/SIGIOT");
    EXPECT_STREQ(dbg_sig2str(16), "SIGSTKFLT");
    EXPECT_STREQ(dbg_sig2str(29), "SIGPOLL/SIGIO");
    EXPECT_STREQ(dbg_sig2str(31), "SIGSYS");
    // The general table is searched first and stops at its code-0 entry.
    for (int code : {0, 1, 2, 128, -6})
        EXPECT_STREQ(dbg_code2str(SIGSEGV, code), "kill(2) or raise(3)") << code;
    EXPECT_STREQ(dbg_code2str(SIGUSR2, 5), "kill(2) or raise(3)");
}

TEST(CrashHandler, DemanglesOnlyMangledSymbolLines)
{
    const std::pair<std::string, std::string> cases[] = {
        {"./vtest(_Z8main_usbiPPc+0x50) [0x55]", "./vtest(main_usb(int, char**)+0x50) [0x55]"},
        {"./vtest(main+0x71) [0x55]", "./vtest(main+0x71) [0x55]"},
        {"/lib/libc.so.6(+0x3c050) [0x7f]", "/lib/libc.so.6(+0x3c050) [0x7f]"},
        {"./vtest() [0x55]", "./vtest() [0x55]"},
        {"no parenthesis here", "no parenthesis here"},
        {"./vtest(_Zbroken+0x1) [0x1]", "./vtest(_Zbroken+0x1) [0x1]"},
    };
    for (auto [line, expected] : cases) {
        dbg_demangle(line);
        EXPECT_EQ(line, expected);
    }
}

TEST(CrashHandler, AddFileSplitsAtLineEndsAndCutsLongLines)
{
    std::string dir = MakeTempDir();
    std::string path = dir + "/in";
    std::ofstream(path) << "one\r\ntwo\vthree\n" << std::string(300, 'x') << "\n";
    FILE* dump = tmpfile();
    testing::internal::CaptureStderr();
    EXPECT_EQ(dbg_add_file(path.c_str(), dump, 1), 0);
    EXPECT_EQ(dbg_add_file((dir + "/missing").c_str(), dump, 1), -1);
    std::string log = testing::internal::GetCapturedStderr();
    rewind(dump);
    std::string written(4096, '\0');
    written.resize(fread(&written[0], 1, written.size(), dump));
    fclose(dump);
    std::string expected = "\n" + path + "\n-----------------------------------------\none\ntwo\nthree\n" +
                           std::string(255, 'x') + "\n" + std::string(45, 'x') + "\n";
    EXPECT_EQ(written, expected);
    EXPECT_NE(log.find("! ----------------------------------------------------\n"), std::string::npos);
    EXPECT_NE(log.find("err  Unable to open " + dir + "/missing (2).\n"), std::string::npos) << log;
    unlink(path.c_str());
    rmdir(dir.c_str());
}

// A vtest blocked opening a FIFO for writing, with its crash handler in
// place: SIGSTKFLT, the last signal it installs and one no sanitizer
// runtime catches, shows up in the caught-signal mask in /proc.
struct BlockedVtest {
    pid_t pid = -1;
    std::string dir = MakeTempDir();
    std::string errPath = dir + "/stderr";

    ~BlockedVtest()
    {
        unlink(errPath.c_str());
        unlink((dir + "/hub").c_str());
        rmdir(dir.c_str());
    }

    bool Start()
    {
        std::string fifo = dir + "/hub";
        if (mkfifo(fifo.c_str(), 0600) != 0) return false;
        pid = fork();
        if (pid == 0) {
            rlimit noCore = {0, 0};
            setrlimit(RLIMIT_CORE, &noCore);
            int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(fd, 2);
            execl(VTEST_BINARY, VTEST_BINARY, "usb", "reset", fifo.c_str(), nullptr);
            _exit(127);
        }
        return WaitForHandler();
    }
    bool WaitForHandler()
    {
        unsigned long long lastBit = 1ULL << (SIGSTKFLT - 1);
        for (int i = 0; i < ScaledMs(5000) / 5; i++) {
            std::ifstream status("/proc/" + std::to_string(pid) + "/status");
            std::string line;
            while (std::getline(status, line))
                if (line.rfind("SigCgt:", 0) == 0 && (std::stoull(line.substr(7), nullptr, 16) & lastBit))
                    return true;
            usleep(5000);
        }
        return false;
    }
    std::string Stderr() const
    {
        std::stringstream s;
        s << std::ifstream(errPath).rdbuf();
        return s.str();
    }
};

std::vector<std::string> DumpFiles()
{
    std::vector<std::string> names;
    RunResult r = RunProgram({"/bin/sh", "-c", "ls /var/local/vtest-*.dbg 2>/dev/null"});
    std::stringstream s(r.out);
    for (std::string line; std::getline(s, line);) names.push_back(line);
    return names;
}

std::string ReadAll(const std::string& path)
{
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

// Each check returns 0 or a distinct failure number (reported by the test).
int CheckSegvDump()
{
    BlockedVtest v;
    if (!v.Start()) return 20;
    kill(v.pid, SIGSEGV);
    int status = 0;
    waitpid(v.pid, &status, 0);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV) return 21;
    std::string err = v.Stderr();
    for (const char* line : {"err  ! vtest ", "info ! Fatal signal received: SIGSEGV(11)\n",
                             "info ! Signal code: 0 - kill(2) or raise(3)\n", "info ! Backtrace (PID ",
                             "main_usb(int, char**)", "info ! /proc/self/maps\n", "info ! Debug info stored to /var/local/vtest-"})
        if (err.find(line) == std::string::npos) return 22;
    std::vector<std::string> dumps = DumpFiles();
    if (dumps.size() != 1) return 23;
    std::regex name("/var/local/vtest-" + std::to_string(v.pid) + R"(-\d{4}-\d\d-\d\d-\d{6}\.dbg)");
    if (!std::regex_match(dumps[0], name)) return 24;
    std::string dump = ReadAll(dumps[0]);
    if (dump.rfind("Signal code: 0 - kill(2) or raise(3)Fatal signal received: SIGSEGV(11)\nFault address: 0x", 0) != 0)
        return 25;
    for (const char* section : {"\nBacktrace (PID ", "\n/proc/self/limits\n-----", "\n/proc/self/status\n-----",
                                "\n/proc/self/maps\n-----", "\n/proc/self/net/tcp\n-----", "\n/proc/self/net/udp\n-----"})
        if (dump.find(section) == std::string::npos) return 26;
    return 0;
}

int CheckUsr1GoesOn()
{
    BlockedVtest v;
    if (!v.Start()) return 30;
    kill(v.pid, SIGUSR1);
    // Wait for the dump, then let the blocked open finish: the run goes on.
    for (int i = 0; i < ScaledMs(5000) / 5 && v.Stderr().find("Debug info stored") == std::string::npos; i++)
        usleep(5000);
    int reader = open((v.dir + "/hub").c_str(), O_RDONLY);
    int status = 0;
    waitpid(v.pid, &status, 0);
    close(reader);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 1) return 31;
    std::string err = v.Stderr();
    if (err.find("info ! Fatal signal received: SIGUSR1(10)\n") == std::string::npos) return 32;
    if (err.find("Error in ioctl: Inappropriate ioctl for device\n") == std::string::npos) return 33;
    return DumpFiles().size() == 1 ? 0 : 34;
}

TEST(CrashHandler, FatalSignalLeavesLogAndDumpFile)
{
    std::string why = NamespacesUnavailableReason(CLONE_NEWNS);
    if (!why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNS, CheckSegvDump), 0);
}

TEST(CrashHandler, Usr1DumpsAndTheProcessGoesOn)
{
    std::string why = NamespacesUnavailableReason(CLONE_NEWNS);
    if (!why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNS, CheckUsr1GoesOn), 0);
}

}  // namespace
