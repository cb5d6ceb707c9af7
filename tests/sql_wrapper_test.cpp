#include <gtest/gtest.h>
#include <sys/un.h>

#include <cstring>
#include <future>

#include "fixed_paths.h"
#include "process.h"
#include "sim_runner.h"
#include "sql_script.h"
#include "sql_wrapper.h"
#include "wait.h"

namespace {

// A scripted server and its client; the client closes first, so the server sees its connection end.
struct Client {
    explicit Client(std::vector<Script> scripts, int retries = 0, int maxLineLen = 2048)
        : server(std::move(scripts)), addr(server.Addr()), sql(&addr, nullptr, maxLineLen, retries) {}
    ~Client() { sql.Close(); for (const std::string& failure : server.Failures()) ADD_FAILURE() << failure; }
    ScriptedServer server;
    SockAddr addr;
    SqlWrapper sql;
};

// Banner lines are skipped up to the prompt; a long read comes in pieces; only the bare marker ends a result.
TEST(SqlClient, ConnectAndLinesAgainstTheLineLimitAndTheMarker)
{
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"tester", ""}, {"tester", "a\n\nbc\r\n"}, {"tester", "#>x\n"}, {"", ""}, {nullptr, ""}};
    const std::string shorter(39, 'y'), sent = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVW\n12345678\n"
        "123456789\n1234567890\n\v\n\vError: no such table: T\nconsumed\nafter\r";
    std::vector<Script> scripts;
    for (auto& [comment, banner] : cases) scripts.push_back(Greeting(comment ? comment : "Unknown connection", banner));
    scripts.push_back(Then(Greeting("t"), {Expect(shorter), Send(sent)}));
    Client c(scripts);
    for (const auto& [comment, banner] : cases) {
        PrivateConnection connection(&c.addr, 2048, comment);
        EXPECT_TRUE(connection.Connect() && connection.Eof() && !connection.Connect()) << banner << ": twice, once";
    }
    PrivateConnection connection(&c.addr, 40, "t");
    ASSERT_TRUE(connection.Connect());
    EXPECT_EQ(connection.Print("%s", std::string(40, 'x').c_str()), -ENOSPC);
    EXPECT_EQ(connection.Print("%s", shorter.c_str()), 39);
    const std::vector<std::pair<int, const char*>> lines = {
        {39, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLM"}, {10, "NOPQRSTUVW"}, {8, "12345678"}, {9, "123456789"},
        {10, "1234567890"}, {0, ""}, {-EIO, ""}, {5, "after"}};
    for (auto [result, text] : lines) {
        int n = connection.ReadLine();
        EXPECT_TRUE(n == result && connection.Eof() == !n && std::string(connection.Line(), std::max(n, 0)) == text)
            << text << ": " << n;
    }
    EXPECT_EQ(connection.LastError(), "Error: no such table: T");
    EXPECT_EQ(c.server.Received(cases.size()), CommentLine("t") + shorter);
    SimRunner sim({true, 0, 0, {}});  // on a Unix socket, with its real banner
    sockaddr_un un = {AF_UNIX, {}};
    strncpy(un.sun_path, sim.Address().c_str(), sizeof un.sun_path - 1);
    SockAddr local(un), none;
    PrivateConnection overUnix(&local, 2048, "x"), foreign(&none, 2048, "x");
    EXPECT_TRUE(overUnix.Connect() && !foreign.Connect());
    EXPECT_TRUE(foreign.ReadLine() == -EINVAL && foreign.Print("x") == -EINVAL) << "no link";
}

