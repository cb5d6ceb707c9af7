#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "Debuggable.h"
#include "QuillSsl.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

const char* const kSslLines =
    "info SSL: Support not included.\n"
    "info SSL: #################### Init check passed ####################\n";
const char* const kConf = "/etc/vantor.conf";

TEST(QuillSsl, InitLogsTwoInfoLinesAndPasses)
{
    Config cfg(nullptr, nullptr, static_cast<const char* const*>(nullptr));
    QuillSsl ssl(cfg);
    EXPECT_STREQ(ssl.Name(), "QuillSsl");
    EXPECT_EQ(&ssl.Cfg(), &cfg);
    EXPECT_NE(std::find(Debuggable::m_list.begin(), Debuggable::m_list.end(), &ssl), Debuggable::m_list.end());
    StderrCapture capture;
    EXPECT_TRUE(ssl.Init());
    EXPECT_EQ(LogLines(capture.Take()), kSslLines);
}

class SslInit : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string reason = NamespacesUnavailableReason(CLONE_NEWNS);
        if (!reason.empty()) GTEST_SKIP() << reason;
    }
};

// Sets up /etc/vantor.conf inside the namespace: "<missing>", "<read-only>"
// (a file made read-only by a bind mount) or the text to write.
std::string PrepareConf(const std::string& conf)
{
    if (conf == "<missing>") return unlink(kConf) == 0 || errno == ENOENT ? "" : "cannot remove ";
    if (!WriteFile(kConf, conf == "<read-only>" ? "Ssl.BaseDir = /etc/ssl\n" : conf)) return "cannot write ";
    if (conf == "<read-only>" && BindReadOnly(kConf) != 0) return "cannot bind ";
    return "";
}

TEST_F(SslInit, RunsOnTheFixedFileAndAlwaysExitsZero)
{
    const std::string ssl = kSslLines;
    struct Case {
        std::string conf;
        std::vector<std::string> args;
        std::string log;
    } cases[] = {
        {"<missing>", {}, "info No configuration file \"/etc/vantor.conf\", using defaults.\n" + ssl},
        {"<read-only>", {}, "info No configuration file \"/etc/vantor.conf\", using defaults.\n" + ssl},
        {"Ssl.BaseDir = /etc/ssl\n", {}, ssl},
        {"bad\nSsl.BaseDir = /etc/ssl\nworse\n", {},
         "info Ignoring /etc/vantor.conf:1.\ninfo Ignoring /etc/vantor.conf:3.\n" + ssl},
        {"Ssl.BaseDir = /etc/ssl\n", {"-altbase", "/a"}, ssl},
        {"Ssl.BaseDir = /etc/ssl\n", {"-altbase", "/a", "-altbase", "/b"}, ssl},
        {"Ssl.BaseDir = /etc/ssl\n", {"x", "-altbase"}, ssl},
    };
    for (const Case& c : cases) {
        std::string report = RunInMountNamespace([&] {
            std::vector<std::string> args{"sslinit"};
            args.insert(args.end(), c.args.begin(), c.args.end());
            std::string setup = PrepareConf(c.conf);
            RunResult r = RunVtest(args);
            return setup + std::to_string(r.status) + "|" + r.out + "|" + LogLines(r.err);
        });
        EXPECT_EQ(report, "0||" + c.log) << c.conf << " " << c.args.size();
    }
}

// "-altbase" changes only the process's configuration, so the scan is
// checked on a Config loaded from the fixed file.
TEST_F(SslInit, AltbaseScanLastOneWins)
{
    struct Case {
        std::vector<std::string> args;
        const char* baseDir;
    } cases[] = {
        {{}, "/etc/ssl"},
        {{"-altbase", "/a"}, "/a"},
        {{"-altbase", "/a", "-altbase", "/b"}, "/b"},
        {{"-altbase"}, "/etc/ssl"},
        {{"-altbase", "/a", "-altbase"}, "/a"},
        {{"-altbase", "-altbase"}, "-altbase"},
        {{"x", "-altbase", "/a", "y"}, "/a"},
        {{"-Altbase", "/a", "altbase", "/b"}, "/etc/ssl"},
    };
    for (const Case& c : cases) {
        std::string report = RunInMountNamespace([&] {
            std::string setup = PrepareConf("Ssl.BaseDir = /etc/ssl\n");
            Config cfg(kConf, nullptr, static_cast<const char* const*>(nullptr));
            std::vector<char*> argv;
            for (const std::string& a : c.args) argv.push_back(const_cast<char*>(a.c_str()));
            ssl_scan_args(cfg, static_cast<int>(argv.size()), argv.data());
            return setup + cfg.GetStr("Ssl.BaseDir", "<none>");
        });
        EXPECT_EQ(report, c.baseDir) << c.args.size();
    }
}

}  // namespace
