// vtest exec end to end: against the scripted peer for exact bytes and
// every exit status, and against the simulated unit.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sched.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "process.h"
#include "scripted_server.h"
#include "sim_runner.h"
#include "wait.h"

namespace {

std::string AddrText(const SockAddr& addr)
{
    char text[SockAddr::m_strLen];
    return addr.Str(text, true);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) text.replace(at, from.size(), to);
    return text;
}

// The lines of standard error that begin "Error: " (the library logs its
// own lines there too).
std::string ErrorLines(const std::string& err)
{
    std::string lines;
    for (size_t at = 0, end; (end = err.find('\n', at)) != std::string::npos; at = end + 1)
        if (err.compare(at, 7, "Error: ") == 0) lines += err.substr(at, end + 1 - at);
    return lines;
}

// A connection that sends the greeting and then answers each command in turn.
Script Answers(const std::vector<std::pair<std::string, std::string>>& exchanges, bool close = false)
{
    Script script = {Send("vantor\r\n#> ")};
    for (const auto& [command, answer] : exchanges) {
        script.push_back(Expect(command + "\n"));
        script.push_back(Send(answer));
    }
    if (close) script.push_back(Close());
    return script;
}

RunResult ExecAgainst(const SockAddr& server, std::vector<std::string> args, const std::string& input = "")
{
    args.insert(args.begin(), {"exec", "--server=" + AddrText(server)});
    return RunVtest(args, input);
}

// Each row runs on its own thread against its own peer (the time-outs wait
// in parallel). Errors: the "Error: " lines, "@" for the server.
TEST(Exec, PrintsOutputsAndEndsWithTheFirstFailuresStatus)
{
    const std::string l(5000, 'l');
    struct Row {
        const char* label;
        std::vector<std::string> args;
        std::vector<Script> scripts;
        int status;
        std::string out, errors;
        std::vector<std::string> sent;  // per connection
    } rows[] = {
        {"one command: no header", {"version"}, {Answers({{"version", "1.0\r\n#> "}})}, 0, "1.0\n", "", {"version\n"}},
        {"CR LF, CR, pieces of a long line", {"a", "b"}, {Answers({{"a", "x\r\ny\r\r\n" + l + "\n#> "}, {"b", "#> "}})}, 0,
         "#> a\nx\ny\n\n" + l + "\n#> b\n", "", {"a\nb\n"}},
        {"--no-echo; -- ends the options", {"--no-echo", "--", "--x", "b"}, {Answers({{"--x", "1\n#> "}, {"b", "2\n#> "}})},
         0, "1\n2\n", "", {"--x\nb\n"}},
        {"--echo with one command", {"--echo", "a"}, {Answers({{"a", "1\n#> "}})}, 0, "#> a\n1\n", "", {"a\n"}},
        {"an error line fails the command and stops the run", {"a", "b"}, {Answers({{"a", "ok\nError: no\n#> "}})}, 1,
         "#> a\nok\nError: no\n", "Error: 'a' failed on @.\n", {"a\n"}},
        {"--keep-going: all run, the first failure counts", {"--keep-going", "a", "b", "c"},
         {Answers({{"a", "fine\n#> "}, {"b", "Error: x\n#> "}, {"c", "Error: y\n#> "}})}, 1,
         "#> a\nfine\n#> b\nError: x\n#> c\nError: y\n", "Error: 'b' failed on @.\nError: 'c' failed on @.\n", {"a\nb\nc\n"}},
        {"another error prefix", {"--error-prefix=FAIL", "a", "b"}, {Answers({{"a", "Error: no\n#> "}, {"b", "FAILED\n#> "}})},
         1, "#> a\nError: no\n#> b\nFAILED\n", "Error: 'b' failed on @.\n", {"a\nb\n"}},
        {"an empty error prefix", {"--error-prefix=", "a"}, {Answers({{"a", "Error: x\n#> "}})}, 0, "Error: x\n", "", {"a\n"}},
        {"an output line starting with the prompt text", {"a", "b"},
         {Answers({{"a", "#> hello\nmore\n#> "}, {"b", "ok\n#> "}})}, 0, "#> a\n#> hello\nmore\n#> b\nok\n", "", {"a\nb\n"}},
        {"a greeting line starting with the prompt text", {"a"}, {{Send("#> welcome\n#> "), Expect("a\n"), Send("1\n#> ")}},
         0, "1\n", "", {"a\n"}},
        {"closed during the output: 4, the cut line printed", {"a", "b"}, {Answers({{"a", "x\npar"}}, true)}, 4,
         "#> a\nx\npar\n", "Error: connection to @ closed during 'a'.\n", {"a\n"}},
        {"time-out during the output: 3", {"--timeout=1", "a"}, {Answers({{"a", "x\npar"}})}, 3, "x\npar\n",
         "Error: no answer from @ to 'a' within 1 s.\n", {"a\n"}},
        {"--keep-going after a cut: never sent again, the next reconnects", {"--keep-going", "a", "b"},
         {Answers({{"a", "p"}}, true), Answers({{"b", "2\n#> "}})}, 4, "#> a\np\n#> b\n2\n",
         "Error: connection to @ closed during 'a'.\n", {"a\n", "b\n"}},
        {"closed before the first prompt: 2", {"a"}, {{Send("Hi\n"), Close()}}, 2, "",
         "Error: cannot connect to @: closed before the prompt.\n", {""}},
        {"silent before the first prompt: 2", {"--timeout=1", "a"}, {{Send("Hi\n")}}, 2, "",
         "Error: cannot connect to @: no answer within 1 s.\n", {""}},
        {"--retries: more attempts a second apart", {"--retries=1", "a"}, {{Send("x"), Close()}, {Send("y"), Close()}}, 2,
         "", "Error: cannot connect to @: closed before the prompt (2 attempts).\n", {"", ""}},
    };
    std::vector<std::thread> threads;
    for (const Row& row : rows)
        threads.emplace_back([&row] {
            ScriptedServer server(row.scripts);
            RunResult r = ExecAgainst(server.Addr(), row.args);
            EXPECT_EQ(row.status, r.status) << row.label << "\n" << r.err;
            EXPECT_EQ(row.out, r.out) << row.label;
            EXPECT_EQ(Replaced(row.errors, "@", AddrText(server.Addr())), ErrorLines(r.err)) << row.label;
            EXPECT_TRUE(server.WaitScriptsDone(ScaledMs(5000))) << row.label;
            EXPECT_EQ(row.sent.size(), static_cast<size_t>(server.Accepted())) << row.label;
            for (size_t i = 0; i < row.sent.size(); i++) EXPECT_EQ(row.sent[i], server.Received(i)) << row.label;
        });
    for (std::thread& t : threads) t.join();
}

