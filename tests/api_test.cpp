// The command channel client against the byte-exact scripted peer: lines, closes, silence, copies, refusals.
#include <gtest/gtest.h>

#include <list>
#include <thread>

#include "Api.h"
#include "Sock.h"
#include "scripted_server.h"

namespace {

// Keeps each line HandleOutput saw, with its end, then "|"; waits at most 10 s.
class Recorder : public Api {
public:
    explicit Recorder(const SockAddr& server) : Api(server, strPrompt) { Timeout(10); }
    void HandleOutput(const char* out) override { seen += out + std::string(LastLineEnd() ? 1 : 0, LastLineEnd()) + "|"; }
    // Exec, checking that HandleOutput got `lines` (each with its end), in order.
    bool ExecExpecting(const char* cmd, const std::vector<std::string>& lines, const std::string& label)
    {
        seen.clear();
        const bool sent = Exec(cmd);
        std::string expected;
        for (const std::string& line : lines) expected += line + "|";
        EXPECT_EQ(expected, seen) << label;
        return sent;
    }
    char after[16] = "untouched";  // right behind Api's own line buffer: an overrun shows here
    std::string seen;
};

// A call's result and the error it left, in one comparison.
std::pair<bool, int> Outcome(bool ok, const Api& api) { return {ok, api.LastError()}; }

TEST(Api, SendsCommandsAndCutsOutputIntoLines)
{
    const struct { const char* label; std::string greeting, answer; std::vector<std::string> lines; int pending; } rows[] = {
        {"greeting lines of every shape", "Welcome\r\nx\n\n#>x\n#> ", "1.0\n#> ", {"1.0\n"}, 0},
        {"CR LF gives a line and an empty one", "#> ", "a\r\nb\r\n#> ", {"a\r", "\n", "b\r", "\n"}, 0},
        {"a line starting with the prompt text ends the output", "#> ", "#> hello\n#> ", {}, 9},
        {"plus signs are text, not checksums", "#> ", "abc+0214 hi\n+0214 hi\n#> ", {"abc+0214 hi\n", "+0214 hi\n"}, 0},
        {"vertical tabs dropped after the prompt-length start", "#> ", "a\vbc\vd\n#> ", {"a\vbcd\n"}, 0},
        {"a NUL ends the line's text", "#> ", std::string("ab\0cd\n#> ", 9), {"ab\n"}, 0},
    };
    for (const auto& row : rows) {
        ScriptedServer server({{Send(row.greeting), Expect("show all\n"), Send(row.answer)}});
        Recorder api(server.Addr());
        EXPECT_EQ(std::make_pair(true, 0), Outcome(api.ExecExpecting("show all", row.lines, row.label), api)) << row.label;
        EXPECT_EQ(row.pending, api.Pending()) << row.label;
    }
}

// Long lines (of the greeting too) come in pieces of kLineLen - 1 bytes, so each piece's NUL stays inside the buffer (the last member
// of Api: an overrun shows in `after`).
TEST(Api, LongLinesComeInPiecesThatFitTheBuffer)
{
    for (size_t n : {3998, 3999, 4000, 4001, 7995, 7996, 10000}) {
        std::string line;
        for (size_t i = 0; i < n; i++) line += static_cast<char>('a' + i % 26);
        std::vector<std::string> pieces;
        for (size_t at = 0; at <= n; at += Api::kLineLen - 1) pieces.push_back(line.substr(at, Api::kLineLen - 1));
        pieces.back() += "\n";
        ScriptedServer server({{Send(line + "\n#> "), Expect("long\n"), Send(line + "\n#> ")}});  // greeting too
        Recorder api(server.Addr());
        EXPECT_EQ(std::make_pair(true, 0), Outcome(api.ExecExpecting("long", pieces, std::to_string(n)), api)) << n;
        EXPECT_STREQ("untouched", api.after) << n;
    }
}

// A close after every byte of greeting, output and prompt: a cut greeting fails Exec, a cut output
// keeps its whole lines and the cut one, and each next Exec connects anew.
TEST(Api, CloseAtEveryByteOffset)
{
    const std::string greeting = "Hi\r\n#> ", output = "one\r\ntwo\n\nthree\n#> ";
    std::vector<Script> scripts;
    for (size_t k = 0; k < greeting.size(); k++) scripts.push_back({Send(greeting.substr(0, k)), Close()});
    for (size_t k = 0; k < output.size(); k++) scripts.push_back({Send(greeting), Expect("cmd\n"), Send(output.substr(0, k)), Close()});
    scripts.push_back({Send(greeting), Expect("cmd\n"), Send(output)});
    ScriptedServer server(scripts);
    Recorder api(server.Addr());
    for (size_t k = 0; k < scripts.size(); k++) {
        const std::string label = "cut at " + std::to_string(k);
        // The model: every byte up to a line end is a line, the rest is cut.
        const std::string got = output.substr(0, std::max(k, greeting.size()) - greeting.size());
        std::vector<std::string> lines;
        size_t from = 0;
        for (size_t end; (end = got.find_first_of("\r\n", from)) != std::string::npos; from = end + 1)
            lines.push_back(got.substr(from, end + 1 - from));
        const bool whole = k + 1 == scripts.size();
        EXPECT_EQ(std::make_pair(k >= greeting.size(), whole ? 0 : -EPIPE), Outcome(api.ExecExpecting("cmd", lines, label), api))
            << label;
        if (k >= greeting.size()) { EXPECT_EQ(whole ? "" : got.substr(from), api.Partial()) << label; }
    }
}

// Each row on its own thread (they wait in parallel). Link-dead time-out 0: dead after a silent second
// unless Timeout() switched the check off. After a failure the next Exec reconnects.
TEST(Api, SilenceEndsByTimeOutOrDeadLinkAndTheNextExecReconnects)
{
    const long linkDead = Sock::DefaultLinkDeadTimeout();
    Sock::DefaultLinkDeadTimeout(0);
    // first: then a second connection answers; idleMs: at the prompt before the Exec
    const struct { const char* label; Script first; int timeout, idleMs; bool result; std::vector<std::string> lines;
                   int error, atLeastMs; } rows[] = {
        {"time-out longer than the link-dead time-out", {Send("#> "), Expect("cmd\n"), Send("x\n")}, 2, 0, true, {"x\n"},
         -ETIMEDOUT, 2000},
        {"trickling greeting: the time-out is for all of it", Trickle("a\nb\nc\nd\ne\nf\n#> ", 2, 300), 1, 0, false, {},
         -ETIMEDOUT, 1000},
        {"dead link without a time-out", {Send("#> "), Expect("cmd\n")}, 0, 0, true, {}, -EPIPE, 1000},
        {"slow answer after a long idle", {Send("#> "), Expect("cmd\n"), Wait(300), Send("late\n#> ")}, 0, 1300, true,
         {"late\n"}, 0, 300},
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
            EXPECT_EQ(std::make_pair(row.result, row.error), Outcome(api.ExecExpecting("cmd", row.lines, row.label), api))
                << row.label;
            EXPECT_GE(MsSince(start), row.atLeastMs) << row.label;
            api.Timeout(10);
            EXPECT_TRUE(row.error == 0 || (api.ExecExpecting("cmd", {"ok\n"}, row.label) && !api.LastError())) << row.label;
        });
    for (std::thread& t : threads) t.join();
    Sock::DefaultLinkDeadTimeout(linkDead);
}

