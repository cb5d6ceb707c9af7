// The command channel client against the byte-exact scripted peer: what it
// sends, how it cuts output into lines, and how it meets closes, silence,
// long lines, copies and refused connections.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Api.h"
#include "Sock.h"
#include "process.h"
#include "scripted_server.h"
#include "utils.h"
#include "wait.h"

namespace {

// Seconds a test's Api waits at most where nothing is meant to time out.
const int kPatience = 10;

// Records each output line as the callback ("c:") and HandleOutput ("h:")
// see it, its line end appended.
class Recorder : public Api {
public:
    explicit Recorder(const SockAddr& server) : Api(server, strPrompt)
    {
        RegisterOutputCb(&Recorder::Callback, this);
        Timeout(kPatience);
    }
    void HandleOutput(const char* out) override { seen.push_back("h:" + Marked(out)); }
    std::string Marked(const char* out) const { return out + std::string(LastLineEnd() ? 1 : 0, LastLineEnd()); }
    static void Callback(void* self, const char* out)
    {
        auto* recorder = static_cast<Recorder*>(self);
        recorder->seen.push_back("c:" + recorder->Marked(out));
    }
    std::vector<std::string> seen;
};

// What the callback, HandleOutput and the list must have seen, in order.
void ExpectDelivered(const Recorder& api, const std::list<std::string>& list, const std::vector<std::string>& lines,
                     const std::string& label)
{
    std::vector<std::string> seen;
    std::list<std::string> bare;
    for (const std::string& line : lines) {
        seen.push_back("c:" + line);
        seen.push_back("h:" + line);
        bool ended = !line.empty() && (line.back() == '\n' || line.back() == '\r');
        bare.push_back(line.substr(0, line.size() - (ended ? 1 : 0)));
    }
    EXPECT_EQ(seen, api.seen) << label;
    EXPECT_EQ(bare, list) << label;
}

// A line of `n` letters, none of them a line end or the prompt.
std::string Letters(size_t n)
{
    std::string s;
    for (size_t i = 0; i < n; i++) s += static_cast<char>('a' + i % 26);
    return s;
}

TEST(Api, SendsCommandsAndCutsOutputIntoLines)
{
    const std::string nul("ab\0cd\n#> ", 9);
    struct Row {
        const char* label;
        std::string greeting;
        std::string answer;  // after the command; a Close follows when `closes`
        bool closes;
        std::vector<std::string> lines;  // each with its line end
        int error;
        std::string partial;
        int pending;
    } rows[] = {
        {"bare prompt, empty output", "#> ", "#> ", false, {}, 0, "", 0},
        {"greeting lines of every shape", "Welcome\r\nx\n\n#>x\n#> ", "1.0\n#> ", false, {"1.0\n"}, 0, "", 0},
        {"CR LF gives a line and an empty one", "#> ", "a\r\nb\r\n#> ", false, {"a\r", "\n", "b\r", "\n"}, 0, "", 0},
        {"lines shorter than the prompt", "#> ", "x\n\n#> ", false, {"x\n", "\n"}, 0, "", 0},
        {"a line starting with the prompt text ends the output", "#> ", "#> hello\n#> ", false, {}, 0, "", 9},
        {"plus signs are text, not checksums", "#> ", "abc+0214 hello\nID +12 volts\n+0214 hello\n#> ", false,
         {"abc+0214 hello\n", "ID +12 volts\n", "+0214 hello\n"}, 0, "", 0},
        {"vertical tabs dropped after the prompt-length start", "#> ", "a\vbc\vd\n#> ", false, {"a\vbcd\n"}, 0, "", 0},
        {"a NUL ends the line's text", "#> ", nul, false, {"ab\n"}, 0, "", 0},
        {"a close ends the output, the cut line kept", "#> ", "one\ntw", true, {"one\n"}, -EPIPE, "tw", -EPIPE},
        {"a close inside the prompt", "#> ", "one\n#>", true, {"one\n"}, -EPIPE, "#>", -EPIPE},
    };
    for (const Row& row : rows) {
        Script script = {Send(row.greeting), Expect("show all\n"), Send(row.answer)};
        if (row.closes) script.push_back(Close());
        ScriptedServer server({script});
        Recorder api(server.Addr());
        std::list<std::string> list;
        EXPECT_TRUE(api.Exec("show all", list)) << row.label;
        EXPECT_EQ(row.error, api.LastError()) << row.label;
        EXPECT_EQ(row.partial, api.Partial()) << row.label;
        ExpectDelivered(api, list, row.lines, row.label);
        EXPECT_TRUE(WaitUntil([&] { return api.Pending() == row.pending; }, ScaledMs(2000))) << row.label;
        EXPECT_TRUE(server.WaitScriptsDone(ScaledMs(2000))) << row.label;
        EXPECT_EQ("show all\n", server.Received(0)) << row.label;
        EXPECT_TRUE(server.Failures().empty()) << row.label;
    }
}

// Lines of 3,998 to 10,000 bytes come in pieces of at most 3,999 bytes
// whose NUL stays inside the 4,000 bytes: read directly into an exactly
// sized heap buffer (where ASan sees every byte past it), and through Exec
// into the own line buffer, with a derived class's member right behind it.
TEST(Api, LongLinesComeInPiecesThatFitTheBuffer)
{
    struct Probe : public Api {
        explicit Probe(const SockAddr& server) : Api(server, strPrompt) { memset(after, 0x5a, sizeof after); }
        void HandleOutput(const char* out) override
        {
            pieces += out;
            if (LastLineEnd()) pieces += '|';
        }
        std::string pieces;
        char after[16];
    };
    for (size_t n : {3998, 3999, 4000, 4001, 7995, 7996, 10000}) {
        const std::string line = Letters(n);
        ScriptedServer server({{Send("#> "), Send(line + "\n#> "), Expect("long\n"), Send(line + "\n#> ")}});
        Probe api(server.Addr());
        api.Timeout(kPatience);
        ASSERT_TRUE(api.Connect());
        std::unique_ptr<char[]> heap(new char[Api::kLineLen]);
        std::string joined;
        while (api.ReadLineOrPrompt(heap.get(), Api::kLineLen)) {
            size_t len = strlen(heap.get());
            EXPECT_LE(len, static_cast<size_t>(Api::kLineLen - 1)) << n;
            EXPECT_EQ(len == static_cast<size_t>(Api::kLineLen - 1) ? 0 : '\n', api.LastLineEnd()) << n;
            joined.append(heap.get(), len);
        }
        EXPECT_EQ(0, api.LastError()) << n;
        EXPECT_EQ(line, joined) << n;

        ASSERT_TRUE(api.Exec("long"));
        EXPECT_EQ(0, api.LastError()) << n;
        EXPECT_EQ(line + "|", api.pieces) << n;
        char expected[sizeof api.after];
        memset(expected, 0x5a, sizeof expected);
        EXPECT_EQ(0, memcmp(expected, api.after, sizeof expected)) << n;
    }
}

// The daemon closing after every byte offset of greeting, output and
// prompt: a cut greeting fails Exec, a cut output keeps its whole lines and
// the cut one, and each next Exec connects anew.
TEST(Api, CloseAtEveryByteOffset)
{
    const std::string greeting = "Hi\r\n#> ", output = "one\r\ntwo\n\nthree\n#> ";
    const std::string all = greeting + output;
    std::vector<Script> scripts;
    for (size_t k = 0; k < all.size(); k++) {
        if (k < greeting.size()) scripts.push_back({Send(all.substr(0, k)), Close()});
        else scripts.push_back({Send(greeting), Expect("cmd\n"), Send(output.substr(0, k - greeting.size())), Close()});
    }
    scripts.push_back({Send(greeting), Expect("cmd\n"), Send(output)});
    ScriptedServer server(scripts);
    Recorder api(server.Addr());
    for (size_t k = 0; k <= all.size(); k++) {
        api.seen.clear();
        std::list<std::string> list;
        const std::string label = "cut at " + std::to_string(k);
        if (k < greeting.size()) {
            EXPECT_FALSE(api.Exec("cmd", list)) << label;
            EXPECT_EQ(-EPIPE, api.LastError()) << label;
            continue;
        }
        // The model: every byte up to a line end is a line, the rest is cut.
        std::string got = output.substr(0, k - greeting.size());
        std::vector<std::string> lines;
        size_t from = 0;
        for (size_t end; (end = got.find_first_of("\r\n", from)) != std::string::npos; from = end + 1)
            lines.push_back(got.substr(from, end + 1 - from));
        bool whole = k == all.size();
        EXPECT_TRUE(api.Exec("cmd", list)) << label;
        EXPECT_EQ(whole ? 0 : -EPIPE, api.LastError()) << label;
        EXPECT_EQ(whole ? "" : got.substr(from), api.Partial()) << label;
        ExpectDelivered(api, list, lines, label);
    }
    EXPECT_EQ(static_cast<int>(all.size()) + 1, server.Accepted());
    EXPECT_TRUE(server.Failures().empty());
}

// Silence, each case on its own thread (they wait in parallel). The
// link-dead time-out is 0 here: a link is dead after a whole second
// without a byte, unless Timeout() switched the check off.
TEST(Api, SilenceEndsByTimeOutOrDeadLinkAndTheNextExecReconnects)
{
    const long linkDead = Sock::DefaultLinkDeadTimeout();
    Sock::DefaultLinkDeadTimeout(0);
    const Script answers = {Send("#> "), Expect("cmd\n"), Send("ok\n#> ")};
    struct Row {
        const char* label;
        Script first;  // then `answers` on a second connection
        int timeout;
        int idleMs;        // at the prompt before the Exec
        bool execResult;
        std::vector<std::string> lines;
        int error;
        int atLeastMs;  // how long the first Exec must have taken
    } rows[] = {
        {"silent output, short time-out", {Send("#> "), Expect("cmd\n"), Send("x\n")}, 1, 0, true, {"x\n"}, -ETIMEDOUT, 1000},
        {"time-out longer than the link-dead time-out", {Send("#> "), Expect("cmd\n")}, 2, 0, true, {}, -ETIMEDOUT, 2000},
        {"silent greeting, short time-out", {Send("Hi\n")}, 1, 0, false, {}, -ETIMEDOUT, 1000},
        {"trickling greeting: the time-out is for all of it", Trickle("a\nb\nc\nd\ne\nf\n#> ", 2, 300), 1, 0, false,
         {}, -ETIMEDOUT, 1000},
        {"dead link without a time-out", {Send("#> "), Expect("cmd\n")}, 0, 0, true, {}, -EPIPE, 1000},
        {"slow answer after a long idle", {Send("#> "), Expect("cmd\n"), Wait(300), Send("late\n#> ")}, 0, 1300,
         true, {"late\n"}, 0, 300},
    };
    std::vector<std::thread> threads;
    for (const Row& row : rows)
        threads.emplace_back([&row, &answers] {
            ScriptedServer server({row.first, answers});
            Recorder api(server.Addr());
            api.Timeout(row.timeout);
            if (row.idleMs) {
                ASSERT_TRUE(api.Connect()) << row.label;
                usleep(static_cast<useconds_t>(row.idleMs) * 1000);
            }
            std::list<std::string> list;
            auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(row.execResult, api.Exec("cmd", list)) << row.label;
            EXPECT_GE(MsSince(start), row.atLeastMs) << row.label;
            EXPECT_EQ(row.error, api.LastError()) << row.label;
            ExpectDelivered(api, list, row.lines, row.label);
            if (row.error == 0) return;
            api.seen.clear();
            list.clear();
            api.Timeout(kPatience);
            EXPECT_TRUE(api.Exec("cmd", list)) << row.label;
            EXPECT_EQ(0, api.LastError()) << row.label;
            ExpectDelivered(api, list, {"ok\n"}, row.label);
        });
    for (std::thread& t : threads) t.join();
    Sock::DefaultLinkDeadTimeout(linkDead);
}

TEST(Api, ConnectFailuresAndRefusedCommands)
{
    // A port that refuses: bound once, then free again.
    int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in in4 = {};
    in4.sin_family = AF_INET;
    in4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof in4;
    ASSERT_EQ(0, bind(probe, reinterpret_cast<sockaddr*>(&in4), len));
    ASSERT_EQ(0, getsockname(probe, reinterpret_cast<sockaddr*>(&in4), &len));
    close(probe);
    const SockAddr addr(in4);
    Recorder api(addr);
    for (int attempt = 0; attempt < 3; attempt++) {
        EXPECT_FALSE(api.Exec("cmd")) << attempt;
        EXPECT_EQ(-ECONNREFUSED, api.LastError()) << attempt;
        EXPECT_EQ(-EPIPE, api.Pending()) << attempt;
    }
    ScriptedServer server({{Send("#> "), Expect("cmd\n"), Send("up\n#> "), Expect("next\n"), Send("#> ")}}, addr);
    EXPECT_TRUE(api.Exec("cmd"));
    EXPECT_EQ((std::vector<std::string>{"c:up\n", "h:up\n"}), api.seen);
    // Text the link's formatted write refuses: nothing sent, link kept.
    EXPECT_FALSE(api.Exec(std::string(7999, 'x').c_str()));
    EXPECT_EQ(-E2BIG, api.LastError());
    EXPECT_TRUE(api.Exec("next"));
    EXPECT_EQ(0, api.LastError());
    EXPECT_EQ(1, server.Accepted());

    BlackHole hole;
    Api hanging(hole.Addr(), nullptr);
    hanging.Timeout(1);
    EXPECT_FALSE(hanging.Connect());
    EXPECT_EQ(-ETIMEDOUT, hanging.LastError());
    Api serial(SockAddr(AF_RS485, "ttyS1", 3), nullptr);
    EXPECT_FALSE(serial.Exec("cmd"));
    EXPECT_EQ(-EAFNOSUPPORT, serial.LastError());
}

// A copy takes everything but the link (the callback and its data too):
// it connects on its own, and the original keeps its connection.
TEST(Api, CopiesStartUnconnectedAndAreListed)
{
    ScriptedServer server({{Send("#> "), Expect("a\n"), Send("1\n#> "), Close()},
                           {Send("Hello\n#> "), Expect("b\n"), Send("2\n#> ")}});
    Recorder original(server.Addr());
    const size_t listed = Api::m_objList.size();
    ASSERT_TRUE(original.Exec("a"));
    Recorder copy(original);
    EXPECT_EQ(listed + 1, Api::m_objList.size());
    original.seen.clear();
    copy.seen.clear();
    EXPECT_TRUE(copy.Exec("b"));
    EXPECT_EQ(0, copy.LastError());
    EXPECT_EQ(std::vector<std::string>{"h:2\n"}, copy.seen);
    // The copied callback records into the original, with the original's line end.
    EXPECT_EQ(std::vector<std::string>{"c:2"}, original.seen);
    EXPECT_EQ(2, server.Accepted());
    EXPECT_EQ(0, copy.Pending());
    EXPECT_TRUE(WaitUntil([&] { return original.Pending() == -EPIPE; }, ScaledMs(2000)));
    EXPECT_TRUE(server.Failures().empty());
}

}  // namespace
