#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include "QuillSsl.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

const std::string kSslLines =
    "info SSL: Support not included.\n"
    "info SSL: #################### Init check passed ####################\n";

TEST(QuillSsl, InitLogsTwoInfoLinesAndPasses)
{
    Config cfg(nullptr, nullptr, static_cast<const char* const*>(nullptr));
    QuillSsl ssl(cfg);
    StderrCapture capture;
    EXPECT_TRUE(ssl.Init());
    EXPECT_EQ(LogLines(capture.Take()), kSslLines);
}

TEST(QuillSsl, AltbaseScanLastOneWins)
{
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"-altbase", "/a"}, "/a"}, {{"-altbase", "/a", "-altbase", "/b"}, "/b"}, {{"x", "-altbase", "/a", "y"}, "/a"},
        {{"-altbase", "/a", "-altbase"}, "/a"},  // a last "-altbase" has no value
        {{"-altbase", "-altbase", "/b"}, "-altbase"},  // the value is skipped, even "-altbase"
        {{"-Altbase", "/a", "altbase", "/b"}, "/etc/ssl"},
    };
    for (const auto& [args, baseDir] : cases) {
        Bbs cfg("ssl");
        cfg.Set("Ssl.BaseDir", "/etc/ssl");
        std::vector<char*> argv;
        std::string label;
        for (const std::string& a : args) {
            argv.push_back(const_cast<char*>(a.c_str()));
            label += a + " ";
        }
        ssl_scan_args(cfg, static_cast<int>(argv.size()), argv.data());
        EXPECT_STREQ(cfg.GetStr("Ssl.BaseDir", "<none>"), baseDir) << label;
    }
}

// The command reads the fixed file (its absence is only noted) and ends
// with status 0, with or without arguments.
TEST(SslInit, RunsOnTheFixedFileAndAlwaysExitsZero)
{
    std::string reason = NamespacesUnavailableReason(CLONE_NEWNS);
    if (!reason.empty()) GTEST_SKIP() << reason;
    std::string report = RunInMountNamespace([] {
        std::string report = unlink("/etc/vantor.conf") == 0 || errno == ENOENT ? "" : "cannot remove ";
        for (const auto& args : {std::vector<std::string>{"sslinit"}, {"sslinit", "x", "-altbase", "/a", "-altbase"}}) {
            RunResult r = RunVtest(args);
            report += std::to_string(r.status) + "|" + r.out + "|" + LogLines(r.err);
        }
        return report;
    });
    const std::string once = "0||info No configuration file \"/etc/vantor.conf\", using defaults.\n" + kSslLines;
    EXPECT_EQ(report, once + once);
}

}  // namespace
