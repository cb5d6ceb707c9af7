// vtest exec end to end: against the scripted peer for exact bytes and
// every exit status, and against the simulated unit.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
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

const std::string kGreeting = "vantor\r\n#> ";
const char kSynopsis[] = " exec [options] (<command>)+ | --stdin | --file <file>\n";

std::string AddrText(const SockAddr& addr)
{
    char text[SockAddr::m_strLen];
    return addr.Str(text, true);
}

// The lines of standard error that begin "Error: " (the library's log
// lines are not the command's), "@" replaced by `server`.
std::vector<std::string> ErrorLines(const std::string& err)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = err.find('\n', at)) != std::string::npos; at = end + 1)
        if (err.compare(at, 7, "Error: ") == 0) lines.push_back(err.substr(at, end - at));
    return lines;
}

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) text.replace(at, from.size(), to);
    return text;
}

std::vector<std::string> WithServer(std::vector<std::string> lines, const std::string& server)
{
    for (std::string& line : lines) line = Replaced(line, "@", server);
    return lines;
}

// A connection that answers each command in turn: greeting, then for every
// (command, answer) the command expected and the answer sent.
Script Answers(const std::vector<std::pair<std::string, std::string>>& exchanges, bool close = false)
{
    Script script = {Send(kGreeting)};
    for (const auto& [command, answer] : exchanges) {
        script.push_back(Expect(command + "\n"));
        script.push_back(Send(answer));
    }
    if (close) script.push_back(Close());
    return script;
}

RunResult ExecAgainst(const ScriptedServer& server, std::vector<std::string> args, const std::string& input = "")
{
    args.insert(args.begin(), {"exec", "--server=" + AddrText(server.Addr())});
    return RunVtest(args, input);
}

