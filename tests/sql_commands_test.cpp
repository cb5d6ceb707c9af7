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

class SqlCommands : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_sim.Running()) << m_sim.Log(); }

    std::string Server() const { return "--server=" + m_sim.Address(); }
    std::string Connecting() const { return "Connecting to " + m_sim.Address() + "...\n"; }
    RunResult Sql(std::vector<std::string> args, const std::string& input = "")
    {
        args.insert(args.begin(), {"sql", Server()});
        return RunVtest(args, input);
    }
    std::string WriteFile(const std::string& text)
    {
        std::string path = m_dir + "/statements.sql";
        std::ofstream(path) << text;
        return path;
    }
    void TearDown() override { RunProgram({"/bin/rm", "-rf", m_dir}); }

    SimRunner m_sim;
    std::string m_dir = MakeTempDir();
};

TEST(SqlCommandErrors, ArgumentErrorsGiveTheirMessageAndStatus)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string err;
    } cases[] = {
        {{"sql"}, 255, "Missing parameter: SQL statement.\n"},
        {{"sql_file"}, 255, "Missing parameter: SQL statement file.\n"},
        {{"sql", "--pairs"}, 255, "Missing parameter: SQL statement.\n"},
        {{"sql_file", "--pairs", "--pairs"}, 255, "Missing parameter: SQL statement file.\n"},
        {{"sql", "--server=bad address", "SELECT 1;"}, 255, "Invalid IPv4 address: \"bad address\".\n"},
        {{"monitor"}, 255, "Missing parameter: table.\n"},
        {{"monitor", "--server=127.0.0.1:1"}, 255, "Missing parameter: table.\n"},
        {{"monitor", "--server=bad address", "Events"}, 255, "Invalid IPv4 address: \"bad address\".\n"},
        {{"monitor", "Hardware", "insert", "truncate"}, 255, "Invalid operation: truncate.\n"},
        {{"sql", "--timeout=0", "SELECT 1;"}, 255, "Invalid timeout: 0.\n"},
        {{"sql", "--timeout=3601", "SELECT 1;"}, 255, "Invalid timeout: 3601.\n"},
        {{"sql_file", "--timeout=x", "f.sql"}, 255, "Invalid timeout: x.\n"},
        {{"sql", "--pairs", "--timeout=", "SELECT 1;"}, 255, "Invalid timeout: .\n"},
        // A table name goes into the one-line request as it is.
        {{"monitor", ""}, 255, "Invalid table: .\n"},
        {{"monitor", "Events x"}, 255, "Invalid table: Events x.\n"},
        {{"monitor", "a\tb\x7f", "insert"}, 255, "Invalid table: a\\x09b\\x7f.\n"},
    };
    for (const Case& c : cases) {
        RunResult r = RunVtest(c.args);
        EXPECT_EQ(r.status, c.status) << c.args.back();
        EXPECT_EQ(r.err, c.err) << c.args.back();
    }
    // The server option alone still announces where it would connect.
    RunResult r = RunVtest({"sql", "--server=127.0.0.1"});
    EXPECT_EQ(r.out, "Connecting to 127.0.0.1:3543...\n");
    EXPECT_EQ(r.status, 255);
}

TEST_F(SqlCommands, PlainAndPairsFormats)
{
    RunResult plain = Sql({"SELECT HwName, HwID FROM Hardware WHERE HwID <= 2 ORDER BY HwID;"});
    EXPECT_EQ(plain.status, 0) << plain.err;
    EXPECT_EQ(plain.out, Connecting() +
                             "Line #\t\"HwName\"\t\"HwID\"\n"
                             "1.\t\"vantor-01\"\t\"1\"\t\n"
                             "2.\t\"vantor-02\"\t\"2\"\t\n");
    RunResult pairs = Sql({"--pairs", "SELECT HwName, HwID FROM Hardware WHERE HwID <= 2 ORDER BY HwID;"});
    EXPECT_EQ(pairs.out, Connecting() +
                             "Line #\t\"HwID\"\t\"HwName\"\n"
                             "1.\t1\tvantor-01\t\n"
                             "2.\t2\tvantor-02\t\n");
}

