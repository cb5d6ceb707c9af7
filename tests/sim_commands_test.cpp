// The simulated unit's command channel over real sockets: every command
// read with Api's own reads (no byte left over, no read left waiting), the
// first line telling the two kinds of connection apart on one port, and
// the centrals file.
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "Api.h"
#include "process.h"
#include "shell_client.h"
#include "sim_runner.h"
#include "utils.h"

namespace {

const char kRule[] = "----------------------------------------------------------------------------------------------------"
                     "--";
const char kHeader[] =
    "Idx  HwID   Addr  MAC                IPv4             State        Master             Version   Serial";

SockAddr SimAddr(const SimRunner& sim) { return SockAddr(AF_INET, 0x7F000001u, sim.Port()); }

// A line ending in "*" expects only that start.
void ExpectLines(const std::vector<std::string>& expected, const std::list<std::string>& got, const std::string& label)
{
    ASSERT_EQ(expected.size(), got.size()) << label;
    auto line = got.begin();
    for (const std::string& want : expected) {
        if (!want.empty() && want.back() == '*') EXPECT_EQ(want.substr(0, want.size() - 1), line->substr(0, want.size() - 1)) << label;
        else EXPECT_EQ(want, *line) << label;
        ++line;
    }
}

TEST(SimCommands, AnswersEachCommandWithExactlyTheBytesApiReads)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    Api api(SimAddr(sim), strPrompt);
    api.Timeout(ScaledMs(10000) / 1000);
    const std::string table[] = {"/dev/ttyS1", kHeader, kRule};
    struct Row {
        std::string command;
        std::vector<std::string> lines;
    } rows[] = {
        {"", {}},
        {"echo hello world", {"hello world"}},
        {"echo", {""}},
        {"  echo   three blanks", {"  three blanks"}},
        {"version", {"vantor-sim *"}},
        {"uptime", {"Up 0 days, 00:0*"}},
        {"status", {"", "S o c k e t s", "-----*", " FD  RX bytes  TX bytes  From, name", "-----*", "*", "*"}},
        {"help", {"Commands:", "  help *", "  version *", "  uptime *", "  status *", "  echo <text> *", "  sleep <ms> *",
                  "  quit *", "  serial enum *", "  serial set <mac> <addr> *"}},
        {"sleep 50", {}},
        {"sleep 3600001", {"Error: Usage: sleep <ms> (0 to 3600000)."}},
        {"sleep", {"Error: Usage: sleep <ms> (0 to 3600000)."}},
        {"nope now", {"Error: Unknown command 'nope'."}},
        {"comment x", {"Error: Unknown command 'comment'."}},
        {"serial enum",
         {table[0], table[1], table[2],
          "1    3      3     02:a0:7c:00:04:12  10.0.0.21        online       02:a0:7c:00:00:01  3.2.1     CE-7710-0412",
          "2    4      7     02:a0:7c:00:04:13  10.0.0.22        online       02:a0:7c:00:00:02  3.2.1     CE-7710-0413",
          "3    8      none  02:a0:7c:00:05:01  0.0.0.0          unaddressed  00:00:00:00:00:00  3.1.0     CE-7710-0501"}},
        {"serial set 02:A0:7C:00:05:01 9", {"Central 02:a0:7c:00:05:01 address none -> 9."}},
        {"serial set 02:a0:7c:00:05:01 7", {"Error: RS-485 address 7 is taken by 02:a0:7c:00:04:13."}},
        {"serial set 02:a0:7c:00:05:01 255", {"Error: Invalid RS-485 address '255' (1 to 254)."}},
        {"serial set 02:a0:7c:00:05:01 09", {"Error: Invalid RS-485 address '09' (1 to 254)."}},
        {"serial set 02:a0:7c:00:05 5", {"Error: Invalid MAC address '02:a0:7c:00:05'."}},
        {"serial set 02:a0:7c:00:09:09 5", {"Error: No central with MAC 02:a0:7c:00:09:09."}},
        {"serial set 02:a0:7c:00:05:01", {"Error: Usage: serial enum | serial set <mac> <addr>."}},
        {"serial enum",
         {table[0], table[1], table[2], "1 *", "2 *",
          "3    8      9     02:a0:7c:00:05:01  0.0.0.0          unaddressed  00:00:00:00:00:00  3.1.0     CE-7710-0501"}},
    };
    for (const Row& row : rows) {
        const std::string label = row.command.substr(0, 40);
        std::list<std::string> lines;
        EXPECT_TRUE(api.Exec(row.command.c_str(), lines)) << label;
        EXPECT_EQ(0, api.LastError()) << label;
        ExpectLines(row.lines, lines, label);
        EXPECT_EQ(0, api.Pending()) << label;
    }
    std::list<std::string> lines;
    EXPECT_TRUE(api.Exec("quit", lines));
    EXPECT_EQ(-EPIPE, api.LastError());
    ExpectLines({"Bye."}, lines, "quit");
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

// One listener, one greeting: the first line decides whose a connection
// is, and later lines never change it.
TEST(SimCommands, FirstLineDecidesTheKindOfEachConnection)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    FdShellTransport database(sim.Connect());
    ScriptedShellClient shell(database);
    ASSERT_TRUE(shell.Greet() && shell.Setup());

