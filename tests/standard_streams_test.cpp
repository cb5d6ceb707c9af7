// vtest with a standard stream closed or failing: nothing meant for the
// terminal reaches a server, and a failed write is never a success.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process.h"
#include "sql_script.h"

namespace {

// Runs vtest with a shell redirection applied first ("2>&-", ">/dev/full").
RunResult RunRedirected(const std::string& redirect, const std::vector<std::string>& args)
{
    return RunProgram(InShell("exec \"$@\" " + redirect, TargetArgv(VTEST_BINARY, args)));
}




// More rows than a stdio buffer holds: printed to a descriptor that became
// the connection, they would reach the server before the next statement.
std::string ManyRows()
{
    std::string rows = "x\n";
    for (int i = 0; i < 500; i++) rows += "row " + std::to_string(i) + "\n";
    return rows;
}

TEST(StandardStreams, AClosedStreamNeverBecomesTheConnection)
{
    const std::string error = "\vError: near \"SELEC\": syntax error\n";
    struct Case {
        const char* redirect;
        std::vector<std::string> args;
        Script script;  // empty: no connection expected
        int status;
    } cases[] = {
        {">&-", {"SELECT x;", "SELECT 2;"},
         Then(Prepared(Answer("SELECT x;", ManyRows())), Answer("SELECT 2;", "2\n2\n")), 0},
        {"2>&-", {"SELEC 1;"}, Prepared(Answer("SELEC 1;", error)), 254},
        {"<&-", {"--stdin"}, {}, 0},
    };
    for (Case& c : cases) {
        ScriptedServer server(c.script.empty() ? std::vector<Script>{} : std::vector<Script>{FromChild(c.script)});
        std::vector<std::string> args = {"sql", ServerOption(server)};
        args.insert(args.end(), c.args.begin(), c.args.end());
        RunResult r = RunRedirected(c.redirect, args);
        EXPECT_EQ(r.status, c.status) << c.redirect << r.err;
        int connections = c.script.empty() ? 0 : 1;
        EXPECT_TRUE(server.WaitEnded(connections, ScaledMs(5000))) << c.redirect;
        EXPECT_EQ(server.Accepted(), connections) << c.redirect;
        EXPECT_EQ(AnyPid(server.Received(0)), Expected(c.script)) << c.redirect;
        for (const std::string& failure : server.Failures()) ADD_FAILURE() << c.redirect << ": " << failure;
    }
}

TEST(StandardStreams, AFailedWriteIsReportedAndNeverASuccess)
{
    ScriptedServer server(
        {FromChild(Prepared(Answer("SELECT x;", ManyRows()))),
         FromChild(Prepared(Answer("SELEC 1;", "\vError: x\n")))});
    const std::string sql = ServerOption(server);
    const std::string full = "vtest: write error: No space left on device\n";
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string err;
    } cases[] = {
        {{"sql", sql, "SELECT x;"}, 74, full},
        // A failure of the command's own keeps its status.
        {{"sql", sql, "SELEC 1;"}, 254, "SqlWrapper:Exec() - failed (Error: x): Error: x.\n" + full},
        {{"sec-exec", "/bin/echo", "x"}, 74, full},
        {{"sec-exec", "/bin/sh", "-c", "'echo x; exit 3'"}, 3, full},
    };
    for (const Case& c : cases) {
        RunResult r = RunRedirected(">/dev/full", c.args);
        EXPECT_EQ(r.status, c.status) << c.args.back();
        EXPECT_EQ(OperatorErrors(r.err), c.err) << c.args.back();
    }
}

}  // namespace
