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

TEST(ControllerConfParse, LinesGiveThesePairs)
{
    const std::string x194(194, 'x');
    struct Case {
        std::string text;
        Pairs pairs;
    } cases[] = {
        {"key = value\n", {{"key", "value"}}},
        {"key=value\n", {{"key=value", "value"}}},
        {"key\t= value\n", {{"key\t= value", "value"}}},
        {"key\t = value\n", {{"key\t", "value"}}},
        {"a  =   v\n", {{"a", "v"}}},
        {" = v\n", {{" = v", "v"}}},
        {"=v\n", {{"=v", "v"}}},
        {"   = v\n", {}},
        {"#a = b\n", {}},
        {"no separator\n", {}},
        {"k = \tv \r\n", {{"k", "\tv \r"}}},
        {"k = v = w", {{"k", "v = w"}}},
        {"k = \n", {{"k", ""}}},
        {"k = 1\nk = 2\n", {{"k", "2"}}},
        {" # = x\n", {{" #", "x"}}},
        {"k = " + x194 + "rest = 1\n", {{"k", x194}, {"rest", "1"}}},
        {"", {}},
    };
    std::string path = MakeTempDir() + "/quill.conf";
    for (const Case& c : cases) {
        ASSERT_TRUE(WriteFile(path, c.text));
        Pairs read{{"stale", "x"}};
        EXPECT_TRUE(controller_conf_read_file(path.c_str(), read)) << c.text;
        EXPECT_EQ(Describe(read), Describe(c.pairs)) << c.text;
    }
    (void)remove(path.c_str());
    (void)rmdir(path.substr(0, path.rfind('/')).c_str());
}

// What a write and a read of the fixed file did, as one line each.
std::string WriteAndReport(const Pairs& pairs)
{
    StderrCapture capture;
    bool written = ControllerConfWrite(pairs);
    std::string log = LogLines(capture.Take());
    Pairs read{{"untouched", "1"}};
    bool readOk = ControllerConfRead(read);
    return std::string(written ? "written " : "failed ") + log + "file: " + ReadFile(quillConfigFile) +
           "|old: " + ReadFile(std::string(quillConfigFile) + ".old") + "|read " + (readOk ? "ok " : "failed ") +
           Describe(read);
}

class ControllerConfFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string reason = NamespacesUnavailableReason(CLONE_NEWNS);
        if (!reason.empty()) GTEST_SKIP() << reason;
    }
};

TEST_F(ControllerConfFile, WriteWithoutCurrentFileLeavesNoBackup)
{
    EXPECT_EQ(RunInMountNamespace([] { return WriteAndReport({{"b", "2"}, {"a", "one word"}}); }),
              "written info Updated /var/local/quill.conf.\n"
              "file: a = one word\nb = 2\n|old: <missing>|read ok [a]=[one word] [b]=[2] ");
}

TEST_F(ControllerConfFile, WriteKeepsThePreviousFileAsBackup)
{
    EXPECT_EQ(RunInMountNamespace([] {
                  (void)WriteFile("/var/local/quill.conf.old", "stale\n");
                  (void)WriteFile("/var/local/quill.conf", "x=1\n");
                  return WriteAndReport({});
              }),
              "written info Updated /var/local/quill.conf.\nfile: |old: x=1\n|read ok ");
}

TEST_F(ControllerConfFile, WriteThatCannotCreateTheFileFails)
{
    EXPECT_EQ(RunInMountNamespace([] {
                  (void)WriteFile("/var/local/quill.conf", "k = v\n");
                  int rv = BindReadOnly("/var/local");
                  return std::to_string(rv) + " " + WriteAndReport({{"a", "1"}});
              }),
              "0 failed warn Failed to update /var/local/quill.conf.\n"
              "file: k = v\n|old: <missing>|read ok [k]=[v] ");
}

TEST_F(ControllerConfFile, WriteThatRunsOutOfSpaceFailsAfterTheBackup)
{
    EXPECT_EQ(RunInMountNamespace([] {
                  int rv = mount("tmpfs", "/var/local", "tmpfs", 0, "size=4k");
                  (void)WriteFile("/var/local/quill.conf", "k = v\n");
                  return std::to_string(rv) + " " + WriteAndReport({{"big", std::string(10000, 'b')}});
              }),
              "0 failed warn Failed to update /var/local/quill.conf.\n"
              "file: |old: k = v\n|read ok ");
}

TEST_F(ControllerConfFile, ReadOfMissingFileFailsAndClearsTheMap)
{
    EXPECT_EQ(RunInMountNamespace([] {
                  Pairs read{{"untouched", "1"}};
                  StderrCapture capture;
                  bool ok = ControllerConfRead(read);
                  return std::string(ok ? "ok " : "failed ") + Describe(read) + "|" + capture.Take();
              }),
              "failed |");
}

}  // namespace
