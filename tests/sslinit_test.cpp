#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include "QuillSsl.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

TEST(QuillSsl, AltbaseScanLastOneWins)
{
    const std::pair<std::vector<const char*>, const char*> cases[] = {
        {{"-altbase", "/a"}, "/a"}, {{"-altbase", "/a", "-altbase", "/b"}, "/b"}, {{"x", "-altbase", "/a", "y"}, "/a"},
        {{"-altbase", "/a", "-altbase"}, "/a"},  // a last "-altbase" has no value
        {{"-altbase", "-altbase", "/b"}, "-altbase"},  // the value is skipped, even "-altbase"
        {{"-Altbase", "/a", "altbase", "/b"}, "/etc/ssl"},
    };
    for (const auto& [args, baseDir] : cases) {
        Bbs cfg("ssl");
        cfg.Set("Ssl.BaseDir", "/etc/ssl");
        std::vector<char*> argv;
        for (const char* a : args) argv.push_back(const_cast<char*>(a));
        ssl_scan_args(cfg, static_cast<int>(argv.size()), argv.data());
        EXPECT_STREQ(cfg.GetStr("Ssl.BaseDir", "<none>"), baseDir) << args.size() << " words, first " << args[0];
    }
}

// The command reads the fixed file (its absence is only noted), initialises
// the SSL context and ends with status 0, whatever its arguments.
TEST(SslInit, RunsOnTheFixedFileAndAlwaysExitsZero)
{
    std::string reason = NamespacesUnavailableReason(CLONE_NEWNS);
    if (!reason.empty()) GTEST_SKIP() << reason;
    std::string report = RunInMountNamespace([] {
        std::string report = unlink("/etc/vantor.conf") == 0 || errno == ENOENT ? "" : "cannot remove ";
        RunResult r = RunVtest({"sslinit", "x", "-altbase", "/a", "-altbase"});
        return report + std::to_string(r.status) + "|" + r.out + "|" + LogLines(r.err);
    });
    EXPECT_EQ(report, "0||info No configuration file \"/etc/vantor.conf\", using defaults.\n"
                      "info SSL: Support not included.\n"
                      "info SSL: #################### Init check passed ####################\n");
}

}  // namespace
