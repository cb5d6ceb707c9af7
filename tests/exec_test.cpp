// vtest exec end to end: the scripted peer for exact bytes and every exit status, then the simulated unit.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/un.h>

#include <fstream>
#include <thread>

#include "process.h"
#include "scripted_server.h"
#include "sim_runner.h"

namespace {

std::string AddrText(const SockAddr& addr)
{
    char text[SockAddr::m_strLen];
    return addr.Str(text, true);
}

// A connection that sends the greeting and then answers each command in turn.
Script Answers(const std::vector<std::pair<std::string, std::string>>& exchanges, bool close = false)
{
    Script script = {Send("vantor\r\n#> ")};
    for (const auto& [command, answer] : exchanges) script.insert(script.end(), {Expect(command + "\n"), Send(answer)});
    return close ? Then(script, {Close()}) : script;
}

// Each row on its own thread and peer (the time-outs wait in parallel). In errors "@" is the server. A command
// sent wrongly or too often finds no answer in the script, so the output or the status shows it.
TEST(Exec, PrintsOutputsAndEndsWithTheFirstFailuresStatus)
{
    const std::string clean = "\xef\xbb\xbf  first  \r\n\n# comment\n\t# indented\nsecond\tline\t\n", tooLong(4001, 'x');
    const std::string l(5000, 'l'), dir = MakeTempDir(), script = dir + "/script";
    std::ofstream(script, std::ios::binary) << clean << "third";
    const struct Row { const char* label; std::vector<std::string> args; std::vector<Script> scripts; int status;
                       std::string out, errors = "", input = ""; } rows[] = {
        {"one command: no header", {"version"}, {Answers({{"version", "1.0\r\n#> "}})}, 0, "1.0\n"},
        {"CR LF, CR, pieces of a long line", {"a", "b"}, {Answers({{"a", "x\r\ny\r\r\n" + l + "\n#> "}, {"b", "#> "}})}, 0,
         "#> a\nx\ny\n\n" + l + "\n#> b\n"},
        {"no echo; --", {"--no-echo", "--", "--x", "b"}, {Answers({{"--x", "1\n#> "}, {"b", "2\n#> "}})}, 0, "1\n2\n"},
        {"--echo with one command", {"--echo", "a"}, {Answers({{"a", "1\n#> "}})}, 0, "#> a\n1\n"},
        {"--keep-going: all run, the first failure counts", {"--keep-going", "a", "b", "c"},
         {Answers({{"a", "fine\n#> "}, {"b", "Error: x\n#> "}, {"c", "Error: y\n#> "}})}, 1,
         "#> a\nfine\n#> b\nError: x\n#> c\nError: y\n", "Error: 'b' failed on @.\nError: 'c' failed on @.\n"},
        {"another error prefix; a failure stops the run", {"--error-prefix=FAIL", "a", "b", "c"},
         {Answers({{"a", "Error: no\n#> "}, {"b", "FAILED\n#> "}})}, 1, "#> a\nError: no\n#> b\nFAILED\n",
         "Error: 'b' failed on @.\n"},
        {"an empty error prefix", {"--error-prefix=", "a"}, {Answers({{"a", "Error: x\n#> "}})}, 0, "Error: x\n"},
        {"an output line starting with the prompt text", {"a", "b"},
         {Answers({{"a", "#> hello\nmore\n#> "}, {"b", "ok\n#> "}})}, 0, "#> a\n#> hello\nmore\n#> b\nok\n"},
        {"a greeting line starting with the prompt text", {"a"}, {{Send("#> hi\n#> "), Expect("a\n"), Send("1\n#> ")}}, 0, "1\n"},
        {"time-out during the output: 3", {"--timeout=1", "a"}, {Answers({{"a", "x\npar"}})}, 3, "x\npar\n",
         "Error: no answer from @ to 'a' within 1 s.\n"},
        {"closed during the output: 4, the cut line printed, never sent again; the next reconnects",
         {"--keep-going", "a", "b"}, {Answers({{"a", "p"}}, true), Answers({{"b", "2\n#> "}})}, 4, "#> a\np\n#> b\n2\n",
         "Error: connection to @ closed during 'a'.\n"},
        {"closed before the first prompt: 2", {"a"}, {{Send("Hi\n"), Close()}}, 2, "",
         "Error: cannot connect to @: closed before the prompt.\n"},
        {"closed right behind the first prompt: no endless reconnecting", {"--retries=1", "a"},
         {{Send("Hi\n#> "), Close()}, {Send("#> x\n"), Close()}}, 2, "",
         "Error: cannot connect to @: closed before the prompt (2 attempts).\n"},
        {"silent before the first prompt: 2", {"--timeout=1", "a"}, {{Send("Hi\n")}}, 2, "",
         "Error: cannot connect to @: no answer within 1 s.\n"},
        {"script: byte-order mark, CR LF, blanks, comments", {"--no-echo", "--file=" + script},
         {Answers({{"first", "1\n#> "}, {"second\tline", "2\n#> "}, {"third", "3\n#> "}})}, 0, "1\n2\n3\n"},
        {"script: a long line stops the run", {"--stdin"}, {Answers({{"first", "#> "}, {"second\tline", "#> "}})}, 5,
         "#> first\n#> second\tline\n", "Error: stdin:6: line longer than 4000 bytes\n", clean + tooLong},
        {"script: empty, nothing connected", {"--stdin"}, {}, 0, ""},
        {"script: not a regular file", {"--file", "/dev/null"}, {}, 5, "", "Error: cannot open /dev/null: not a regular file.\n"},
        {"usage", {}, {}, 255, "", "Error: no command.\n"},
        {"usage", {"--bogus", "a"}, {}, 255, "", "Error: unknown option '--bogus'.\n"},
        {"usage", {"--timeout=3601", "a"}, {}, 255, "", "Error: bad --timeout value '3601' (whole seconds, 1 to 3600).\n"},
        {"usage", {"--retries=-2", "a"}, {}, 255, "", "Error: bad --retries value '-2' (-1, or 0 to 86400).\n"},
        {"usage", {"--server=10.0.0.256", "a"}, {}, 255, "", "Error: bad IPv4 address '10.0.0.256'.\n"},
        {"usage", {"--server=127.0.0.1:0", "a"}, {}, 255, "", "Error: bad port '0' (1 to 65535).\n"},
        {"usage", {"--server=[::1", "a"}, {}, 255, "", "Error: expected [IPv6 address]:port.\n"},
        {"usage", {"--stdin", "--file", "x"}, {}, 255, "", "Error: --stdin and --file exclude each other.\n"},
        {"usage", {"--stdin", "a"}, {}, 255, "", "Error: commands come from arguments, --stdin or --file.\n"},
        {"usage", {"--file"}, {}, 255, "", "Error: --file needs a file name.\n"},
        {"usage", {""}, {}, 255, "", "Error: command 1 is empty.\n"},
        {"usage", {"a", "b\rc"}, {}, 255, "", "Error: command 2 holds a line break.\n"},
        {"usage", {"a", tooLong}, {}, 255, "", "Error: command 2 is longer than 4000 bytes.\n"},
    };
    const std::string usage = "Usage: " VTEST_BINARY " exec [options] (<command>)+ | --stdin | --file <file>\n";
    std::vector<std::thread> threads;
    for (const Row& row : rows)
        threads.emplace_back([&row, &usage] {
            ScriptedServer server(row.scripts);
            const std::string at = AddrText(server.Addr()), label = row.label + (" " + row.errors);
            std::vector<std::string> args = {"exec", "--server=" + at};
            args.insert(args.end(), row.args.begin(), row.args.end());
            RunResult r = RunVtest(args, row.input);
            std::string err = row.errors;
            for (size_t i; (i = err.find('@')) != std::string::npos;) err.replace(i, 1, at);
            EXPECT_EQ(row.status, r.status) << label << "\n" << r.err;
            EXPECT_EQ(row.out, r.out) << label;
            EXPECT_EQ(err + (row.status == 255 ? usage : ""), OperatorErrors(r.err)) << label;
        });
    for (std::thread& t : threads) t.join();
    unlink(script.c_str()), rmdir(dir.c_str());
}

// End-of-file behind a prompt is the daemon closing between commands: the next one connects again.
// Standard input is streamed, so the close has surely come before the next line is written.
TEST(Exec, StreamsStandardInputAndReconnectsWhenTheDaemonClosedBetweenCommands)
{
    ScriptedServer server({Answers({{"a", "1\n#> "}}, true), Answers({{"b", "2\n#> "}})});
    ChildProcess child(TargetArgv(VTEST_BINARY, {"exec", "--server=" + AddrText(server.Addr()), "--stdin"}));
    ASSERT_TRUE(child.Write("a\n") && child.WaitForOutput("#> a\n1\n", 5000));
    EXPECT_TRUE(WaitUntil([&] { return server.ScriptsDone() == 1; }, ScaledMs(5000)));
    ASSERT_TRUE(child.Write("b\n") && child.WaitForOutput("#> a\n1\n#> b\n2\n", 5000));
    child.CloseInput();
    EXPECT_EQ(0, child.Wait(5000));
}

// The default port and the forms not shared with mail, in a network namespace where 3543 is free.
TEST(Exec, EveryServerForm)
{
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNET); !why.empty()) GTEST_SKIP() << why;
    const std::string dir = MakeTempDir(), path = dir + "/channel";
    EXPECT_EQ(0, RunInNamespaces(CLONE_NEWNET, [&path] {  // a bit per form that failed, the default first
        const Script answer = Answers({{"x", "ok\n#> "}}, true);
        sockaddr_un un = {AF_UNIX, {}};
        snprintf(un.sun_path, sizeof un.sun_path, "%s", path.c_str());
        ScriptedServer s4({answer, answer}, SockAddr(AF_INET, 0x7F000001u, 3543)), su({answer}, SockAddr(un));
        ScriptedServer s6({answer, answer}, SockAddr(AF_INET6, &in6addr_loopback, 3543));
        std::vector<std::string> forms = {"localhost", path};
        if (s6.Failures().empty()) forms.insert(forms.end(), {"::1", "[::1]"});  // else no IPv6 here
        int failed = RunVtest({"exec", "x"}).out != "ok\n";
        for (size_t i = 0; i < forms.size(); i++)
            failed |= (RunVtest({"exec", "--server=" + forms[i], "x"}).out != "ok\n") << (i + 1);
        return failed;
    }));
    rmdir(dir.c_str());
}

// The simulated unit's own greeting, prompt and error lines, as the scripted peers above play them; the sleep cut
// by the time-out is still running when the simulator stops, and ends at once.
TEST(Exec, AgainstTheSimulatedUnit)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    RunResult r = RunVtest({"exec", "--server=" + sim.Address(), "--keep-going", "--timeout=1", "echo #> x", "nope",
                            "sleep 3000", "quit"});
    EXPECT_EQ(1, r.status) << r.err;
    EXPECT_EQ("#> echo #> x\n#> x\n#> nope\nError: Unknown command 'nope'.\n#> sleep 3000\n#> quit\nBye.\n", r.out);
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

}  // namespace
