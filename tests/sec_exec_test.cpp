#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "process.h"

namespace {

const std::string kUsage =
    std::string("Usage: ") + VTEST_BINARY + " sec-exec [--keep-env=<name>]... <command> [<argument>]...\n";
const std::string kNoPath = " (no PATH search: give the full path).\n";

// Words are joined, then split again like the daemon's command lines; each
// stream, standard input too, carries far more than a pipe holds.
TEST(SecExec, StatusesWordsStreamsEnvironmentAndUsage)
{
    std::string lines;
    for (int i = 0; i < 30000; i++) lines += std::to_string(i) + "\n";
    const std::string script = "'i=0; while [ $i -lt 30000 ]; do echo $i; echo $i >&2; i=$((i+1)); done'";
    setenv("TZ", "Europe/Oslo", 1);
    setenv("VTEST_KEEP", "kept value", 1);
    setenv("VTEST_DROP", "dropped", 1);
    // A kept name holds its first place; PATH, when kept, its safe one.
    const std::string keptEnv =
        "IFS= \t\n\nPATH=" + std::string(getenv("PATH")) + "\nTZ=Europe/Oslo\nVTEST_KEEP=kept value\n";
    const struct { std::vector<std::string> words; int status; std::string out, err, input = ""; } rows[] = {
        {{"/bin/sh", "-c", "'exit 1'"}, 1, "", ""},
        {{"/nonexistent"}, 127, "", "sec-exec: cannot execute /nonexistent: No such file or directory" + kNoPath},
        {{"/etc"}, 127, "", "sec-exec: cannot execute /etc: Is a directory" + kNoPath},
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
        const std::string label = row.words.empty() ? "" : row.words.front() + " " + row.words.back().substr(0, 40);
        EXPECT_EQ(std::tie(r.timedOut, r.status, r.out, r.err), std::make_tuple(false, row.status, row.out, row.err))
            << label;
    }
    for (const char* name : {"TZ", "VTEST_KEEP", "VTEST_DROP"}) unsetenv(name);
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
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "Uid:\t65534\t65534\t65534\t65534\nGid:\t65534\t65534\t65534\t65534\n");
    EXPECT_EQ(system(("rm -rf " + dir).c_str()), 0);
}

}  // namespace
