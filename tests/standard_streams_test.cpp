// vtest with a standard stream closed or failing: nothing meant for the
// terminal reaches a server, and a failed write is never a success.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "process.h"
#include "sql_script.h"

namespace {

// More rows than a stdio buffer holds: printed to a descriptor that became
// the connection, they would reach the server before the next statement.
std::string ManyRows()
{
    std::string rows = "x\n";
    for (int i = 0; i < 500; i++) rows += "row " + std::to_string(i) + "\n";
    return rows;
}

TEST(StandardStreams, NeitherTheServerNorTheStatusSeesAStreamThatIsClosedOrFull)
{
    const std::string full = "vtest: write error: No space left on device\n";
    const Script rows = Prepared(Answer("SELECT x;", ManyRows())), refused = Prepared(Answer("SELEC 1;", "\vError: x\n"));
    struct Case {
        const char* redirect;
        std::vector<std::string> args;  // "S": the scripted server's option
        Script script;                  // empty: no connection expected
        int status;
        std::string err;
    } cases[] = {
        {">&-", {"sql", "S", "SELECT x;", "SELECT 2;"}, Then(rows, Answer("SELECT 2;", "2\n2\n")), 0, ""},
        {"2>&-", {"sql", "S", "SELEC 1;"}, refused, 254, ""},
        {"<&-", {"sql", "S", "--stdin"}, {}, 0, ""},
        {">/dev/full", {"sql", "S", "SELECT x;"}, rows, 74, full},
        // A failure of the command's own keeps its status.
        {">/dev/full", {"sql", "S", "SELEC 1;"}, refused, 254, ExecFailed("Error: x") + full},
        {">/dev/full", {"sec-exec", "/usr/bin/seq", "100000"}, {}, 74, full},  // more than a pipe holds
        {">/dev/full", {"sec-exec", "/bin/sh", "-c", "'echo x; exit 3'"}, {}, 3, full},
    };
    for (Case& c : cases) {
        ScriptedServer server(c.script.empty() ? std::vector<Script>{} : std::vector<Script>{FromChild(c.script)});
        for (std::string& arg : c.args) arg = arg == "S" ? ServerOption(server) : arg;
        RunResult r = RunProgram(InShell("exec \"$@\" " + std::string(c.redirect), TargetArgv(VTEST_BINARY, c.args)));
        std::string label = std::string(c.redirect) + " " + c.args.back();
        EXPECT_EQ(r.status, c.status) << label;
        EXPECT_EQ(OperatorErrors(r.err), c.err) << label;
        int connections = c.script.empty() ? 0 : 1;
        EXPECT_TRUE(server.WaitClosed(connections, ScaledMs(5000))) << label;
        EXPECT_EQ(server.Accepted(), connections) << label;
        EXPECT_EQ(AnyPid(server.Received(0)), Expected(c.script)) << label;
        for (const std::string& failure : server.Failures()) ADD_FAILURE() << label << ": " << failure;
    }
}

}  // namespace
