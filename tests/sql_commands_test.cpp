#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "process.h"
#include "sim_runner.h"
#include "sql_script.h"

namespace {

TEST(SqlCommandErrors, ArgumentErrorsGiveTheirMessageAndStatus)
{
    const struct {
        std::vector<std::string> args;
        int status;
        std::string err;
    } cases[] = {
        {{"sql"}, 255, "Missing parameter: SQL statement.\n"},
        {{"sql_file", "--pairs"}, 255, "Missing parameter: SQL statement file.\n"},
        {{"sql", "--server=bad address", "SELECT 1;"}, 255, "Invalid IPv4 address: \"bad address\".\n"},
        {{"monitor", "--server=127.0.0.1:1"}, 255, "Missing parameter: table.\n"},
        {{"monitor", "--server=bad address", "Events"}, 255, "Invalid IPv4 address: \"bad address\".\n"},
        {{"monitor", "Hardware", "insert", "truncate"}, 255, "Invalid operation: truncate.\n"},
        {{"sql_file", "--timeout=x", "f.sql"}, 255, "Invalid timeout: x.\n"},
        // A table name goes into the one-line request as it is.
        {{"monitor", ""}, 255, "Invalid table: .\n"},
        {{"monitor", "a b\t\x7f", "insert"}, 255, "Invalid table: a b\\x09\\x7f.\n"},
        // The file name swapped for the other source in the message.
        {{"sql_file", "/nonexistent/x.sql"}, 254, "Unable to open file: stdin\n"},
    };
    for (const auto& c : cases) {
        RunResult r = RunVtest(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.back();
        EXPECT_EQ(r.err, c.err) << c.args.back();
    }
    // The server option alone still announces where it would connect.
    RunResult r = RunVtest({"sql", "--server=127.0.0.1"});
    EXPECT_EQ(r.out, "Connecting to 127.0.0.1:3543...\n");
    EXPECT_EQ(r.status, 255);
}

class SqlCommands : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_sim.Running()) << m_sim.Log(); }
    void TearDown() override { RunProgram({"/bin/rm", "-rf", m_dir}); }
    std::string Server() const { return "--server=" + m_sim.Address(); }
    std::string Connecting() const { return "Connecting to " + m_sim.Address() + "...\n"; }

    SimRunner m_sim;
    std::string m_dir = MakeTempDir();
};

// Rows to a pipe are fully buffered; the tool's own messages still follow the rows printed before them.
TEST_F(SqlCommands, MessagesKeepTheirPlaceAmongBufferedRows)
{
    std::string path = m_dir + "/statements.sql";
    std::ofstream(path) << "SELECT 1 AS a;\nSELEC 2;\nSELECT 3 AS c;\n";
    const std::string rowsA = "Line #\t\"a\"\n1.\t\"1\"\t\n", syntax = "Error: near \"SELEC\": syntax error";
    const struct {
        std::vector<std::string> args;
        std::string output;
    } cases[] = {
        {{"sql_file", Server(), path}, rowsA + path + ":2 [" + syntax + "] SELEC 2;\nLine #\t\"c\"\n1.\t\"3\"\t\n"},
        {{"sql", Server(), "SELECT 1 AS a;", "SELEC 2;"},
         rowsA + "--------------- N e x t   q u e r y --------------\n" + ExecFailed(syntax)},
        {{"sql", Server(), "--server=bad"}, "Invalid IPv4 address: \"bad\".\n"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(OperatorErrors(RunProgram(InShell("exec \"$@\" 2>&1", TargetArgv(VTEST_BINARY, c.args))).out),
                  Connecting() + c.output) << c.args.back();
}

// Nothing that never answers may hang the tool: connecting and the greeting are bounded at 10 s, answers by
// --timeout; a timed-out connection goes, so its late answer never passes for the next statement's.
TEST(SqlCommandTimeouts, SilentServersEndTheStatementWithTheirReason)
{
    BlackHole hole;
    ScriptedServer silent(std::vector<Script>{Script{}});
    ScriptedServer mute({FromChild(Prepared({Expect("SELECT 1;\r\n")}))});
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
        {{"sql", ServerOption(mute), "--timeout=1", "SELECT 1;"}, "", 254, "", ExecFailed("no answer within 1 s")},
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
    for (const ScriptedServer* server : {&mute, &late})
        for (const std::string& failure : server->Failures()) EXPECT_EQ(failure.find("expected"), std::string::npos);
}

// State to standard error once per change (retries log their first failure only), changes to standard output;
// ENTER before the first connection ends it; a refused table ends it with one line and status 1.
TEST_F(SqlCommands, MonitorPrintsChangesAndItsStateAndGivesUpOnARefusedTable)
{
    const std::string at = m_sim.Address(), start = Connecting() + "Press ENTER to stop.\nWaiting for " + at + " ...\n";
    auto merged = [&](const char* table) {
        return InShell("exec \"$@\" 2>&1", TargetArgv(VTEST_BINARY, {"monitor", Server(), table}));
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
    RunVtest({"sql", Server(), "INSERT INTO Hardware (HwID, HwName, HwType) VALUES (99, 'm', 'central');"});
    ASSERT_TRUE(monitor.WaitForOutput("insert Hardware 99\n", 10000)) << monitor.Output();
    m_sim.Stop();
    const std::string lost = "Connection to " + at + " lost; retrying every second.\n";
    ASSERT_TRUE(monitor.WaitForOutput(lost, 10000));
    EXPECT_FALSE(monitor.WaitForOutput("never printed", 2500));  // two rounds of retries
    ASSERT_TRUE(monitor.Write("\n"));
    EXPECT_EQ(monitor.Wait(5000), 0);
    EXPECT_EQ(OperatorErrors(monitor.Output()), start + subscribed + "insert Hardware 99\n" + lost);
    EXPECT_EQ(CountOf(monitor.Output(), "Unable to connect"), 1u) << monitor.Output();
    EXPECT_EQ(CountOf(monitor.Output(), "<MonitorWrapper> Connect failed: connection refused by " + at + "."), 1u);
}

TEST_F(SqlCommands, SelfTestPassesAndReportsAMissingEventsTable)
{
    RunResult r = RunVtest({Server()});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    for (const char* line : {"step 1 PASS: SELECT HwID FROM Hardware LIMIT 3; -> 3 row(s): HwID 1 2 3\n",
                             "step 2 PASS: INSERT INTO Events -> INSERT INTO Events ",
                             "step 3 PASS: read back -> EvntID ",
                             "Self-test passed.\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
    std::string db = m_dir + "/no-events.db";
    RunResult made = RunProgram({"/usr/bin/sqlite3", db,
                                 "CREATE TABLE Hardware (HwID INTEGER PRIMARY KEY); INSERT INTO Hardware VALUES (4);"});
    ASSERT_EQ(made.status, 0) << made.err;
    SimRunner sim({false, 0, 0, {"--db=" + db}});
    ASSERT_TRUE(sim.Running()) << sim.Log();
    r = RunVtest({"--server=" + sim.Address()});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("step 1 PASS"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("step 2 FAIL: INSERT INTO Events -> Error: no such table: Events\n"), std::string::npos)
        << r.out;
}

}  // namespace