// Each row runs on its own thread against its own peer (the time-outs wait
// in parallel).
TEST(Exec, PrintsOutputsAndEndsWithTheFirstFailuresStatus)
{
    const std::string longLine(5000, 'l');
    struct Row {
        const char* label;
        std::vector<std::string> args;
        std::vector<Script> scripts;
        int status;
        std::string out;
        std::vector<std::string> errors;
        std::vector<std::string> sent;  // per connection
    } rows[] = {
        {"one command: no header", {"version"}, {Answers({{"version", "1.0\r\n#> "}})}, 0, "1.0\n", {}, {"version\n"}},
        {"CR LF, CR and pieces of a long line",
         {"a", "b"},
         {Answers({{"a", "x\r\ny\r\r\n" + longLine + "\n#> "}, {"b", "#> "}})},
         0, "#> a\nx\ny\n\n" + longLine + "\n#> b\n", {}, {"a\nb\n"}},
        {"--no-echo; -- ends the options", {"--no-echo", "--", "--x", "b"}, {Answers({{"--x", "1\n#> "}, {"b", "2\n#> "}})},
         0, "1\n2\n", {}, {"--x\nb\n"}},
        {"--echo with one command", {"--echo", "a"}, {Answers({{"a", "1\n#> "}})}, 0, "#> a\n1\n", {}, {"a\n"}},
        {"an error line fails the command and stops the run", {"a", "b"}, {Answers({{"a", "ok\nError: no\n#> "}})}, 1,
         "#> a\nok\nError: no\n", {"Error: 'a' failed on @."}, {"a\n"}},
        {"--keep-going runs the rest, the first failure counts",
         {"--keep-going", "a", "b", "c"},
         {Answers({{"a", "fine\n#> "}, {"b", "Error: x\n#> "}, {"c", "Error: y\n#> "}})},
         1, "#> a\nfine\n#> b\nError: x\n#> c\nError: y\n", {"Error: 'b' failed on @.", "Error: 'c' failed on @."},
         {"a\nb\nc\n"}},
        {"another error prefix", {"--error-prefix=FAIL", "a", "b"}, {Answers({{"a", "Error: no\n#> "}, {"b", "FAILED\n#> "}})},
         1, "#> a\nError: no\n#> b\nFAILED\n", {"Error: 'b' failed on @."}, {"a\nb\n"}},
        {"an empty error prefix checks nothing", {"--error-prefix=", "a"}, {Answers({{"a", "Error: x\n#> "}})}, 0,
         "Error: x\n", {}, {"a\n"}},
        {"an output line starting with the prompt text", {"a", "b"},
         {Answers({{"a", "#> hello\nmore\n#> "}, {"b", "ok\n#> "}})}, 0, "#> a\n#> hello\nmore\n#> b\nok\n", {},
         {"a\nb\n"}},
        {"a greeting line starting with the prompt text", {"a"}, {{Send("#> welcome\n#> "), Expect("a\n"), Send("1\n#> ")}},
         0, "1\n", {}, {"a\n"}},
        {"closed during the output: 4, the cut line printed", {"a", "b"}, {Answers({{"a", "x\npar"}}, true)}, 4,
         "#> a\nx\npar\n", {"Error: connection to @ closed during 'a'."}, {"a\n"}},
        {"closed after a whole line, as quit does", {"quit"}, {Answers({{"quit", "Bye.\n"}}, true)}, 4, "Bye.\n",
         {"Error: connection to @ closed during 'quit'."}, {"quit\n"}},
        {"time-out during the output: 3", {"--timeout=1", "a"}, {Answers({{"a", "x\npar"}})}, 3, "x\npar\n",
         {"Error: no answer from @ to 'a' within 1 s."}, {"a\n"}},
        {"--keep-going after a cut: never sent again, the next reconnects", {"--keep-going", "a", "b"},
         {Answers({{"a", "p"}}, true), Answers({{"b", "2\n#> "}})}, 4, "#> a\np\n#> b\n2\n",
         {"Error: connection to @ closed during 'a'."}, {"a\n", "b\n"}},
        {"closed before the first prompt: 2", {"a"}, {{Send("Hi\n"), Close()}}, 2, "",
         {"Error: cannot connect to @: closed before the prompt."}, {""}},
        {"silent before the first prompt: 2", {"--timeout=1", "a"}, {{Send("Hi\n")}}, 2, "",
         {"Error: cannot connect to @: no answer within 1 s."}, {""}},
        {"--retries: more attempts a second apart", {"--retries=1", "a"}, {{Send("x"), Close()}, {Send("y"), Close()}}, 2, "",
         {"Error: cannot connect to @: closed before the prompt (2 attempts)."}, {"", ""}},
    };
    std::vector<std::thread> threads;
    for (const Row& row : rows)
        threads.emplace_back([&row] {
            ScriptedServer server(row.scripts);
            RunResult r = ExecAgainst(server, row.args);
            EXPECT_EQ(row.status, r.status) << row.label << "\n" << r.err;
            EXPECT_EQ(row.out, r.out) << row.label;
            EXPECT_EQ(WithServer(row.errors, AddrText(server.Addr())), ErrorLines(r.err)) << row.label;
            EXPECT_TRUE(server.WaitScriptsDone(ScaledMs(5000))) << row.label;
            for (size_t i = 0; i < row.sent.size(); i++) EXPECT_EQ(row.sent[i], server.Received(i)) << row.label;
            EXPECT_EQ(row.sent.size(), static_cast<size_t>(server.Accepted())) << row.label;
            EXPECT_TRUE(server.Failures().empty()) << row.label;
        });
    for (std::thread& t : threads) t.join();
}

// End-of-file right behind a prompt is the daemon closing between
// commands: the next command connects again. Standard input is streamed,
// so the close has surely come before the next line is written.
TEST(Exec, ReconnectsWhenTheDaemonClosedBetweenCommands)
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
    EXPECT_TRUE(server.Failures().empty());
}