// End-of-file right behind a prompt is the daemon closing between
// commands: the next command connects again. Standard input is streamed,
// so the close has surely come before the next line is written.
TEST(Exec, StreamsStandardInputAndReconnectsWhenTheDaemonClosedBetweenCommands)
{
    ScriptedServer server({Answers({{"a", "1\n#> "}}, true), Answers({{"b", "2\n#> "}})});
    ChildProcess child(TargetArgv(VTEST_BINARY, {"exec", "--server=" + AddrText(server.Addr()), "--stdin"}));
    ASSERT_TRUE(child.Write("a\n"));
    EXPECT_TRUE(child.WaitForOutput("#> a\n1\n", 5000));
    EXPECT_TRUE(WaitUntil([&] { return server.ScriptsDone() == 1; }, ScaledMs(5000)));
    ASSERT_TRUE(child.Write("b\n"));
    EXPECT_TRUE(child.WaitForOutput("#> a\n1\n#> b\n2\n", 5000));
    child.CloseInput();
    EXPECT_EQ(0, child.Wait(5000));
    EXPECT_EQ(2, server.Accepted());
}

TEST(Exec, ScriptLinesAreCutSkippedOrRefused)
{
    const std::string dir = MakeTempDir(), path = dir + "/script";
    const std::string clean = "\xef\xbb\xbf  first  \r\n\n# comment\n\t# indented\nsecond\tline\t\n", tooLong(4001, 'x');
    struct Row {
        const char* label;
        std::string content;  // of the file, or standard input with --stdin
        std::vector<std::string> args;
        int status;
        std::string sent, error;  // error: "@" for the script's path
    } rows[] = {
        {"byte-order mark, CR LF, blanks, comments", clean + "third", {"--file", path}, 0, "first\nsecond\tline\nthird\n", ""},
        {"a long line stops the run", clean + tooLong + "\nthird\n", {"--file=" + path}, 5, "first\nsecond\tline\n",
         "Error: @:6: line longer than 4000 bytes\n"},
        {"a NUL byte", std::string("a\nb\0c\n", 6), {"--file", path}, 5, "a\n", "Error: @:2: line holds a NUL byte\n"},
        {"a lone carriage return", "a\rb\n", {"--file", path}, 5, "", "Error: @:1: line holds a lone carriage return\n"},
        {"standard input", clean + tooLong, {"--stdin"}, 5, "first\nsecond\tline\n", "Error: stdin:6: line longer than 4000 bytes\n"},
        {"an empty script connects to nothing", "", {"--file", path}, 0, "", ""},
        {"a directory", "", {"--file", dir}, 5, "", "Error: cannot open " + dir + ": Is a directory.\n"},
    };
    for (const Row& row : rows) {
        std::vector<std::pair<std::string, std::string>> exchanges;
        for (size_t at = 0, end; (end = row.sent.find('\n', at)) != std::string::npos; at = end + 1)
            exchanges.push_back({row.sent.substr(at, end - at), "#> "});
        ScriptedServer server({Answers(exchanges)});
        bool fromStdin = row.args[0] == "--stdin";
        if (!fromStdin) std::ofstream(path, std::ios::binary) << row.content;
        RunResult r = ExecAgainst(server.Addr(), row.args, fromStdin ? row.content : "");
        EXPECT_EQ(row.status, r.status) << row.label << "\n" << r.err;
        EXPECT_EQ(row.sent, server.Received(0)) << row.label;
        EXPECT_EQ(row.sent.empty() ? 0 : 1, server.Accepted()) << row.label;
        EXPECT_EQ(Replaced(row.error, "@", path), ErrorLines(r.err)) << row.label;
    }
    unlink(path.c_str());
    rmdir(dir.c_str());
}

