#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include "ControllerConf.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

using Pairs = std::map<std::string, std::string>;

// The key ends at the blanks before the first "=" only when that "=" is not
// among the first two characters; old files rely on each of these rows.
TEST(ControllerConfParse, LinesGiveThesePairs)
{
    const std::string x194(194, 'x');
    const std::pair<std::string, Pairs> cases[] = {
        {"a  =   v\n", {{"a", "v"}}}, {"key=value\n", {{"key=value", "value"}}},
        {"key\t = value\n", {{"key\t", "value"}}}, {" = v\n", {{" = v", "v"}}}, {"   = v\n", {}}, {"#a = b\n", {}},
        {" # = x\n", {{" #", "x"}}}, {"no separator\n", {}}, {"k = \tv \r\n", {{"k", "\tv \r"}}},
        {"k = v = w", {{"k", "v = w"}}}, {"k = \n", {{"k", ""}}}, {"k = 1\nk = 2\n", {{"k", "2"}}},
        {"k = " + x194 + "rest = 1\n", {{"k", x194}, {"rest", "1"}}},  // a long line reads in two parts
    };
    std::string dir = MakeTempDir(), path = dir + "/quill.conf";
    for (const auto& [text, pairs] : cases) {
        ASSERT_TRUE(WriteFile(path, text));
        Pairs read{{"stale", "x"}};
        EXPECT_TRUE(controller_conf_read_file(path.c_str(), read)) << text;
        EXPECT_EQ(read, pairs) << text;
    }
    RunProgram({"/bin/rm", "-rf", dir});
}

// On the fixed file in a private mount namespace: a setup (0 when it worked),
// a write of `pairs` and a read back, with every log line, as one report.
TEST(ControllerConfFile, WriteKeepsABackupAndReportsFailures)
{
    std::string reason = NamespacesUnavailableReason(CLONE_NEWNS);
    if (!reason.empty()) GTEST_SKIP() << reason;
    const std::string conf = quillConfigFile, old = conf + ".old";
    const std::string updated = " written info Updated /var/local/quill.conf.\n";
    const std::string failed = " failed warn Failed to update /var/local/quill.conf.\n";
    struct Case { const char* label; std::function<int()> setup; Pairs pairs; std::string report; } cases[] = {
        {"no file yet: nothing to read, no backup",
         [] {
             Pairs read{{"untouched", "1"}};
             return ControllerConfRead(read) || !read.empty();
         },
         {{"b", "2"}, {"a", "one word"}}, updated + "a = one word\nb = 2\n|<missing>|ok a=one word;b=2;"},
        {"previous file becomes the backup", [&] { return !WriteFile(old, "stale\n") || !WriteFile(conf, "x=1\n"); },
         {}, updated + "|x=1\n|ok "},
        {"directory read-only: cannot create",
         [&] { return WriteFile(conf, "k = v\n") ? BindReadOnly("/var/local") : 1; },
         {{"a", "1"}}, failed + "k = v\n|<missing>|ok k=v;"},
        {"out of space after the backup",
         [&] { return mount("tmpfs", "/var/local", "tmpfs", 0, "size=4k") || !WriteFile(conf, "k = v\n"); },
         {{"big", std::string(10000, 'b')}}, failed + "|k = v\n|ok "},
    };
    for (const Case& c : cases) {
        std::string report = RunInMountNamespace([&] {
            StderrCapture capture;
            std::string text = std::to_string(c.setup());
            text += ControllerConfWrite(c.pairs) ? " written " : " failed ";
            text += LogLines(capture.Take());
            Pairs read{{"untouched", "1"}};
            text += ReadFile(conf) + "|" + ReadFile(old) + (ControllerConfRead(read) ? "|ok " : "|failed ");
            for (const auto& [key, value] : read) text += key + "=" + value + ";";
            return text;
        });
        EXPECT_EQ(report, "0" + c.report) << c.label;
    }
}

}  // namespace