TEST(Exec, ScriptLinesFromAFileOrStreamedFromStandardInput)
{
    const std::string dir = MakeTempDir();
    const std::string path = dir + "/script";
    const std::string clean = "\xef\xbb\xbf  first  \r\n\n# comment\n\t# indented\nsecond\tline\t\n";
    struct Row {
        const char* label;
        std::string content;  // of the file, or standard input with --stdin
        std::vector<std::string> args;
        int status;
        std::vector<std::string> sent;
        std::string error;  // "@file" and "@dir" for the script's path and directory
    } rows[] = {
        {"byte-order mark, CR LF, blanks, comments", clean + "third", {"--file", path}, 0, {"first", "second\tline", "third"}, ""},
        {"a long line stops the run", clean + std::string(4001, 'x') + "\nthird\n", {"--file=" + path}, 5,
         {"first", "second\tline"}, "Error: @file:6: line longer than 4000 bytes"},
        {"--keep-going goes past it", clean + std::string(4001, 'x') + "\nthird\n", {"--keep-going", "--file", path}, 5,
         {"first", "second\tline", "third"}, "Error: @file:6: line longer than 4000 bytes"},
        {"a NUL byte", std::string("a\nb\0c\nd\n", 8), {"--file", path}, 5, {"a"}, "Error: @file:2: line holds a NUL byte"},
        {"a lone carriage return", "a\rb\n", {"--file", path}, 5, {}, "Error: @file:1: line holds a lone carriage return"},
        {"standard input", clean + std::string(4001, 'x'), {"--stdin"}, 5, {"first", "second\tline"},
         "Error: stdin:6: line longer than 4000 bytes"},
        {"an empty script connects to nothing", "", {"--file", path}, 0, {}, ""},
        {"a file that is not there", "", {"--file", dir + "/none"}, 5, {}, "Error: cannot open @dir/none: No such file or directory."},
        {"a directory", "", {"--file", dir}, 5, {}, "Error: cannot open @dir: Is a directory."},
    };
    for (const Row& row : rows) {
        std::vector<std::pair<std::string, std::string>> exchanges;
        for (const std::string& command : row.sent) exchanges.push_back({command, "#> "});
        ScriptedServer server({Answers(exchanges)});
        bool fromStdin = row.args[0] == "--stdin";
        if (!fromStdin) std::ofstream(path, std::ios::binary) << row.content;
        RunResult r = ExecAgainst(server, row.args, fromStdin ? row.content : "");
        EXPECT_EQ(row.status, r.status) << row.label << "\n" << r.err;
        std::string sent;
        for (const std::string& command : row.sent) sent += command + "\n";
        EXPECT_EQ(sent, server.Received(0)) << row.label;
        EXPECT_EQ(row.sent.empty() ? 0 : 1, server.Accepted()) << row.label;
        const std::string error = Replaced(Replaced(row.error, "@file", path), "@dir", dir);
        EXPECT_EQ(row.error.empty() ? std::vector<std::string>{} : std::vector<std::string>{error}, ErrorLines(r.err))
            << row.label;
    }
    unlink(path.c_str());
    rmdir(dir.c_str());
}