// Refused, then open; a command too long to send; a connect that hangs; a family that cannot.
TEST(Api, ConnectFailuresAndRefusedCommands)
{
    const SockAddr addr = RefusedAddr();
    Recorder api(addr);
    EXPECT_EQ(std::make_pair(false, -ECONNREFUSED), Outcome(api.Exec("cmd"), api));
    EXPECT_EQ(-EPIPE, api.Pending());
    ScriptedServer server({{Send("#> "), Expect("cmd\n"), Send("up\n#> "), Expect("next\n"), Send("#> ")}}, addr);
    EXPECT_TRUE(api.ExecExpecting("cmd", {"up\n"}, "open"));
    // Nothing sent and the link kept: the one script goes on.
    EXPECT_EQ(std::make_pair(false, -E2BIG), Outcome(api.Exec(std::string(7999, 'x').c_str()), api));
    EXPECT_EQ(std::make_pair(true, 0), Outcome(api.Exec("next"), api));
    BlackHole hole;
    Api hanging(hole.Addr(), nullptr), serial(SockAddr(AF_RS485, "ttyS1", 3), nullptr);
    hanging.Timeout(1);
    EXPECT_EQ(std::make_pair(false, -ETIMEDOUT), Outcome(hanging.Connect(), hanging));
    EXPECT_EQ(std::make_pair(false, -EAFNOSUPPORT), Outcome(serial.Exec("cmd"), serial));
}

// A copy takes all but the link (the callback and its data too); the original keeps its connection.
TEST(Api, CopiesStartUnconnectedAndAreListed)
{
    ScriptedServer server({{Send("#> "), Expect("a\n"), Send("1\n#> x"), Close()},
                           {Send("Hello\n#> "), Expect("b\n"), Send("2\n#> ")}});
    Recorder original(server.Addr());
    std::string called;  // each line the callback saw, then "|"
    original.RegisterOutputCb([](void* to, const char* out) { *static_cast<std::string*>(to) += out + std::string("|"); },
                              &called);
    const size_t listed = Api::m_objList.size();
    ASSERT_TRUE(original.Exec("a"));
    Recorder copy(original);
    EXPECT_EQ(listed + 1, Api::m_objList.size());
    std::list<std::string> list;
    EXPECT_EQ(std::make_pair(true, 0), Outcome(copy.Exec("b", list), copy));
    EXPECT_EQ("1|2|", called);
    EXPECT_EQ(std::list<std::string>{"2"}, list);  // the line without its end
    EXPECT_EQ(1, original.Pending());  // the "x" behind its prompt: still its link (-EPIPE without one)
}

}  // namespace