TEST_F(SqlCommands, EmptyResultsAndStatementsWithoutRows)
{
    const char* none = "SELECT HwID, HwName FROM Hardware WHERE HwID < 0;";
    EXPECT_EQ(Sql({none}).out, Connecting() + "Line #\t\"HwID\"\t\"HwName\"\n");
    EXPECT_EQ(Sql({"--pairs", none}).out, Connecting());
    RunResult insert = Sql({"INSERT INTO Events (EvntDscID, UsrID, HwID) VALUES (1, 0, 1);"});
    EXPECT_EQ(insert.status, 0);
    EXPECT_EQ(insert.out, Connecting());
}

TEST_F(SqlCommands, StatementsRunInTurnAndStopAtTheFirstFailure)
{
    RunResult two = Sql({"SELECT 1 AS a;", "SELECT 2 AS b;"});
    EXPECT_EQ(two.out, Connecting() + "Line #\t\"a\"\n1.\t\"1\"\t\n" +
                           "--------------- N e x t   q u e r y --------------\n" +
                           "Line #\t\"b\"\n1.\t\"2\"\t\n");
    RunResult failed = Sql({"SELEC 1;", "INSERT INTO Events (EvntData) VALUES ('must not run');"});
    EXPECT_EQ(failed.status, 254);
    EXPECT_EQ(OperatorErrors(failed.err),
              "SqlWrapper:Exec() - failed (Error: near \"SELEC\": syntax error): Error: near \"SELEC\": syntax error.\n");
    EXPECT_EQ(Sql({"SELECT COUNT(*) AS n FROM Events WHERE EvntData = 'must not run';"}).out,
              Connecting() + "Line #\t\"n\"\n1.\t\"0\"\t\n");
}