    struct Row {
        const char* label;
        std::string sent;      // after the greeting
        std::string answer;    // exactly
    } rows[] = {
        {"a command line, then a shell line", "echo a\r\ncomment x\n", "a\n#> Error: Unknown command 'comment'.\n#> "},
        {"CR LF and LF end lines, a lone CR is text", "echo a\rb\necho c\r\n\r\n", "a\rb\n#> c\n#> #> "},
        {"an empty first line is a command", "\nshell \\ |\n", "#> Error: Unknown command 'shell'.\n#> "},
        {"a shell line makes it the shell's", " shell \\ |\r\nversion\r\n",
         "OK\n\v#> \n\vError: near \"version\": syntax error\n\v#> \n"},
        {"a monitor line subscribes", "monitor Events\r\n", "#> "},
        {"command lines of up to 8000 bytes", "echo " + std::string(7995, 'x') + "\n" + std::string(8001, 'y') + "\n",
         std::string(7995, 'x') + "\n#> Error: line longer than 8000 bytes.\n#> "},
        {"a first line longer than the shell takes", std::string(70000, 'z') + "\n",
         "Error: line longer than 8000 bytes.\n#> "},
    };
    for (const Row& row : rows) {
        FdShellTransport link(sim.Connect());
        std::string bytes;
        ASSERT_TRUE(link.ReadUntil("#> ", bytes, 5000)) << row.label;
        ASSERT_TRUE(link.Send(row.sent)) << row.label;
        bytes.clear();
        EXPECT_TRUE(link.ReadUntil(row.answer, bytes, 5000)) << row.label;
        EXPECT_EQ(row.answer, bytes) << row.label;
        EXPECT_TRUE(link.Quiet(50)) << row.label;
    }
    // The database client on the same port is undisturbed.
    std::vector<std::string> lines;
    EXPECT_EQ(0, shell.Exec("SELECT HwID FROM Hardware LIMIT 2;", lines));
    EXPECT_EQ((std::vector<std::string>{"HwID", "1", "2"}), lines);
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

TEST(SimCommands, CentralsFileIsTakenWholeOrRefusedWithItsLine)
{
    const std::string good = "02:a0:7c:00:00:01 10.0.0.1 online 00:00:00:00:00:00 1.0 S1";
    struct Row {
        const char* label;
        std::string file;  // "" for a missing file
        std::string outcome;  // the last enum row, or what the log says
    } rows[] = {
        {"comments, blank lines, tabs, CR LF, upper case",
         "# index hwid address ...\r\n\r\n  # indented\n7\t42 254 02:A0:7C:00:00:01 10.0.0.1 on-line 00:00:00:00:00:00 1.0 S-1\r\n",
         "7    42     254   02:a0:7c:00:00:01  10.0.0.1         on-line      00:00:00:00:00:00  1.0       S-1"},
        {"eight columns", "1 2 3 " + good.substr(0, good.rfind(' ')), "line 1: expected 9 columns, found 8"},
        {"address out of range", "1 2 255 " + good, "line 1: bad Addr '255'"},
        {"a MAC given twice", "1 2 3 " + good + "\n2 3 4 " + good, "line 2: MAC 02:a0:7c:00:00:01 given twice"},
        {"an address given twice",
         "1 2 3 " + good + "\n2 3 3 02:a0:7c:00:00:02 10.0.0.2 on 00:00:00:00:00:00 1.0 S2", "line 2: address 3 given twice"},
        {"a value the central search would skip", "1 2 3 02:a0:7c:00:00:01 10.0.0.1 on 00:00:00:00:00:00 Version2 S",
         "line 1: bad Version 'Version2'"},
        {"a comma", "1 2 3 02:a0:7c:00:00:01 10.0.0.1 on 00:00:00:00:00:00 1.0 a,b", "line 1: bad Serial 'a,b'"},
        {"a bad IPv4 address", "1 2 3 02:a0:7c:00:00:01 10.0.0.256 on 00:00:00:00:00:00 1.0 S", "line 1: bad IPv4 '10.0.0.256'"},
        {"no such file", "", "No such file or directory"},
    };
    const std::string dir = MakeTempDir();
    for (const Row& row : rows) {
        const std::string path = dir + "/centrals";
        (void)unlink(path.c_str());
        if (!row.file.empty()) std::ofstream(path) << row.file;
        SimRunner sim(SimRunner::Options{false, 0, 0, {"--centrals=" + path}});
        if (!sim.Running()) {
            EXPECT_NE(std::string::npos, sim.Log().find("Centrals file " + path + ": " + row.outcome + "."))
                << row.label << "\n" << sim.Log();
            continue;
        }
        Api api(SimAddr(sim), strPrompt);
        api.Timeout(ScaledMs(10000) / 1000);
        std::list<std::string> lines;
        EXPECT_TRUE(api.Exec("serial enum", lines)) << row.label;
        EXPECT_EQ(row.outcome, lines.back()) << row.label;
        EXPECT_EQ(4u, lines.size()) << row.label;
    }
    (void)unlink((dir + "/centrals").c_str());
    (void)rmdir(dir.c_str());
}

}  // namespace
