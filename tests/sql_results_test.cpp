// sql and sql_file end to end: whatever the server or the input does, the
// output is the data as it is, or a failure line with its reason and a
// failing status; never a cut or shifted result with status 0.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "process.h"
#include "sim_runner.h"
#include "sql_script.h"

namespace {

// Where the input, past this mark, waits until the simulator has dropped the
// idle connection.
const char kAfterIdleClose[] = "\f";

std::string Failed(const std::string& why) { return "SqlWrapper:Exec() - failed (" + why + "): " + why + ".\n"; }

// SELECT 1 AS c1, ..., n AS cn; and its header and row as printed.
std::string Wide(int n, std::string* header = nullptr, std::string* row = nullptr)
{
    std::string sql = "SELECT ";
    for (int i = 1; i <= n; i++) {
        std::string c = std::to_string(i);
        sql += (i > 1 ? ", " : "") + c + " AS c" + c;
        if (header) *header += "\t\"c" + c + "\"";
        if (row) *row += "\"" + c + "\"\t";
    }
    return sql + ";";
}

struct Case {
    const char* label;
    std::vector<Script> scripts;   // the scripted server's; none: the simulator
    std::vector<std::string> args;  // after the command word and --server=; "FILE" is the input file
    std::string input;              // the file's text, or standard input with --stdin
    int status;
    std::string out;  // after "Connecting to ..."
    std::string err;  // operator lines; FILE is the input file's name
    const char* at = nullptr;  // another server than the simulator or the script's
};

class SqlResults : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_sim.Running()) << m_sim.Log(); }
    void TearDown() override { RunProgram({"/bin/rm", "-rf", m_dir}); }

    RunResult Run(const Case& c, const std::string& server)
    {
        std::string file = m_dir + "/input.sql";
        std::vector<std::string> args = {c.args[0] == "sql_file" ? "sql_file" : "sql", "--server=" + server};
        for (size_t i = c.args[0] == "sql_file" ? 1 : 0; i < c.args.size(); i++)
            args.push_back(c.args[i] == "FILE" ? file : c.args[i]);
        bool fromStdin = c.args.back() == "--stdin";
        size_t pause = c.input.find(kAfterIdleClose);
        if (!fromStdin || pause != std::string::npos) std::ofstream(file, std::ios::binary) << c.input.substr(0, pause);
        if (pause == std::string::npos) return RunVtest(args, fromStdin ? c.input : "");
        // The rest of the input comes once the simulator closed the idle connection.
        std::ofstream(file + ".rest") << c.input.substr(pause + 1);
        std::string feed = "{ cat '" + file + "'; until grep -q 'silent for' '" + m_sim.LogPath() +
                           "'; do sleep 0.05; done; cat '" + file + ".rest'; } | exec \"$@\"";
        return RunProgram(InShell(feed, TargetArgv(VTEST_BINARY, args)));
    }
    // The row of a count of events with that text, as printed.
    std::string Count(const std::string& data)
    {
        RunResult r = RunVtest({"sql", "--server=" + m_sim.Address(),
                                "SELECT COUNT(*) AS n FROM Events WHERE EvntData = '" + data + "';"});
        return r.out.substr(r.out.find("1.\t"));
    }

    SimRunner m_sim{SimRunner::Options{false, 0, 0, {"--idle-timeout=1"}}};
    std::string m_dir = MakeTempDir();
};

