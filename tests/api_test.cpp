// The command channel client against the byte-exact scripted peer: lines, closes, silence, copies, refusals.
#include <gtest/gtest.h>

#include <list>
#include <thread>

#include "Api.h"
#include "Sock.h"
#include "scripted_server.h"

namespace {

// A call's result, the error it left and the lines HandleOutput got (each with its end, then "|"), as one text.
std::string Ran(bool ok, int error, const std::string& lines = "")
{
    return std::string(ok ? "true " : "false ") + std::to_string(error) + ": " + lines;
}

// Waits at most 10 s.
class Recorder : public Api {
public:
    explicit Recorder(const SockAddr& server) : Api(server, strPrompt) { Timeout(10); }
    void HandleOutput(const char* out) override { seen += out + std::string(!!LastLineEnd(), LastLineEnd()) + "|"; }
    std::string Run(const char* cmd)
    {
        seen.clear();
        const bool ok = Exec(cmd);
        return Ran(ok, LastError(), seen);
    }
    char after[16] = "untouched";  // right behind Api's own line buffer (its last member): an overrun shows here
    std::string seen;
};

// Lines of every shape, and long ones (of the greeting too) in pieces of kLineLen - 1 bytes, so that each
// piece's NUL stays inside the buffer.
TEST(Api, SendsCommandsAndCutsOutputIntoLines)
{
    struct Row { std::string label, greeting, answer, lines; int pending = 0; };
    std::vector<Row> rows = {
        {"greeting lines of every shape", "Welcome\r\nx\n\n#>x\n#> ", "1.0\n#> ", "1.0\n|"},
        {"CR LF gives a line and an empty one", "#> ", "a\r\nb\r\n#> ", "a\r|\n|b\r|\n|"},
        {"a line starting with the prompt text ends the output", "#> ", "#> hello\n#> ", "", 9},
        {"plus signs are text, not checksums", "#> ", "abc+0214 hi\n+0214 hi\n#> ", "abc+0214 hi\n|+0214 hi\n|"},
        {"vertical tabs dropped after the prompt-length start", "#> ", "a\vbc\vd\n#> ", "a\vbcd\n|"},
        {"a NUL ends the line's text", "#> ", std::string("ab\0cd\n#> ", 9), "ab\n|"},
    };
    const size_t piece = Api::kLineLen - 1;
    for (size_t n : {3998, 3999, 4000, 4001, 7995, 7996, 10000}) {
        std::string line, pieces;
        for (size_t i = 0; i < n; i++) line += static_cast<char>('a' + i % 26);
        for (size_t at = 0; at <= n; at += piece) pieces += line.substr(at, piece) + (at + piece > n ? "\n|" : "|");
        rows.push_back({"a line of " + std::to_string(n) + " bytes", line + "\n#> ", line + "\n#> ", pieces});
    }
    for (const Row& row : rows) {
        ScriptedServer server({{Send(row.greeting), Expect("show all\n"), Send(row.answer)}});
        Recorder api(server.Addr());
        EXPECT_EQ(Ran(true, 0, row.lines), api.Run("show all")) << row.label;
        EXPECT_EQ(row.pending, api.Pending()) << row.label;
        EXPECT_STREQ("untouched", api.after) << row.label;
    }
}

// A close after every byte of greeting, output and prompt: a cut greeting fails Exec, a cut output
// keeps its whole lines and the cut one, and each next Exec connects anew.
TEST(Api, CloseAtEveryByteOffset)
{
    const std::string greeting = "Hi\r\n#> ", output = "one\r\ntwo\n\nthree\n#> ";
    std::vector<Script> scripts;
    for (size_t k = 0; k < greeting.size(); k++) scripts.push_back({Send(greeting.substr(0, k)), Close()});
    for (size_t k = 0; k < output.size(); k++)
        scripts.push_back({Send(greeting), Expect("cmd\n"), Send(output.substr(0, k)), Close()});
    scripts.push_back({Send(greeting), Expect("cmd\n"), Send(output)});
    ScriptedServer server(scripts);
    Recorder api(server.Addr());
    for (size_t k = 0; k < scripts.size(); k++) {
        // The model: every byte up to a line end is a line, the rest is cut.
        const std::string got = output.substr(0, std::max(k, greeting.size()) - greeting.size());
        std::string lines;
        size_t from = 0;
        for (size_t end; (end = got.find_first_of("\r\n", from)) != std::string::npos; from = end + 1)
            lines += got.substr(from, end + 1 - from) + "|";
        const bool whole = k + 1 == scripts.size();
        EXPECT_EQ(Ran(k >= greeting.size(), whole ? 0 : -EPIPE, lines), api.Run("cmd")) << "cut at " << k;
        if (k >= greeting.size()) { EXPECT_EQ(whole ? "" : got.substr(from), api.Partial()) << "cut at " << k; }
    }
}

// Each row on its own thread (they wait in parallel). Link-dead time-out 0: dead after a silent second
// unless Timeout() switched the check off. After a failure the next Exec reconnects; else it goes on.
TEST(Api, SilenceEndsByTimeOutOrDeadLinkAndTheNextExecReconnects)
{
    const long linkDead = Sock::DefaultLinkDeadTimeout();
    Sock::DefaultLinkDeadTimeout(0);
    // first: then a second connection answers; idleMs: at the prompt before the Exec
    const struct { const char* label; Script first; int timeout, idleMs; std::string ran; int atLeastMs; } rows[] = {
        {"time-out longer than the link-dead time-out", {Send("#> "), Expect("cmd\n"), Send("x\n")}, 2, 0,
         Ran(true, -ETIMEDOUT, "x\n|"), 2000},
        {"trickling greeting: the time-out is for all of it", Trickle("a\nb\nc\nd\ne\nf\n#> ", 2, 300), 1, 0,
         Ran(false, -ETIMEDOUT), 1000},
        {"dead link without a time-out", {Send("#> "), Expect("cmd\n")}, 0, 0, Ran(true, -EPIPE), 1000},
        {"slow answer after a long idle", {Send("#> "), Expect("cmd\n"), Wait(300), Send("late\n#> "), Expect("cmd\n"),
                                           Send("ok\n#> ")}, 0, 1300, Ran(true, 0, "late\n|"), 300},
    };
    std::vector<std::thread> threads;
    for (const auto& row : rows)
        threads.emplace_back([&row] {
            ScriptedServer server({row.first, {Send("#> "), Expect("cmd\n"), Send("ok\n#> ")}});
            Recorder api(server.Addr());
            api.Timeout(row.timeout);
            EXPECT_TRUE(row.idleMs == 0 || api.Connect()) << row.label;
            usleep(static_cast<useconds_t>(row.idleMs) * 1000);
            auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(row.ran, api.Run("cmd")) << row.label;
            EXPECT_GE(MsSince(start), row.atLeastMs) << row.label;
            api.Timeout(10);
            EXPECT_EQ(Ran(true, 0, "ok\n|"), api.Run("cmd")) << row.label;
        });
    for (std::thread& t : threads) t.join();
    Sock::DefaultLinkDeadTimeout(linkDead);
}

// Refused, then open; a command too long to send; a connect that hangs; a family that cannot.
TEST(Api, ConnectFailuresAndRefusedCommands)
{
    const SockAddr addr = RefusedAddr();
    Recorder api(addr);
    EXPECT_EQ(Ran(false, -ECONNREFUSED), api.Run("cmd"));
    EXPECT_EQ(-EPIPE, api.Pending());
    ScriptedServer server({{Send("#> "), Expect("cmd\n"), Send("up\n#> "), Expect("next\n"), Send("#> ")}}, addr);
    EXPECT_EQ(Ran(true, 0, "up\n|"), api.Run("cmd"));
    // Nothing sent and the link kept: the one script goes on.
    EXPECT_EQ(Ran(false, -E2BIG), api.Run(std::string(7999, 'x').c_str()));
    EXPECT_EQ(Ran(true, 0), api.Run("next"));
    BlackHole hole;
    Api hanging(hole.Addr(), nullptr);
    Recorder serial(SockAddr(AF_RS485, "ttyS1", 3));
    hanging.Timeout(1);
    const bool connected = hanging.Connect();
    EXPECT_EQ(Ran(false, -ETIMEDOUT), Ran(connected, hanging.LastError()));
    EXPECT_EQ(Ran(false, -EAFNOSUPPORT), serial.Run("cmd"));
}

// A copy takes all but the link (the callback and its data too); the original keeps its connection.
TEST(Api, CopiesStartUnconnectedAndAreListed)
{
    ScriptedServer server({{Send("#> "), Expect("a\n"), Send("1\n#> x"), Close()},
                           {Send("Hello\n#> "), Expect("b\n"), Send("2\n#> ")}});
    Recorder original(server.Addr());
    std::string called;  // each line the callback saw, then "|"
    auto call = [](void* to, const char* out) { *static_cast<std::string*>(to) += out + std::string("|"); };
    original.RegisterOutputCb(call, &called);
    const size_t listed = Api::m_objList.size();
    ASSERT_TRUE(original.Exec("a"));
    Recorder copy(original);
    EXPECT_EQ(listed + 1, Api::m_objList.size());
    std::list<std::string> list;
    EXPECT_TRUE(copy.Exec("b", list) && copy.LastError() == 0);
    EXPECT_EQ("1|2|", called);
    EXPECT_EQ(std::list<std::string>{"2"}, list);  // the line without its end
    EXPECT_EQ(1, original.Pending());  // the "x" behind its prompt: still its link (-EPIPE without one)
}

}  // namespace