TEST_F(SqlCommands, TrailingBlanksAreCutBeforeTheSemicolonRule)
{
    RunResult r = Sql({"SELECT 7 AS n; \t \t"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, Connecting() + "Line #\t\"n\"\n1.\t\"7\"\t\n");
}

TEST_F(SqlCommands, FileLinesKeepTheirNumbersAndFailuresDoNotStopTheRun)
{
    std::string path = WriteFile(
        "# a comment; SELECT 0;\n"
        "\n"
        "SELECT 1 AS a;\r\n"
        "SELEC 2;\n"
        "SELECT 3 AS c;  \n");
    RunResult r = RunVtest({"sql_file", Server(), path, "ignored.sql"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, Connecting() + "Line #\t\"a\"\n1.\t\"1\"\t\nLine #\t\"c\"\n1.\t\"3\"\t\n");
    EXPECT_EQ(OperatorErrors(r.err), path + ":4 [Error: near \"SELEC\": syntax error] SELEC 2;\n");

    // The last statement's result is the status.
    RunResult last = RunVtest({"sql_file", Server(), WriteFile("SELECT 1 AS a;\nSELEC 2;\n")});
    EXPECT_EQ(last.status, 254);
}

// Rows to a pipe are fully buffered; the tool's own messages still follow
// the rows printed before them when both streams share one pipe.
TEST_F(SqlCommands, MessagesKeepTheirPlaceAmongBufferedRows)
{
    std::string path = WriteFile("SELECT 1 AS a;\nSELEC 2;\nSELECT 3 AS c;\n");
    const char* rowsA = "Line #\t\"a\"\n1.\t\"1\"\t\n";
    std::string syntax = "Error: near \"SELEC\": syntax error";
    struct Case {
        std::vector<std::string> args;
        std::string output;
    } cases[] = {
        {{"sql_file", Server(), path},
         Connecting() + rowsA + path + ":2 [" + syntax + "] SELEC 2;\nLine #\t\"c\"\n1.\t\"3\"\t\n"},
        {{"sql", Server(), "SELECT 1 AS a;", "SELEC 2;"},
         Connecting() + rowsA + "--------------- N e x t   q u e r y --------------\n" +
             "SqlWrapper:Exec() - failed (" + syntax + "): " + syntax + ".\n"},
        {{"sql", Server(), "--server=bad"}, Connecting() + "Invalid IPv4 address: \"bad\".\n"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv = TargetArgv(VTEST_BINARY, c.args);
        argv.insert(argv.begin(), {"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>&1"});
        EXPECT_EQ(OperatorErrors(RunProgram(argv).out), c.output) << c.args.back();
    }
}

TEST_F(SqlCommands, StandardInputAndRepeatedOptions)
{
    RunResult r = RunVtest({"sql", "--pairs", Server(), "--stdin", Server(), "--pairs"},
                           "SELECT 5 AS e;\n# skipped\nnot sql;\n");
    EXPECT_EQ(r.status, 254);
    EXPECT_EQ(r.out, Connecting() + Connecting() + "Line #\t\"e\"\n1.\t5\t\n");
    // Nothing stands at the file-name position: standard input is "stdin".
    EXPECT_EQ(OperatorErrors(r.err), "stdin:3 [Error: near \"not\": syntax error] not sql;\n");
    EXPECT_EQ(RunVtest({"sql_file", "--stdin", Server(), "x.sql"}, "SELECT 1 AS a;\n").out,
              Connecting() + "Line #\t\"a\"\n1.\t\"1\"\t\n");
}

TEST(SqlCommandErrors, UnopenableInputNamesTheOtherSource)
{
    RunResult r = RunVtest({"sql_file", "/nonexistent/x.sql"});
    EXPECT_EQ(r.status, 254);
    EXPECT_EQ(r.err, "Unable to open file: stdin\n");
}

// Nothing that never answers may hang the tool: connecting and the greeting
// are bounded at 10 s, answers by --timeout; a timed-out connection goes, so
// its late answer never passes for the next statement's.
TEST(SqlCommandTimeouts, SilentServersEndTheStatementWithTheirReason)
{
    BlackHole hole;
    ScriptedServer silent(std::vector<Script>{Script{}}), silentToo(std::vector<Script>{Script{}});
    ScriptedServer mute({FromChild(Prepared({Expect("SELECT 1;\r\n")}))});
    const Script lateAnswer = {Expect("SELECT 1;\r\n"), Wait(2200), Send(std::string("a\n1\n") + kAnswerEnd)};
    ScriptedServer late({FromChild(Prepared(lateAnswer)), FromChild(Prepared(Answer("SELECT 2 AS b;", "b\n2\n")))});
    char text[SockAddr::m_strLen];
    const std::string holeAt = hole.Addr().Str(text, true), silentAt = ServerOption(silentToo).substr(9);
    struct Case {
        std::vector<std::string> args;
        std::string input;
        int status;
        std::string rows, err;  // standard output after "Connecting ...", operator lines
    } cases[] = {
        {{"sql", "--server=" + holeAt, "SELECT 1;"}, "", 254, "",
         ExecFailed("cannot connect to " + holeAt + ": Connection timed out")},
        {{"sql", ServerOption(silent), "SELECT 1;"}, "", 254, "", ExecFailed("no greeting within 10 s")},
        {{"--server=" + silentAt}, "", 1,
         "step 1 FAIL: SELECT HwID FROM Hardware LIMIT 3; -> no connection to the database server at " + silentAt + "\n",
         "Self-test FAILED.\n"},
        {{"sql", ServerOption(mute), "--timeout=1", "SELECT 1;"}, "", 254, "", ExecFailed("no answer within 1 s")},
        {{"sql", ServerOption(late), "--timeout=2", "--stdin"}, "SELECT 1;\nSELECT 2 AS b;\n", 0,
         "Line #\t\"b\"\n1.\t\"2\"\t\n", "stdin:1 [no answer within 2 s] SELECT 1;\n"},
    };
    std::vector<std::future<RunResult>> runs;
    for (const Case& c : cases) runs.push_back(std::async(std::launch::async, RunVtest, c.args, c.input, 30000));
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

TEST_F(SqlCommands, MonitorPrintsChangesUntilEnter)
{
    ChildProcess monitor(TargetArgv(VTEST_BINARY, {"monitor", Server(), "Hardware"}));
    ASSERT_TRUE(monitor.WaitForOutput("Press ENTER to stop.\n", 5000)) << monitor.Output();
    // The monitor's first connection comes a second after its start: insert
    // until the change shows (each insert is one more change line).
    bool seen = false;
    for (int i = 0; i < 10 && !seen; i++) {
        Sql({"INSERT INTO Hardware (HwName, HwType) VALUES ('m', 'central');"});
        seen = monitor.WaitForOutput("insert Hardware ", 1000);
    }
    ASSERT_TRUE(seen) << monitor.Output();
    ASSERT_TRUE(monitor.Write("\n"));
    EXPECT_EQ(monitor.Wait(5000), 0);
    EXPECT_EQ(monitor.Output().rfind(Connecting() + "Press ENTER to stop.\ninsert Hardware ", 0), 0u)
        << monitor.Output();
}

// The monitor's state goes to standard error once per change (its retries
// log their first failure only); ENTER before the first connection ends it
// at once; a table the server refuses ends it with one line and status 1.
TEST_F(SqlCommands, MonitorReportsItsStateAndGivesUpOnARefusedTable)
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
    ASSERT_TRUE(monitor.WaitForOutput("Monitoring Hardware on " + at + ".\n", 10000)) << monitor.Output();
    m_sim.Stop();
    ASSERT_TRUE(monitor.WaitForOutput("Connection to " + at + " lost; retrying every second.\n", 10000));
    EXPECT_FALSE(monitor.WaitForOutput("never printed", 3500));  // three rounds of retries
    ASSERT_TRUE(monitor.Write("\n"));
    EXPECT_EQ(monitor.Wait(5000), 0);
    EXPECT_EQ(OperatorErrors(monitor.Output()), start + "Monitoring Hardware on " + at + ".\nConnection to " + at +
                                                    " lost; retrying every second.\n");
    EXPECT_EQ(CountOf(monitor.Output(), "Unable to connect"), 1u) << monitor.Output();
}

class SelfTest : public SqlCommands {};

TEST_F(SelfTest, PassesAgainstTheSimulatorAndFindsItsEvent)
{
    RunResult r = RunVtest({Server()});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("step 1 PASS: SELECT HwID FROM Hardware LIMIT 3; -> 3 row(s): HwID 1 2 3\n"),
              std::string::npos) << r.out;
    EXPECT_NE(r.out.find("step 2 PASS: INSERT INTO Events -> INSERT INTO Events "), std::string::npos);
    EXPECT_NE(r.out.find("step 3 PASS: read back -> EvntID "), std::string::npos);
    EXPECT_NE(r.out.find("Self-test passed.\n"), std::string::npos);
}

TEST(SelfTestFailures, NamesTheMissingServer)
{
    RunResult r = RunVtest({"--server=127.0.0.1:1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "Connecting to 127.0.0.1:1...\n"
                     "step 1 FAIL: SELECT HwID FROM Hardware LIMIT 3; -> "
                     "no connection to the database server at 127.0.0.1:1\n");
    EXPECT_EQ(OperatorErrors(r.err), "Self-test FAILED.\n");
}

TEST(SelfTestFailures, ReportsAMissingEventsTable)
{
    std::string dir = MakeTempDir();
    std::string db = dir + "/no-events.db";
    RunResult made = RunProgram({"/usr/bin/sqlite3", db,
                                 "CREATE TABLE Hardware (HwID INTEGER PRIMARY KEY); INSERT INTO Hardware VALUES (4);"});
    ASSERT_EQ(made.status, 0) << made.err;
    SimRunner::Options options;
    options.extraArgs = {"--db=" + db};
    SimRunner sim(options);
    ASSERT_TRUE(sim.Running()) << sim.Log();
    RunResult r = RunVtest({"--server=" + sim.Address()});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("step 1 PASS"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("step 2 FAIL: INSERT INTO Events -> Error: no such table: Events\n"), std::string::npos)
        << r.out;
    RunProgram({"/bin/rm", "-rf", dir});
}

}  // namespace
