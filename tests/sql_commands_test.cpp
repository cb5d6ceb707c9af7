#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "process.h"
#include "sim_runner.h"
#include "sql_script.h"

namespace {

// Nothing that never answers may hang the tool: connecting and the greeting are bounded at 10 s, answers by
// --timeout; a timed-out connection goes, so its late answer never passes for the next statement's.
TEST(SqlCommandTimeouts, SilentServersEndTheStatementWithTheirReason)
{
    BlackHole hole;
    ScriptedServer silent(std::vector<Script>{Script{}});
    const Script lateAnswer = {Expect("SELECT 1;\r\n"), Wait(2200), Send(std::string("a\n1\n") + kAnswerEnd)};
    ScriptedServer late({FromChild(Prepared(lateAnswer)), FromChild(Prepared(Answer("SELECT 2 AS b;", "b\n2\n")))});
    char text[SockAddr::m_strLen];
    const std::string holeAt = hole.Addr().Str(text, true);
    const std::string step1 =
        "step 1 FAIL: SELECT HwID FROM Hardware LIMIT 3; -> no connection to the database server at ";
    const struct {
        std::vector<std::string> args;
        std::string input;
        int status;
        std::string rows, err;  // standard output after "Connecting ...", operator lines
    } cases[] = {
        {{"sql", "--server=" + holeAt, "SELECT 1;"}, "", 254, "",
         ExecFailed("cannot connect to " + holeAt + ": Connection timed out")},
        {{"sql", ServerOption(silent), "SELECT 1;"}, "", 254, "", ExecFailed("no greeting within 10 s")},
        {{"--server=" + holeAt}, "", 1, step1 + holeAt + "\n", "Self-test FAILED.\n"},
        {{"sql", ServerOption(late), "--timeout=2", "--stdin"}, "SELECT 1;\nSELECT 2 AS b;\n", 0,
         "Line #\t\"b\"\n1.\t\"2\"\t\n", "stdin:1 [no answer within 2 s] SELECT 1;\n"},
    };
    std::vector<std::future<RunResult>> runs;
    for (const auto& c : cases) runs.push_back(std::async(std::launch::async, RunVtest, c.args, c.input, 30000));
    for (size_t i = 0; i < runs.size(); i++) {
        RunResult r = runs[i].get();
        std::string at = cases[i].args[cases[i].args.size() > 1 ? 1 : 0].substr(9);
        EXPECT_EQ(r.status, cases[i].status) << at;
        EXPECT_EQ(r.out, "Connecting to " + at + "...\n" + cases[i].rows) << at;
        EXPECT_EQ(OperatorErrors(r.err), cases[i].err) << at;
    }
    // The late answer went to a closed connection; nothing else may differ.
    for (const std::string& failure : late.Failures()) EXPECT_EQ(failure.find("expected"), std::string::npos);
}

// State to standard error once per change (retries log their first failure only), changes to standard output;
// ENTER before the first connection ends it; a refused table ends it with one line and status 1.
TEST(MonitorCommand, PrintsChangesAndItsStateAndGivesUpOnARefusedTable)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    const std::string at = sim.Address(), server = "--server=" + at;
    const std::string start = "Connecting to " + at + "...\nPress ENTER to stop.\nWaiting for " + at + " ...\n";
    auto merged = [&](const char* table) {
        return InShell("exec \"$@\" 2>&1", TargetArgv(VTEST_BINARY, {"monitor", server, table}));
    };
    ChildProcess refused(merged("Nowhere"));
    EXPECT_EQ(refused.Wait(10000), 1);
    (void)refused.WaitForOutput("never printed", 500);  // the rest of the output
    EXPECT_EQ(OperatorErrors(refused.Output()), start + "Cannot monitor Nowhere: Error: no such table: Nowhere.\n");
    RunResult early = RunVtest({"monitor", "--server=127.0.0.1:1", "Events"}, "\n");
    EXPECT_EQ(early.status, 0);
    EXPECT_EQ(early.err, "Waiting for 127.0.0.1:1 ...\n");

    ChildProcess monitor(merged("Hardware"));
    const std::string subscribed = "Monitoring Hardware on " + at + ".\n";
    ASSERT_TRUE(monitor.WaitForOutput(subscribed, 10000)) << monitor.Output();
    RunVtest({"sql", server, "INSERT INTO Hardware (HwID, HwName, HwType) VALUES (99, 'm', 'central');"});
    ASSERT_TRUE(monitor.WaitForOutput("insert Hardware 99\n", 10000)) << monitor.Output();
    sim.Stop();
    const std::string lost = "Connection to " + at + " lost; retrying every second.\n";
    ASSERT_TRUE(monitor.WaitForOutput(lost, 10000));
    EXPECT_FALSE(monitor.WaitForOutput("never printed", 2500));  // two rounds of retries
    ASSERT_TRUE(monitor.Write("\n"));
    EXPECT_EQ(monitor.Wait(5000), 0);
    EXPECT_EQ(OperatorErrors(monitor.Output()), start + subscribed + "insert Hardware 99\n" + lost);
    EXPECT_EQ(CountOf(monitor.Output(), "Unable to connect"), 1u) << monitor.Output();
    EXPECT_EQ(CountOf(monitor.Output(), "<MonitorWrapper> Connect failed: connection refused by " + at + "."), 1u);
}

}  // namespace
