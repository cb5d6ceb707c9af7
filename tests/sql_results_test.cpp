// sql, sql_file, monitor's usage and the self-test end to end: the output is the data as it is, or the rows so far
// and a failure with its reason and status (never a cut one with status 0); no terminal output reaches a server.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "process.h"
#include "sim_runner.h"
#include "sql_script.h"

namespace {

// Input past this byte is fed only once the simulator dropped the idle connection.
const char kAfterIdleClose = '\f';

TEST(SqlResults, NeitherLostNorInvented)
{
    SimRunner sim(SimRunner::Options{false, 0, 0, {"--idle-timeout=1"}});
    ASSERT_TRUE(sim.Running()) << sim.Log();
    const std::string dir = MakeTempDir(), file = dir + "/in.sql", simAt = "--server=" + sim.Address();
    const Script notReady = Then(Greeting("SQL Wrapper"), {Expect("shell \\ |\r\n"), Send("DB not ready\n\v#> \n")});
    const std::string longLine = "SELECT '" + std::string(1048570, 'y') + "';", mustNot = "'must not run'";
    const std::string none = "SELECT HwID FROM Hardware WHERE HwID < 0;";
    const std::string syntax = "Error: near \"SELEC\": syntax error";
    const std::string full = "vtest: write error: No space left on device\n", one = "Line #\t\"a\"\n1.\t\"1\"\t\n";
    const std::string insert = "INSERT INTO Events (EvntDscID, UsrID, HwID, EvntData) VALUES (1, 0, 1, ";
    // More rows than a stdio buffer holds: written to a descriptor that became the connection, they reach the server.
    const std::string many = "x\n" + std::regex_replace(std::string(1000, 'r'), std::regex("r"), "row\n");
    const Script rows = Prepared(Answer("SELECT x;", many)), fails = Prepared(Answer("SELEC 1;", "\vError: x\n"));
    BlackHole hole;
    char text[SockAddr::m_strLen];
    const std::string holeAt = hole.Addr().Str(text, true), holeIs = "Connecting to " + holeAt + "...\n";
    // The cap message also shows the tool asks for more than the library's default of 30 columns.
    std::string wider = "SELECT 1";
    for (int i = 2; i <= 1025; i++) wider += ", " + std::to_string(i);
    // scripts: the scripted server's (none: the simulator); args: "S" the server's option, "F" the input as a file
    // (else it goes to stdin); out: what follows the last "Connecting to ..."; err: the operator lines.
    struct Case { const char* label; std::vector<Script> scripts; std::vector<std::string> args; std::string input;
                  int status; std::string out, err; const char* redirect = ""; } cases[] = {
        {"usage: no file", {}, {"sql_file"}, "", 255, "", "Missing parameter: SQL statement file.\n"},
        {"usage: a server alone", {}, {"sql", "--server=127.0.0.1"}, "", 255, "Connecting to 127.0.0.1:3543...\n",
         "Missing parameter: SQL statement.\n"},
        {"usage: bad timeout", {}, {"sql_file", "--timeout=x", "f.sql"}, "", 255, "", "Invalid timeout: x.\n"},
        {"usage: no table", {}, {"monitor", "S"}, "", 255, "", "Missing parameter: table.\n"},
        {"usage: no monitor table", {}, {"monitor"}, "", 255, "", "Missing parameter: table.\n"},
        {"usage: monitor server", {}, {"monitor", "--server=x", "T"}, "", 255, "", "Invalid IPv4 address: \"x\".\n"},
        {"usage: operation", {}, {"monitor", "T", "insert", "truncate"}, "", 255, "", "Invalid operation: truncate.\n"},
        // A table name goes into the one-line request as it is.
        {"usage: empty table", {}, {"monitor", ""}, "", 255, "", "Invalid table: .\n"},
        {"usage: blank in table", {}, {"monitor", "Events x"}, "", 255, "", "Invalid table: Events x.\n"},
        {"usage: control bytes", {}, {"monitor", "a\tb\x7f", "insert"}, "", 255, "", "Invalid table: a\\x09b\\x7f.\n"},
        {"usage: no file, named as stdin", {}, {"sql_file", "/no/x.sql"}, "", 254, "", "Unable to open file: stdin\n"},
        {"1 cut", {Prepared({Expect("SELECT a;\r\n"), Send("a\n1\n2\n"), Close()}), Prepared()},
         {"sql", "S", "SELECT a;"}, "", 254, one + "2.\t\"2\"\t\n", ExecFailed("connection lost after 2 rows")},
        {"1 lost before a row", {Prepared({Expect("SELECT a;\r\n"), Close()}), Prepared()}, {"sql", "S", "SELECT a;"},
         "", 254, "", ExecFailed("connection lost; the statement may have run")},
        {"2 row+error", {}, {"sql", "S", "SELECT 1 AS a; SELEC 2;"}, "", 254, one, ExecFailed(syntax + " after 1 row")},
        {"3 trailing NULL, escapes, blanks", {}, {"sql", "S", "SELECT 'a|b\\c' AS a, NULL AS b; \t"}, "", 0,
         "Line #\t\"a\"\t\"b\"\n1.\t\"a|b\\c\"\t\"\"\t\n", ""},
        // A later column of the same name wins; nothing is kept of the row before.
        {"3 pairs named by the columns", {}, {"sql", "S", "--pairs", "SELECT 3 AS z, 2 AS a, 4 AS a, 1 AS b UNION ALL "
         "SELECT 5, 6, 7, NULL;"}, "", 0, "Line #\t\"a\"\t\"b\"\t\"z\"\n1.\t4\t1\t3\t\n2.\t7\t\t5\t\n", ""},
        {"3 no rows", {}, {"sql", "S", none}, "", 0, "Line #\t\"HwID\"\n", ""},
        {"3 no rows in pairs", {}, {"sql", "S", "--pairs", none}, "", 0, "", ""},
        {"4 past the cap", {}, {"sql", "S", wider + ";"}, "", 254, "", ExecFailed("more than 1024 columns")},
        {"5 a row past the line", {}, {"sql", "S", "SELECT printf('%.*c', 1048575, 'x') AS v;"}, "", 254,
         "Line #\t\"v\"\n", ExecFailed("row longer than 1048574 bytes")},
        {"5 a statement past the line", {}, {"sql", "S", "--stdin"}, longLine + "\nSELECT 1 AS a;\n", 0, one,
         "stdin:1 [line longer than 1048573 bytes] " + longLine.substr(0, 80) + "...\n"},
        {"6 a line break stops the run", {}, {"sql", "S", "SELECT 'A';\nSELECT 'B';\r", insert + mustNot + ");"}, "",
         254, "", ExecFailed("statement holds a line break")},
        {"7 whole lines", {Prepared(Answer("SELECT 1 AS a;", "a\n1\n"))}, {"sql_file", "S", "F"},
         "\xef\xbb\xbf#" + std::string(3998, 'n') + " DELETE FROM T1;\n\t# DELETE FROM T1;\nSELECT 1 AS a;  \n" +
             std::string("bad\0line;\nlone\rCR;\n", 19),
         254, one,
         file + ":4 [line holds a NUL byte] bad\\x00line;\n" + file +
             ":5 [line holds a lone carriage return] lone\\x0dCR;\n"},
        {"8 not ready, then a fresh connection", {notReady, Prepared(Answer("SELECT 1 AS a;", "a\n1\n"))},
         {"sql", "S", "--stdin"}, "SELECT 1;\nSELECT 1 AS a;\n", 0, one, "stdin:1 [DB not ready] SELECT 1;\n"},
        {"8 refused", {}, {"sql", "--server=127.0.0.1:1", "SELECT 1;"}, "", 254, "Connecting to 127.0.0.1:1...\n",
         ExecFailed("connection refused by 127.0.0.1:1")},
        {"8 options repeated", {}, {"sql_file", "--pairs", "S", "--stdin", "S", "--pairs", "x.sql"},
         "SELECT 5 AS e;\nSELEC 2;\n", 254, "Line #\t\"e\"\n1.\t5\t\n", "x.sql:2 [" + syntax + "] SELEC 2;\n"},
        {"9 an idle close", {}, {"sql", "S", "--stdin"}, "SELECT 1 AS a;\n\f" + insert + "'idle');\n", 0, one, ""},
        {"10 a directory", {}, {"sql_file", "S", "/"}, "", 254, "", "Unable to open file: stdin\n"},
        {"10 a read error", {}, {"sql_file", "S", "/proc/self/mem"}, "", 254, "",
         "Unable to read /proc/self/mem: Input/output error.\n"},
        // Rows to a file or pipe are fully buffered; the tool's own messages still follow the rows printed before them.
        {"11 own reasons in place, run goes on", {}, {"sql_file", "S", "F"}, "SELECT 1 AS a;\r\n\nSELEC 2;\nSELECT 3\n",
         254, one + file + ":3 [" + syntax + "] SELEC 2;\n" + file + ":4 [missing semicolon] SELECT 3\n", "", "2>&1"},
        {"11 merged statements", {}, {"sql", "S", "SELECT 1 AS a;", "SELEC 2;"}, "", 254,
         one + "--------------- N e x t   q u e r y --------------\n" + ExecFailed(syntax), "", "2>&1"},
        {"11 merged usage", {}, {"sql", "S", "--server=bad"}, "", 255, "Invalid IPv4 address: \"bad\".\n", "", "2>&1"},
        {"12 no stdout", {Then(rows, Answer("SELECT 2;", "2\n2\n"))}, {"sql", "S", "SELECT x;", "SELECT 2;"}, "", 0,
         "", "", ">&-"},
        {"12 no stderr", {fails}, {"sql", "S", "SELEC 1;"}, "", 254, "", "", "2>&-"},
        {"12 no stdin", {}, {"sql", "S", "--stdin"}, "", 0, "", "", "<&-"},
        {"12 full", {rows}, {"sql", "S", "SELECT x;"}, "", 74, "", full, ">/dev/full"},
        {"12 full+fail", {fails}, {"sql", "S", "SELEC 1;"}, "", 254, "", ExecFailed("Error: x") + full, ">/dev/full"},
        {"12 full from sec-exec", {}, {"sec-exec", "/usr/bin/seq", "100000"}, "", 74, "", full, ">/dev/full"},
        // Nothing that never answers may hang the tool, and no late answer may pass for the next statement's.
        {"13 connect", {}, {"sql", "--server=" + holeAt, "--timeout=1", "SELECT 1;"}, "", 254, holeIs,
         ExecFailed("cannot connect to " + holeAt + ": Connection timed out")},
        {"13 greeting", {Script{}}, {"sql", "S", "SELECT 1;"}, "", 254, "", ExecFailed("no greeting within 10 s")},
        {"13 self-test", {}, {"--server=" + holeAt}, "", 1, holeIs + "step 1 FAIL: SELECT HwID FROM Hardware LIMIT 3; "
         "-> no connection to the database server at " + holeAt + "\n", "Self-test FAILED.\n"},
        {"13 answer", {Prepared({Expect("SELECT 1;\r\n")}), Prepared(Answer("SELECT 1 AS a;", "a\n1\n"))},
         {"sql", "S", "--timeout=1", "--stdin"}, "SELECT 1;\nSELECT 1 AS a;\n", 0, one,
         "stdin:1 [no answer within 1 s] SELECT 1;\n"},
    };
    for (Case& c : cases) {
        std::vector<Script> scripts;
        for (const Script& script : c.scripts) scripts.push_back(FromChild(script));
        ScriptedServer server(scripts);
        std::string at, input = c.input, shell = "exec \"$@\" " + std::string(c.redirect);
        for (std::string& arg : c.args) {
            if (arg == "S") arg = scripts.empty() ? simAt : ServerOption(server);
            if (arg == simAt || arg == ServerOption(server)) at += "Connecting to " + arg.substr(9) + "...\n";
            if (arg == "F") std::ofstream(arg = file, std::ios::binary) << input, input.clear();
        }
        // One byte at a time, so that nothing past the pause is read before it.
        if (size_t pause = input.find(kAfterIdleClose); pause != std::string::npos) {
            shell = "{ dd bs=1 count=" + std::to_string(pause) + " status=none; until grep -q 'silent for' " +
                    sim.LogPath() + "; do sleep 0.05; done; cat; } | " + shell;
            input.erase(pause, 1);
        }
        RunResult r = RunProgram(InShell(shell, TargetArgv(VTEST_BINARY, c.args)), input);
        EXPECT_EQ(r.status, c.status) << c.label;
        EXPECT_EQ(OperatorErrors(r.out), (c.redirect[0] == '>' ? "" : at) + c.out) << c.label;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << c.label;
        // Exactly the script's requests reached the server (the DELETE never).
        const int count = static_cast<int>(scripts.size());
        EXPECT_TRUE(server.WaitClosed(count, ScaledMs(5000)) && server.Accepted() == count) << c.label;
        for (size_t i = 0; i < scripts.size(); i++)
            EXPECT_EQ(AnyPid(server.Received(i)), Expected(c.scripts[i])) << c.label;
        for (const std::string& failure : server.Failures()) ADD_FAILURE() << c.label << ": " << failure;
    }
    // The INSERT after the idle close arrived once; the one after a failed statement never.
    EXPECT_EQ(RunVtest({"sql", simAt, "SELECT EvntData FROM Events WHERE EvntData IN ('idle', " + mustNot + ");"}).out,
              "Connecting to " + sim.Address() + "...\nLine #\t\"EvntData\"\n1.\t\"idle\"\t\n");
    RunResult self = RunVtest({simAt});
    for (const char* line : {"step 1 PASS: SELECT HwID FROM Hardware LIMIT 3; -> 3 row(s): HwID 1 2 3\n",
                             "step 2 PASS: INSERT INTO Events -> INSERT INTO Events ",
                             "step 3 PASS: read back -> EvntID ", "Self-test passed.\n"})
        EXPECT_TRUE(self.status == 0 && self.out.find(line) != std::string::npos) << line << self.out << self.err;
    RunVtest({"sql", simAt, "DROP TABLE Events;"});
    self = RunVtest({simAt});
    const std::string failed = "step 2 FAIL: INSERT INTO Events -> Error: no such table: Events\n";
    EXPECT_TRUE(self.status == 1 && self.out.find(failed) != std::string::npos) << self.out;
    RunProgram({"/bin/rm", "-rf", dir});
}

}  // namespace