TEST(Exec, UsageErrorsConnectToNothing)
{
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        {{}, "no command"},
        {{"--bogus", "a"}, "unknown option '--bogus'"},
        {{"--timeout=3601", "a"}, "bad --timeout value '3601' (whole seconds, 1 to 3600)"},
        {{"--retries=-2", "a"}, "bad --retries value '-2' (-1, or 0 to 86400)"},
        {{"--server=10.0.0.256", "a"}, "bad IPv4 address '10.0.0.256'"},
        {{"--server=127.0.0.1:0", "a"}, "bad port '0' (1 to 65535)"},
        {{"--server=[::1", "a"}, "expected [IPv6 address]:port"},
        {{"--stdin", "--file", "x"}, "--stdin and --file exclude each other"},
        {{"--stdin", "a"}, "commands come from arguments, --stdin or --file"},
        {{"--file"}, "--file needs a file name"},
        {{""}, "command 1 is empty"},
        {{"a", "b\rc"}, "command 2 holds a line break"},
        {{"a", std::string(4001, 'x')}, "command 2 is longer than 4000 bytes"},
    };
    ScriptedServer server({});
    for (const auto& [args, reason] : rows) {
        RunResult r = ExecAgainst(server.Addr(), args);
        EXPECT_EQ(255, r.status) << reason;
        const std::string text = "Error: " + reason + ".\nUsage: " VTEST_BINARY
                                 " exec [options] (<command>)+ | --stdin | --file <file>\n";
        EXPECT_EQ(text, r.err.substr(r.err.size() - std::min(r.err.size(), text.size()))) << reason;
    }
    EXPECT_EQ(0, server.Accepted());
}

// The default port and every address form, in a network namespace of the
// test's own where port 3543 is free.
TEST(Exec, EveryServerForm)
{
    std::string why = NamespacesUnavailableReason(CLONE_NEWNET);
    if (!why.empty()) GTEST_SKIP() << why;
    const std::string dir = MakeTempDir();
    EXPECT_EQ(0, RunInNamespaces(CLONE_NEWNET, [&dir] {
        sockaddr_in6 in6 = {AF_INET6, htons(3543), 0, in6addr_loopback, 0};
        sockaddr_un un = {AF_UNIX, {}};
        snprintf(un.sun_path, sizeof un.sun_path, "%s/channel", dir.c_str());
        const std::vector<std::string> v4 = {"", "127.0.0.1", "localhost", "localhost:3543"};
        const std::vector<std::string> v6 = {"::1", "::1|3543", "[::1]:3543", "[::1]"};
        const Script answer = Answers({{"x", "ok\n#> "}}, true);
        ScriptedServer s4(std::vector<Script>(v4.size(), answer), SockAddr(AF_INET, 0x7F000001u, 3543));
        ScriptedServer s6(std::vector<Script>(v6.size(), answer), SockAddr(in6));
        ScriptedServer su({answer}, SockAddr(un));
        std::vector<std::string> forms = v4;
        if (s6.Failures().empty()) forms.insert(forms.end(), v6.begin(), v6.end());  // else no IPv6 here
        forms.push_back(un.sun_path);
        int failed = 0;
        for (const std::string& form : forms) {
            RunResult r = RunVtest(form.empty() ? std::vector<std::string>{"exec", "x"}
                                                : std::vector<std::string>{"exec", "--server=" + form, "x"});
            if (r.status == 0 && r.out == "ok\n") continue;
            fprintf(stderr, "--server=%s: status %d, %s\n", form.c_str(), r.status, r.err.c_str());
            failed++;
        }
        return failed;
    }));
    rmdir(dir.c_str());
}

TEST(Exec, AgainstTheSimulatedUnit)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string out;
    } rows[] = {
        {{"echo #> x", "echo y"}, 0, "#> echo #> x\n#> x\n#> echo y\ny\n"},
        {{"nope", "echo z"}, 1, "#> nope\nError: Unknown command 'nope'.\n"},
        {{"--timeout=1", "sleep 3000"}, 3, ""},
        {{"quit"}, 4, "Bye.\n"},
    };
    for (const Row& row : rows) {
        RunResult r = ExecAgainst(SockAddr(AF_INET, 0x7F000001u, sim.Port()), row.args);
        EXPECT_EQ(row.status, r.status) << row.args[0] << r.err;
        EXPECT_EQ(row.out, r.out) << row.args[0];
    }
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

}  // namespace