// Failed connects and "not ready" answers share one retry count (the second between attempts is the monitor's test).
TEST(SqlClient, RetriesCountConnectFailuresAndNotReadyAnswers)
{
    const Script notReady = Then(Greeting("SQL Wrapper"), {Expect("shell \\ |\r\n"), Send("DB not ready\n")});
    const std::string why[] = {"connect failed", "DB not yet ready"}, last[] = {"Connect failed.", "DB not ready."};
    for (bool ready : {false, true})
        for (int count : {0, 1, 2}) {
            const int attempts = count == 2 ? 2 : 1;
            StderrCapture err;
            Client c(std::vector<Script>(ready ? attempts : 0, notReady), count);
            auto start = std::chrono::steady_clock::now();
            EXPECT_TRUE(!c.sql.Reconnect() && (count || MsSince(start) < 1000)) << "no sleep at count 0";
            EXPECT_EQ(c.server.Accepted(), attempts) << count;
            EXPECT_EQ(LogLines(err.Take()), (count == 2 ? "warn <SqlWrapper> Retrying (" + why[ready] + ")...\n" : "") +
                                                "err  <SqlWrapper> " + last[ready] + "\n") << count << ready;
        }
    Client c({});
    PrivateConnection base(&c.addr, 2048, "x");
    base.Retries(2);
    EXPECT_TRUE(!base.Reconnect() && c.server.Accepted() == 2) << "the base class keeps its own loop";
    Client longer({Prepared(), Prepared()}, 1, 40);
    EXPECT_TRUE(!longer.sql.Exec("SELECT 'a statement longer than the line';") &&
                longer.sql.FailureReason() == "statement longer than 37 bytes");
    EXPECT_EQ(longer.server.Received(1), CommentLine("SQL Wrapper") + "shell \\ |\r\n.header on\r\n");
}

// A statement without its ";" never reaches the server (the script would see it in place of the next). The first
// statement has no rows: a later one would still show the headers of the result before.
TEST(SqlClient, RowsAndStatements)
{
    std::string header = "c1", row = "1";
    for (int i = 2; i <= 35; i++) header += "|c" + std::to_string(i), row += "|" + std::to_string(i);
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"x|y\\|z", {"x", "y|z"}}, {"x||y", {"x", "", "y"}}, {"x|y|", {"x", "y"}},
        {"a\\\\b|c", {"a\\b", "c"}}, {"ab\\", {"ab"}},        {"", {}}};
    std::string parsed = "h\n";
    for (const auto& row : rows) parsed += row.first + "\n";
    StderrCapture err;
    Script script = Prepared();
    for (const auto& [statement, answer] : std::vector<std::pair<std::string, std::string>>{
             {"INSERT 1;", ""}, {"SELECT bad;", "Error: near \"bad\": syntax error\n"},
             {"SELECT T;", "\vError: no such table: T\n"}, {"SELECT a;", "a\n1\n2\n3\n"}, {"SELECT 2;", "v\n2\n"},
             {"SELECT *;", header + "\n" + row + "\n" + row + "\n"}, {"SELECT m;", "id|name\n1|x|2\n"},
             {"SELECT h;", parsed + "a|b\\|c|d\\|e\n"}})
        script = Then(script, Answer(statement, answer));
    Client c({script});
    SqlWrapper& sql = c.sql;
    EXPECT_FALSE(sql.Exec("SELECT 1") || sql.Exec(""));
    EXPECT_TRUE(sql.Exec("INSERT 1;") && sql.Eof() && sql.GetHeaders().empty());
    EXPECT_TRUE(!sql.Exec("SELECT bad;") && sql.LastError() == "Error: near \"bad\": syntax error");
    EXPECT_TRUE(!sql.Exec("SELECT T;") && sql.FailureReason() == "Error: no such table: T");
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> \"SELECT 1\" missing semicolon.\n"
                                    "warn <SqlWrapper> \"\" missing semicolon.\nerr  <SqlWrapper> Got prompt.\n");
    ASSERT_TRUE(sql.Exec("SELECT a;") && sql.Next() && sql.Exec("SELECT 2;") && sql.Next());
    EXPECT_STREQ(sql.Line(), "2") << "the rest of the last result flushed";
    std::vector<std::string> columns;
    EXPECT_TRUE(sql.Exec("SELECT *;") && sql.Next(columns) && columns.size() == 30u) << "30 unless asked for more";
    EXPECT_TRUE(sql.Next(columns, 35) && !sql.Next(columns) && columns.size() == 35u) << "35 asked for, kept";
    std::map<std::string, std::string> map;
    ASSERT_TRUE(sql.Exec("SELECT m;") && sql.Next(map) && !sql.Next(map));
    EXPECT_EQ(map, (std::map<std::string, std::string>{{"id", "1"}, {"name", "x"}}));
    ASSERT_TRUE(sql.Exec("SELECT h;"));
    for (const auto& [line, want] : rows) {
        char* at[8];
        int count = 8;
        EXPECT_TRUE(sql.NextParsed(at, count) && std::vector<std::string>(at, at + count) == want) << line;
    }
    char* first[1];
    int count = 1;
    EXPECT_TRUE(sql.NextParsed(first, count) && count == 3 && std::string(first[0] + 3) == "b|c")
        << "the second column, moved over its escape";
    EXPECT_EQ(c.server.Accepted(), 1);
}

