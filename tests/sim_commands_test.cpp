// The command channel over real sockets, read with Api's own reads: no byte left over, no read left waiting.
#include <gtest/gtest.h>

#include <fstream>

#include "Api.h"
#include "Centrals.h"
#include "shell_client.h"
#include "utils.h"

namespace {

TEST(SimCommands, AnswersEachCommandWithExactlyTheBytesApiReadsBesideTheDatabaseShell)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    auto shell = SimShell(sim);
    ASSERT_TRUE(shell->Reconnect());
    Api api(SimAddr(sim), strPrompt);
    api.Timeout(ScaledMs(10000) / 1000);
    // Lines each followed by "|", then "?<error>" unless the output ended at the prompt with no byte left.
    const auto run = [&](const std::string& command) {
        std::list<std::string> lines;
        bool sent = api.Exec(command.c_str(), lines);
        std::string joined;
        for (const std::string& line : lines) joined += line + "|";
        return joined + (!sent || api.LastError() || api.Pending() ? "?" + std::to_string(api.LastError()) : "");
    };
    const std::string table =
        "/dev/ttyS1|Idx  HwID   Addr  MAC                IPv4             State        Master             Version"
        "   Serial|" + std::string(102, '-') + "|"
        "1    3      3     02:a0:7c:00:04:12  10.0.0.21        online       02:a0:7c:00:00:01  3.2.1     CE-7710-0412|"
        "2    4      7     02:a0:7c:00:04:13  10.0.0.22        online       02:a0:7c:00:00:02  3.2.1     CE-7710-0413|"
        "3    8      none  02:a0:7c:00:05:01  0.0.0.0          unaddressed  00:00:00:00:00:00  3.1.0     CE-7710-0501|";
    const std::pair<std::string, std::string> rows[] = {  // a result ending in "*": only its start
        {"echo hello world", "hello world|"}, {"  echo   three blanks", "  three blanks|"}, {"version", "vantor-sim *"},
        {"uptime", "Up 0 days, 00:0*"}, {"status", "|S o c k e t s|----*"}, {"help", "Commands:|  help *"},
        {"sleep 50", ""}, {"sleep 3600001", "Error: Usage: sleep <ms> (0 to 3600000).|"}, {"serial enum", table},
        {"nope now", "Error: Unknown command 'nope'.|"},
        {"serial set 02:A0:7C:00:05:01 9", "Central 02:a0:7c:00:05:01 address none -> 9.|"},
        {"serial set 02:a0:7c:00:05:01 7", "Error: RS-485 address 7 is taken by 02:a0:7c:00:04:13.|"},
        {"serial set 02:a0:7c:00:05:01 09", "Error: Invalid RS-485 address '09' (1 to 254).|"},
        {"serial set 02:a0:7c:00:05 5", "Error: Invalid MAC address '02:a0:7c:00:05'.|"},
        {"serial set 02:a0:7c:00:09:09 5", "Error: No central with MAC 02:a0:7c:00:09:09.|"},
        {"serial set 02:a0:7c:00:05:01", "Error: Usage: serial enum | serial set <mac> <addr>.|"},
        {"serial set 02:a0:7c:00:05:01 9", "Central 02:a0:7c:00:05:01 address 9 -> 9.|"}, {"quit", "Bye.|?-32"},
    };
    for (const auto& [command, result] : rows) {
        const size_t exact = result.empty() || result.back() != '*' ? std::string::npos : result.size() - 1;
        EXPECT_EQ(result.substr(0, exact), run(command).substr(0, exact)) << command;
    }
    // One listener, one greeting: the first line decides whose a connection is, and later lines never change it.
    const std::pair<std::string, std::string> firsts[] = {  // sent at once, the answer after the greeting
        {"echo a\r\ncomment x\n", "a\n#> Error: Unknown command 'comment'.\n#> "},
        {"echo a\rb\necho c\r\n\r\n", "a\rb\n#> c\n#> #> "},  // a lone CR is text, an empty line a command
        {"\nshell \\ |\n", "#> Error: Unknown command 'shell'.\n#> "},
        {" shell \\ |\r\nversion\r\n", "OK\n\v#> \n\vError: near \"version\": syntax error\n\v#> \n"},
        {"monitor Events\r\n", "#> "},
        {"echo " + std::string(7995, 'x') + "\n" + std::string(8001, 'y') + "\n",
         std::string(7995, 'x') + "\n#> Error: line longer than 8000 bytes.\n#> "},
        {std::string(70000, 'z') + "\n", "Error: line longer than 8000 bytes.\n#> "},
    };
    for (const auto& [sent, answer] : firsts) {
        RawLink link(sim.Connect());  // the answer follows the greeting's prompt
        EXPECT_TRUE(link.Send(sent) && link.ReadUntil("\n#> " + answer) && link.Quiet(50)) << sent.substr(0, 20);
        EXPECT_EQ(answer, link.got.substr(link.got.find("#> ") + 3)) << sent.substr(0, 20);
    }  // the database client on the same port is undisturbed
    EXPECT_EQ((std::vector<std::string>{"HwID", "1", "2"}), SimRun(*shell, "SELECT HwID FROM Hardware LIMIT 2;"));
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

TEST(SimCommands, CentralsFileIsTakenWholeOrRefusedWithItsLine)
{
    const std::string mac = " 02:a0:7c:00:00:01 ", rest = " on 00:00:00:00:00:00 1.0 S1";
    const std::string good = "1 2 3" + mac + "10.0.0.1" + rest + "\n";
    const std::pair<std::string, std::string> rows[] = {  // file, last "serial enum" row or the reason
        {"# a comment\r\n\r\n  # indented\n7\t42 254 02:A0:7C:00:00:01 10.0.0.1 on-line 00:00:00:00:00:00 1.0 S-1\r\n",
         "7    42     254   02:a0:7c:00:00:01  10.0.0.1         on-line      00:00:00:00:00:00  1.0       S-1\n"},
        {"1 2 3" + mac + "10.0.0.1 on 00:00:00:00:00:00 1.0", "line 1: expected 9 columns, found 8"},
        {"1 2 255" + mac + "10.0.0.1" + rest, "line 1: bad Addr '255'"},
        {"1 2 3" + mac + "10.0.0.256" + rest, "line 1: bad IPv4 '10.0.0.256'"},
        {"1 2 3" + mac + "10.0.0.1 on 00:00:00:00:00:00 Version2 S", "line 1: bad Version 'Version2'"},
        {good + "2 3 4" + mac + "10.0.0.2" + rest, "line 2: MAC 02:a0:7c:00:00:01 given twice"},
        {good + "2 3 3 02:a0:7c:00:00:02 10.0.0.2" + rest, "line 2: address 3 given twice"},
    };
    for (const auto& [file, outcome] : rows) {
        CentralTable centrals;
        std::string error, listing = centrals.Parse(file, error) ? centrals.Enum() : "";
        EXPECT_EQ(outcome, error.empty() ? listing.substr(listing.rfind('\n', listing.size() - 2) + 1) : error);
    }
    // The simulator serves a good file; for a bad or missing one it names the file and the reason, and stops.
    const std::string dir = MakeTempDir();
    const std::pair<std::string, std::string> runs[] = {  // file ("" for none), what the simulator says
        {rows[0].first, rows[0].second + "#> "}, {rows[1].first, ": " + rows[1].second + "."},
        {"", ": No such file or directory."}};
    for (const auto& [file, says] : runs) {
        const std::string path = dir + (file.empty() ? "/none" : "/centrals");
        if (!file.empty()) std::ofstream(path) << file;
        SimRunner sim(SimRunner::Options{false, 0, 0, {"--centrals=" + path}});
        const std::string expected = says[0] == ':' ? "Centrals file " + path + says : says;
        RawLink link(sim.Running() ? sim.Connect() : -1);
        EXPECT_TRUE(!sim.Running() || (link.Send("serial enum\n") && link.ReadUntil(expected)));
        EXPECT_NE(std::string::npos, (sim.Log() + link.got).find(expected)) << sim.Log() << link.got;
    }
    EXPECT_EQ(0, system(("rm -rf " + dir).c_str()));
}

}  // namespace