TEST_F(SqlResults, NeverLostOrInvented)
{
    const Script cut = Prepared({Expect("SELECT a FROM t;\r\n"), Send("a\n1\n2\n"), Close()});
    const Script mute = Prepared({Expect("SELECT a FROM t;\r\n"), Close()});
    const Script notReady =
        Then(Greeting("SQL Wrapper"), {Expect("shell \\ |\r\n"), Send(std::string("DB not ready\n") + kAnswerEnd)});
    const std::string bom = "\xef\xbb\xbf", big(3000, 'x'), longLine = "SELECT '" + std::string(1048570, 'y') + "';";
    std::string wideHeader, wideRow;
    const std::string wide = Wide(35, &wideHeader, &wideRow);
    const std::string insert = "INSERT INTO Events (EvntDscID, UsrID, HwID, EvntData) VALUES (1, 0, 1, 'idle');";
    const Case cases[] = {
        {"1 cut by a lost connection", {cut, Prepared()}, {"SELECT a FROM t;"}, "", 254,
         "Line #\t\"a\"\n1.\t\"1\"\t\n2.\t\"2\"\t\n", Failed("connection lost after 2 rows")},
        {"1 lost before the first row", {mute, Prepared()}, {"SELECT a FROM t;"}, "", 254, "",
         Failed("connection lost; the statement may have run")},
        {"2 error after a row", {}, {"SELECT 1 AS a; SELEC 2;"}, "", 254, "Line #\t\"a\"\n1.\t\"1\"\t\n",
         Failed("Error: near \"SELEC\": syntax error after 1 row")},
        {"3 trailing NULL", {}, {"SELECT 1 AS a, NULL AS b;"}, "", 0, "Line #\t\"a\"\t\"b\"\n1.\t\"1\"\t\"\"\t\n", ""},
        {"3 pairs from the column names", {}, {"--pairs", "SELECT 3 AS z, 2 AS a, 4 AS a, NULL AS b;"}, "", 0,
         "Line #\t\"a\"\t\"b\"\t\"z\"\n1.\t4\t\t3\t\n", ""},
        {"4 past thirty columns", {}, {wide}, "", 0, "Line #" + wideHeader + "\n1.\t" + wideRow + "\n", ""},
        {"4 past the column cap", {}, {Wide(1025)}, "", 254, "", Failed("more than 1024 columns")},
        {"5 a long cell whole", {}, {"SELECT printf('%.*c', 3000, 'x') AS v;"}, "", 0,
         "Line #\t\"v\"\n1.\t\"" + big + "\"\t\n", ""},
        {"5 a row past the line", {}, {"SELECT printf('%.*c', 1048575, 'x') AS v;"}, "", 254, "Line #\t\"v\"\n",
         Failed("row longer than 1048574 bytes")},
        {"5 a statement past the line", {}, {"--stdin"}, longLine + "\nSELECT 5 AS e;\n", 0,
         "Line #\t\"e\"\n1.\t\"5\"\t\n",
         "stdin:1 [line longer than 1048573 bytes] " + longLine.substr(0, 80) + "...\n"},
        {"6 a line break", {}, {"SELECT 'A';\nSELECT 'B';", "SELECT 'C';"}, "", 254, "",
         Failed("statement holds a line break")},
        {"7 whole lines", {Prepared(Answer("SELECT 1 AS a;", "a\n1\n"))}, {"sql_file", "FILE"},
         bom + "#" + std::string(3998, 'n') + " DELETE FROM T1;\n\t# DELETE FROM T1;\nSELECT 1 AS a;  \n" +
               std::string("bad\0line;\nlone\rCR;\n", 19),
         254, "Line #\t\"a\"\n1.\t\"1\"\t\n",
         "FILE:4 [line holds a NUL byte] bad\\x00line;\nFILE:5 [line holds a lone carriage return] lone\\x0dCR;\n"},
        {"8 reasons of their own", {}, {"sql_file", "FILE"}, "SELEC 1;\nSELECT 2\n", 254, "",
         "FILE:1 [Error: near \"SELEC\": syntax error] SELEC 1;\nFILE:2 [missing semicolon] SELECT 2\n"},
        {"8 DB not ready", {notReady}, {"SELECT 1;"}, "", 254, "", Failed("DB not ready")},
        {"8 refused", {}, {"SELECT 1;"}, "", 254, "", Failed("connection refused by 127.0.0.1:1"), "127.0.0.1:1"},
        {"9 the server closed the idle connection", {}, {"--stdin"},
         "SELECT 1 AS a;\n" + std::string(kAfterIdleClose) + insert + "\n", 0, "Line #\t\"a\"\n1.\t\"1\"\t\n", ""},
        {"10 a directory", {}, {"sql_file", "/"}, "", 254, "", "Unable to open file: stdin\n"},
        {"10 a read error", {}, {"sql_file", "/proc/self/mem"}, "", 254, "",
         "Unable to read /proc/self/mem: Input/output error.\n"},
    };
    for (const Case& c : cases) {
        std::vector<Script> scripts;
        for (const Script& script : c.scripts) scripts.push_back(FromChild(script));
        std::unique_ptr<ScriptedServer> server;
        if (!scripts.empty()) server = std::make_unique<ScriptedServer>(scripts);
        std::string at = c.at ? c.at : server ? ServerOption(*server).substr(9) : m_sim.Address();
        RunResult r = Run(c, at);
        std::string err = OperatorErrors(r.err);
        for (size_t p; (p = err.find(m_dir + "/input.sql")) != std::string::npos;)
            err.replace(p, m_dir.size() + 10, "FILE");
        EXPECT_EQ(r.status, c.status) << c.label;
        EXPECT_EQ(r.out, "Connecting to " + at + "...\n" + c.out) << c.label;
        EXPECT_EQ(err, c.err) << c.label;
        if (!server) continue;
        // Exactly the script's requests reached the server (the DELETE never).
        EXPECT_TRUE(server->WaitEnded(static_cast<int>(scripts.size()), ScaledMs(5000))) << c.label;
        for (size_t i = 0; i < scripts.size(); i++)
            EXPECT_EQ(AnyPid(server->Received(i)), Expected(c.scripts[i])) << c.label;
        for (const std::string& failure : server->Failures()) ADD_FAILURE() << c.label << ": " << failure;
    }
    EXPECT_EQ(Count("idle"), "1.\t\"1\"\t\n") << "the INSERT after the idle close arrives once";
}

}  // namespace
