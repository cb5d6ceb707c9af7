#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "process.h"

namespace {

const char kSafeEnv[] = "IFS= \t\n\nPATH=/usr/bin:/bin:/usr/sbin:/sbin\n";

std::string Usage() { return std::string("Usage: ") + VTEST_BINARY + " sec-exec [--keep-env=<name>]... <command> [<argument>]...\n"; }

// Runs `vtest sec-exec <words...>` and checks status and both outputs.
void ExpectRun(const std::vector<std::string>& words, int status, const std::string& out, const std::string& err,
               const std::string& input = "")
{
    std::vector<std::string> args{"sec-exec"};
    args.insert(args.end(), words.begin(), words.end());
    RunResult r = RunVtest(args, input);
    std::string label = words.empty() ? "(none)" : words[0];
    EXPECT_FALSE(r.timedOut) << label;
    EXPECT_EQ(r.status, status) << label;
    EXPECT_EQ(r.out, out) << label;
    EXPECT_EQ(r.err, err) << label;
}

TEST(SecExec, ExitStatuses)
{
    ExpectRun({"/bin/true"}, 0, "", "");
    ExpectRun({"/bin/sh", "-c", "'exit 1'"}, 1, "", "");
    ExpectRun({"/bin/false"}, 1, "", "");
    ExpectRun({"/nonexistent"}, 127, "",
              "sec-exec: cannot execute /nonexistent: No such file or directory (no PATH search: give the full path).\n");
    ExpectRun({"/bin/sh", "-c", "'kill -TERM $$'"}, 143, "", "sec-exec: /bin/sh killed by signal 15 (Terminated).\n");
    ExpectRun({"/etc"}, 127, "",
              "sec-exec: cannot execute /etc: Is a directory (no PATH search: give the full path).\n");
}

TEST(SecExec, WordsAreJoinedThenSplitLikeTheDaemon)
{
    ExpectRun({"/bin/echo", "'a  b'", "c\"d e\""}, 0, "a  b c d e\n", "");
    ExpectRun({"/bin/echo a 'b c'"}, 0, "a b c\n", "");
    ExpectRun({"/bin/pwd"}, 0, "/tmp\n", "");
}

TEST(SecExec, UsageErrors)
{
    ExpectRun({}, 255, "", Usage());
    ExpectRun({"--keep-env=TZ"}, 255, "", Usage());
    ExpectRun({"  "}, 255, "", Usage());
    ExpectRun({"--keep-env=", "/bin/true"}, 255, "", "sec-exec: unknown option '--keep-env='.\n" + Usage());
    ExpectRun({"--bogus", "/bin/true"}, 255, "", "sec-exec: unknown option '--bogus'.\n" + Usage());
    ExpectRun({"--", "/bin/true"}, 0, "", "");
}

TEST(SecExec, EnvironmentIsTheSafeSetPlusKeptNames)
{
    setenv("TZ", "Europe/Oslo", 1);
    setenv("VTEST_KEEP", "kept value", 1);
    setenv("VTEST_DROP", "dropped", 1);
    ExpectRun({"--keep-env=VTEST_KEEP", "--keep-env=VTEST_UNSET", "/usr/bin/env"}, 0,
              std::string(kSafeEnv) + "TZ=Europe/Oslo\nVTEST_KEEP=kept value\n", "");
    unsetenv("TZ");
    ExpectRun({"/usr/bin/env"}, 0, kSafeEnv, "");
    unsetenv("VTEST_KEEP");
    unsetenv("VTEST_DROP");
}

TEST(SecExec, LargeOutputOnBothStreamsPassesThrough)
{
    // Each stream gets far more than a pipe holds, interleaved.
    std::string script = "i=0; while [ $i -lt 30000 ]; do echo out$i; echo err$i >&2; i=$((i+1)); done";
    std::string out, err;
    for (int i = 0; i < 30000; i++) {
        out += "out" + std::to_string(i) + "\n";
        err += "err" + std::to_string(i) + "\n";
    }
    ExpectRun({"/bin/sh", "-c", "'" + script + "'"}, 0, out, err);
}

TEST(SecExec, StandardInputPassesThrough)
{
    std::string input;
    for (int i = 0; i < 20000; i++) input += "line " + std::to_string(i) + "\n";
    ExpectRun({"/bin/cat"}, 0, input, "", input);
    // A child that never reads its input still ends normally.
    ExpectRun({"/bin/echo", "done"}, 0, "done\n", "", input);
}

TEST(SecExec, InstalledSetIdGivesUpItsIdsForGood)
{
    if (geteuid() != 0) GTEST_SKIP() << "needs root to install a set-user-id copy and run it as nobody";
    SKIP_IF_EMULATED(EmulationGap::SetIdPrograms);
    std::string dir = MakeTempDir(), copy = dir + "/vtest";
    std::string install = "cp " VTEST_BINARY " " + copy + " && chown 1:1 " + copy + " && chmod 6755 " + copy +
                          " && chmod 755 " + dir;
    ASSERT_EQ(system(install.c_str()), 0);
    RunResult r = RunProgram({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", copy,
                              "sec-exec", "/bin/grep", "^[UG]id:", "/proc/self/status"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Uid:\t65534\t65534\t65534\t65534\nGid:\t65534\t65534\t65534\t65534\n");
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

}  // namespace