// Each interrupt runs `work` on another thread and stops it once `ready` holds; the stop must end it.
TEST(SqlClient, StopEndsThePromptWaitTheRetrySleepAndAReadAsCloseDoes)
{
    auto InterruptDuring = [](auto stop, auto work, auto ready) {
        auto result = std::async(std::launch::async, work);
        EXPECT_TRUE(WaitUntil(ready, ScaledMs(5000)));
        stop();
        EXPECT_EQ(result.wait_for(std::chrono::milliseconds(ScaledMs(5000))), std::future_status::ready);
        return result.get();
    };
    Client silent({{Send("banner without prompt\n")}}), none({}, PrivateConnection::INFINITE_RETRY);
    auto accepted = [](const Client& c) { return [&c] { return c.server.Accepted() == 1; }; };
    PrivateConnection connection(&silent.addr, 2048, "x");
    EXPECT_TRUE(InterruptDuring([&] { connection.Stop(); }, [&] { return connection.Connect(); }, accepted(silent)));
    EXPECT_FALSE(InterruptDuring([&] { none.sql.Stop(); }, [&] { return none.sql.Exec("SELECT 1;"); }, accepted(none)));
    EXPECT_EQ(none.server.Accepted(), 1) << "the retry sleep ended";
    for (bool close : {false, true}) {
        Client c({Prepared({Expect("SELECT a;\r\n"), Send("a\n")})}, PrivateConnection::INFINITE_RETRY);
        ASSERT_TRUE(c.sql.Exec("SELECT a;"));
        auto start = std::chrono::steady_clock::now();  // nothing to poll for a blocked read: it gets a moment
        EXPECT_FALSE(InterruptDuring([&] { close ? c.sql.Close() : c.sql.Stop(); }, [&] { return c.sql.Next(); },
                                     [&] { return MsSince(start) > 100; }));
        EXPECT_TRUE((close ? !c.sql.Connected() : c.sql.GetRV()) && c.server.Accepted() == 1)
            << close << ": a stopped read makes no new connection";
    }
}

// Plain substring replacement: a prefix of a longer name matches, quotes in the statement mean nothing.
TEST(SqlParams, ReplacesReferencesInEachForm)
{
    enum Form { FIRST, STRING, ALL_BARE, ALL_QUOTED };
    const struct { Form form; const char *query, *name, *value; bool replaced; const char* result; } cases[] = {
        {FIRST, "a=:Hw OR b=:Hw;", "Hw", "7", true, "a=7 OR b=:Hw;"}, {FIRST, "a=:Hw;", "Usr", "7", false, "a=:Hw;"},
        {FIRST, "y=:EvntData;", "Evnt", "1", true, "y=1Data;"}, {FIRST, "'a:b';", "b", "2", true, "'a2';"},
        {STRING, "v=:S;", "S", "12\"x'\\\t", true, "v=\"12\"\"x'\\\t\";"},
        {ALL_BARE, "a=:Hw OR b=:Hw;", "Hw", "7", true, "a=7 OR b=7;"}, {ALL_BARE, "a=1;", "Hw", "7", false, "a=1;"},
        {ALL_QUOTED, ":v,:v", "v", "x\"y", true, "\"x\"y\",\"x\"y\""},
        {ALL_BARE, "a=:v;", "v", "(:v)", false, "a=:v;"},  // would never end: refused, logged
    };
    StderrCapture err;
    for (const auto& c : cases) {
        std::string query = c.query;
        bool replaced = c.form == FIRST    ? sql_param_replace(query, c.name, c.value)
                        : c.form == STRING ? sql_param_replace_str(query, c.name, c.value)
                                           : sql_param_replace_all(query, c.name, c.value, c.form == ALL_QUOTED);
        EXPECT_EQ(query + (replaced ? "" : " (kept)"), c.result + std::string(c.replaced ? "" : " (kept)")) << c.query;
    }
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> Value of \":v\" holds its own reference.\n");
}

}  // namespace