TEST(Exec, UsageErrorsConnectToNothing)
{
    struct Row {
        std::vector<std::string> args;
        std::string reason;
    } rows[] = {
        {{}, "no command"},
        {{"--bogus", "a"}, "unknown option '--bogus'"},
        {{"--timeout=0", "a"}, "bad --timeout value '0' (whole seconds, 1 to 3600)"},
        {{"--timeout=3601", "a"}, "bad --timeout value '3601' (whole seconds, 1 to 3600)"},
        {{"--retries=-2", "a"}, "bad --retries value '-2' (-1, or 0 to 86400)"},
        {{"--server=10.0.0.256", "a"}, "bad IPv4 address '10.0.0.256'"},
        {{"--server=127.0.0.1:0", "a"}, "bad port '0' (1 to 65535)"},
        {{"--server=127.0.0.1:65536", "a"}, "bad port '65536' (1 to 65535)"},
        {{"--server=[::1", "a"}, "expected [IPv6 address]:port"},
        {{"--server=/" + std::string(108, 'u'), "a"}, "Unix socket path longer than 107 bytes"},
        {{"--stdin", "--file", "x"}, "--stdin and --file exclude each other"},
        {{"--stdin", "a"}, "commands come from arguments, --stdin or --file"},
        {{"--file"}, "--file needs a file name"},
        {{""}, "command 1 is empty"},
        {{"a", "b\nc"}, "command 2 holds a line break"},
        {{"a", "b\rc"}, "command 2 holds a line break"},
        {{"a", std::string(4001, 'x')}, "command 2 is longer than 4000 bytes"},
    };
    ScriptedServer server({});
    for (const Row& row : rows) {
        std::vector<std::string> args = row.args;
        args.insert(args.begin(), "--server=" + AddrText(server.Addr()));
        RunResult r = RunVtest([&] { args.insert(args.begin(), "exec"); return args; }());
        EXPECT_EQ(255, r.status) << row.reason;
        const std::string head = "Error: " + row.reason + ".\nUsage: ";
        EXPECT_EQ(head, r.err.substr(0, head.size())) << row.reason;
        EXPECT_EQ(kSynopsis, r.err.substr(r.err.size() - std::min(r.err.size(), strlen(kSynopsis)))) << row.reason;
        EXPECT_EQ("", r.out) << row.reason;
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
    int failed = RunInNamespaces(CLONE_NEWNET, [&dir] {
        sockaddr_in6 in6 = {};
        in6.sin6_family = AF_INET6;
        in6.sin6_addr = in6addr_loopback;
        in6.sin6_port = htons(3543);
        sockaddr_un un = {};
        un.sun_family = AF_UNIX;
        snprintf(un.sun_path, sizeof un.sun_path, "%s/channel", dir.c_str());
        const std::vector<std::string> v4 = {"", "127.0.0.1", "localhost", "localhost:3543"};
        const std::vector<std::string> v6 = {"::1", "::1|3543", "[::1]:3543", "[::1]"};
        ScriptedServer s4(std::vector<Script>(v4.size(), Answers({{"x", "ok\n#> "}}, true)),
                          SockAddr(AF_INET, 0x7F000001u, 3543));
        ScriptedServer s6(std::vector<Script>(v6.size(), Answers({{"x", "ok\n#> "}}, true)), SockAddr(in6));
        ScriptedServer su({Answers({{"x", "ok\n#> "}}, true)}, SockAddr(un));
        int bad = 0;
        auto run = [&bad](const std::string& form) {
            std::vector<std::string> args = {"exec", "x"};
            if (!form.empty()) args.insert(args.begin() + 1, "--server=" + form);
            RunResult r = RunVtest(args);
            if (r.status == 0 && r.out == "ok\n") return;
            fprintf(stderr, "--server=%s: status %d, %s\n", form.c_str(), r.status, r.err.c_str());
            bad++;
        };
        for (const std::string& form : v4) run(form);
        if (s6.Failures().empty()) for (const std::string& form : v6) run(form);  // no IPv6 here: skipped
        run(un.sun_path);
        return bad;
    });
    rmdir(dir.c_str());
    EXPECT_EQ(0, failed);
}

TEST(Exec, RetriesUntilThePortOpens)
{
    const SockAddr addr = RefusedAddr();
    RunResult r;
    std::thread client([&] { r = RunVtest({"exec", "--retries=5", "--server=" + AddrText(addr), "a"}); });
    usleep(static_cast<useconds_t>(ScaledMs(1200)) * 1000);  // an attempt or two are refused first
    ScriptedServer server({Answers({{"a", "up\n#> "}})}, addr);
    client.join();
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("up\n", r.out);
    EXPECT_EQ(1, server.Accepted());
}

TEST(Exec, AgainstTheSimulatedUnit)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    const std::string server = "--server=" + sim.Address();
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string out;  // ending in "*": only this start
    } rows[] = {
        {{"version"}, 0, "vantor-sim *"},
        {{"echo #> x", "echo y"}, 0, "#> echo #> x\n#> x\n#> echo y\ny\n"},
        {{"nope", "echo z"}, 1, "#> nope\nError: Unknown command 'nope'.\n"},
        {{"--timeout=1", "sleep 3000"}, 3, ""},
        {{"quit"}, 4, "Bye.\n"},
        {{"--no-echo", "serial set 02:a0:7c:00:05:01 12", "serial enum"}, 0,
         "Central 02:a0:7c:00:05:01 address none -> 12.\n/dev/ttyS1\n*"},
    };
    for (const Row& row : rows) {
        std::vector<std::string> args = row.args;
        args.insert(args.begin(), {"exec", server});
        RunResult r = RunVtest(args);
        EXPECT_EQ(row.status, r.status) << row.args[0] << "\n" << r.err;
        bool prefix = !row.out.empty() && row.out.back() == '*';
        EXPECT_EQ(prefix ? row.out.substr(0, row.out.size() - 1) : row.out, prefix ? r.out.substr(0, row.out.size() - 1) : r.out)
            << row.args[0];
    }
    // Standard input is streamed: each line runs before the next is written.
    ChildProcess child(TargetArgv(VTEST_BINARY, {"exec", server, "--no-echo", "--stdin"}));
    ASSERT_TRUE(child.Write("echo one\n"));
    EXPECT_TRUE(child.WaitForOutput("one\n", 5000));
    ASSERT_TRUE(child.Write("\n# skipped\necho two\n"));
    EXPECT_TRUE(child.WaitForOutput("one\ntwo\n", 5000));
    child.CloseInput();
    EXPECT_EQ(0, child.Wait(5000));
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

}  // namespace
