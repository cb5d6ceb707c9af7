#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>

#include "ControllerConf.h"
#include "fixed_paths.h"
#include "process.h"

namespace {

using Pairs = std::map<std::string, std::string>;

std::string Describe(const Pairs& pairs)
{
    std::string text;
    for (const auto& p : pairs) text += "[" + p.first + "]=[" + p.second + "] ";
    return text;
}

// The key ends at the blanks before the first "=" only when that "=" is not
// among the first two characters; old files rely on each of these rows.
TEST(ControllerConfParse, LinesGiveThesePairs)
{
    const std::string x194(194, 'x');
    const std::pair<std::string, Pairs> cases[] = {
        {"a  =   v\n", {{"a", "v"}}}, {"key=value\n", {{"key=value", "value"}}},
        {"key\t = value\n", {{"key\t", "value"}}}, {" = v\n", {{" = v", "v"}}}, {"   = v\n", {}}, {"#a = b\n", {}},
        {" # = x\n", {{" #", "x"}}}, {"no separator\n", {}},
        {"k = \tv \r\n", {{"k", "\tv \r"}}}, {"k = v = w", {{"k", "v = w"}}}, {"k = \n", {{"k", ""}}},
        {"k = 1\nk = 2\n", {{"k", "2"}}},
        {"k = " + x194 + "rest = 1\n", {{"k", x194}, {"rest", "1"}}},  // a long line reads in two parts
    };
    std::string path = MakeTempDir() + "/quill.conf";
    for (const auto& [text, pairs] : cases) {
        ASSERT_TRUE(WriteFile(path, text));
        Pairs read{{"stale", "x"}};
        EXPECT_TRUE(controller_conf_read_file(path.c_str(), read)) << text;
        EXPECT_EQ(Describe(read), Describe(pairs)) << text;
    }
    (void)remove(path.c_str());
    (void)rmdir(path.substr(0, path.rfind('/')).c_str());
}

// On the fixed file in a private mount namespace: a setup (0 when it
// worked), a write of `pairs` and a read back, with every log line, as one
// report.
TEST(ControllerConfFile, WriteKeepsABackupAndReportsFailures)
{
    std::string reason = NamespacesUnavailableReason(CLONE_NEWNS);
    if (!reason.empty()) GTEST_SKIP() << reason;
    const char* const conf = quillConfigFile;
    struct Case { const char* label; std::function<int()> setup; Pairs pairs; std::string report; } cases[] = {
        {"no file yet: nothing to read, no backup",
         [] {
             Pairs read{{"untouched", "1"}};
             return ControllerConfRead(read) || !read.empty();
         },
         {{"b", "2"}, {"a", "one word"}},
         "written info Updated /var/local/quill.conf.\n"
         "file: a = one word\nb = 2\n|old: <missing>|read ok [a]=[one word] [b]=[2] "},
        {"previous file becomes the backup",
         [&] { return WriteFile(std::string(conf) + ".old", "stale\n") && WriteFile(conf, "x=1\n") ? 0 : 1; },
         {},
         "written info Updated /var/local/quill.conf.\nfile: |old: x=1\n|read ok "},
        {"directory read-only: cannot create",
         [&] { return WriteFile(conf, "k = v\n") ? BindReadOnly("/var/local") : 1; },
         {{"a", "1"}},
         "failed warn Failed to update /var/local/quill.conf.\nfile: k = v\n|old: <missing>|read ok [k]=[v] "},
        {"out of space after the backup",
         [&] { return mount("tmpfs", "/var/local", "tmpfs", 0, "size=4k") || !WriteFile(conf, "k = v\n"); },
         {{"big", std::string(10000, 'b')}},
         "failed warn Failed to update /var/local/quill.conf.\nfile: |old: k = v\n|read ok "},
    };
    for (const Case& c : cases) {
        std::string report = RunInMountNamespace([&] {
            StderrCapture capture;
            int setup = c.setup();
            bool written = ControllerConfWrite(c.pairs);
            std::string log = LogLines(capture.Take());
            Pairs read{{"untouched", "1"}};
            bool readOk = ControllerConfRead(read);
            return std::to_string(setup) + (written ? " written " : " failed ") + log + "file: " + ReadFile(conf) +
                   "|old: " + ReadFile(std::string(conf) + ".old") + "|read " + (readOk ? "ok " : "failed ") +
                   Describe(read);
        });
        EXPECT_EQ(report, "0 " + c.report) << c.label;
    }
}

}  // namespace
