#include <gtest/gtest.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fixed_paths.h"
#include "process.h"
#include "sim_runner.h"
#include "sql_params.h"
#include "sql_script.h"
#include "sql_wrapper.h"
#include "wait.h"

namespace {

using Map = std::map<std::string, std::string>;

// The clients go before their scripted server, so the server sees their connections close.
class ClientTest : public ::testing::Test {
protected:
    void Serve(std::vector<Script> scripts)
    {
        Finish();
        m_server = std::make_unique<ScriptedServer>(std::move(scripts));
        m_addr = m_server->Addr();
    }
    void Finish()
    {
        m_sql.reset();
        if (m_server)
            for (const std::string& failure : m_server->Failures()) ADD_FAILURE() << failure;
    }
    void TearDown() override { Finish(); }
    // A client of one prepared connection answering each statement in turn.
    SqlWrapper& Answering(const std::vector<std::pair<std::string, std::string>>& answers)
    {
        Script script = Prepared();
        for (const auto& [statement, answer] : answers) script = Then(script, Answer(statement, answer));
        Serve({script});
        return Sql();
    }
    SqlWrapper& Sql(int retries = 0, int maxLineLen = 2048)
    {
        m_sql = std::make_unique<SqlWrapper>(&m_addr, nullptr, maxLineLen, retries);
        return *m_sql;
    }

    std::unique_ptr<ScriptedServer> m_server;
    SockAddr m_addr;
    std::unique_ptr<SqlWrapper> m_sql;
};

// Banner lines (short, empty, CR-ended, a partial prompt) are skipped; a missing comment is "Unknown connection".
TEST_F(ClientTest, ConnectSkipsTheBannerAndAnnouncesItselfOnce)
{
    const std::vector<std::pair<const char*, std::string>> cases = {
        {"tester", ""}, {"tester", "a\n\nbc\r\n"}, {"tester", "#>x\n"}, {"", ""}, {nullptr, ""}};
    std::vector<Script> scripts;
    for (auto& [comment, banner] : cases) scripts.push_back(Greeting(comment ? comment : "Unknown connection", banner));
    Serve(scripts);
    for (const auto& [comment, banner] : cases) {
        PrivateConnection connection(&m_addr, 2048, comment);
        EXPECT_TRUE(connection.Connect() && connection.Eof() && !connection.Connect()) << banner << ": twice, once";
    }
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
    SimRunner sim({true, 0, 0, {}});  // on a Unix socket, with its real banner
    sockaddr_un un = {AF_UNIX, {}};
    strncpy(un.sun_path, sim.Address().c_str(), sizeof un.sun_path - 1);
    SockAddr local(un), none;
    PrivateConnection overUnix(&local, 2048, "x"), foreign(&none, 2048, "x");
    EXPECT_TRUE(overUnix.Connect() && !foreign.Connect());
    EXPECT_TRUE(foreign.ReadLine() == -EINVAL && foreign.Print("x") == -EINVAL) << "no link";
}

// A full print is refused; a long read comes in pieces; only the bare marker ends a result; an error line is consumed.
TEST_F(ClientTest, LinesAgainstTheLineLimitAndTheMarker)
{
    const std::string shorter(39, 'y');
    const std::string sent = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVW\n12345678\n123456789\n1234567890\n"
                             "\v\n\vError: no such table: T\nconsumed\nafter\r";
    Serve({Then(Greeting("t"), {Expect(shorter), Send(sent)})});
    PrivateConnection connection(&m_addr, 40, "t");
    ASSERT_TRUE(connection.Connect());
    EXPECT_EQ(connection.Print("%s", std::string(40, 'x').c_str()), -ENOSPC);
    EXPECT_EQ(connection.Print("%s", shorter.c_str()), 39);
    const std::vector<std::pair<int, const char*>> lines = {
        {39, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLM"}, {10, "NOPQRSTUVW"}, {8, "12345678"}, {9, "123456789"},
        {10, "1234567890"}, {0, ""}, {-EIO, ""}, {5, "after"}};
    for (auto [result, text] : lines) {
        int n = connection.ReadLine();
        ASSERT_EQ(n, result) << text;
        EXPECT_EQ(connection.Eof(), n == 0) << n;
        EXPECT_EQ(std::string(connection.Line(), n > 0 ? static_cast<size_t>(n) : 0), text);
    }
    EXPECT_EQ(connection.LastError(), "Error: no such table: T");
    EXPECT_EQ(m_server->Received(0), CommentLine("t") + shorter);
}

// Connect failures and "not ready" answers share the retry count: 0 and 1 make one attempt, 2 make two, a
// second apart, with the retry message before each further one and the final one once.
TEST_F(ClientTest, RetriesCountConnectFailuresAndNotReadyAnswers)
{
    const Script notReady = Then(Greeting("SQL Wrapper"), {Expect("shell \\ |\r\n"), Send("DB not ready\n")});
    for (bool ready : {false, true})
        for (auto [count, attempts] : std::vector<std::pair<int, size_t>>{{0, 1}, {1, 1}, {2, 2}}) {
            StderrCapture err;
            Serve(std::vector<Script>(ready ? attempts : 0, notReady));
            auto start = std::chrono::steady_clock::now();
            EXPECT_FALSE(Sql(count).Reconnect());
            EXPECT_TRUE(count || MsSince(start) < 1000) << "no sleep at count 0";
            auto times = m_server->AcceptTimes();
            EXPECT_EQ(times.size(), attempts) << count;
            for (size_t i = 1; i < times.size(); i++)
                EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(times[i] - times[i - 1]).count(), 900);
            std::string expected, why = ready ? "DB not yet ready" : "connect failed";
            for (size_t i = 1; i < attempts; i++) expected += "warn <SqlWrapper> Retrying (" + why + ")...\n";
            expected += ready ? "err  <SqlWrapper> DB not ready.\n" : "err  <SqlWrapper> Connect failed.\n";
            EXPECT_EQ(LogLines(err.Take()), expected) << count << ready;
        }
    Serve({});
    PrivateConnection connection(&m_addr, 2048, "x");
    connection.Retries(2);
    EXPECT_FALSE(connection.Reconnect());
    EXPECT_EQ(m_server->Accepted(), 2) << "the base class keeps its own loop";
}

// Vector rows stop at 30 columns unless asked for more; map rows drop values without a name; the end leaves either
// untouched. In place, escapes are removed and columns split also past the caller's capacity.
TEST_F(ClientTest, RowsAsVectorsMapsAndInPlace)
{
    std::string header = "c1", row = "1";
    for (int i = 2; i <= 35; i++) header += "|c" + std::to_string(i), row += "|" + std::to_string(i);
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
        {"x|y\\|z", {"x", "y|z"}}, {"x||y", {"x", "", "y"}}, {"x|y|", {"x", "y"}},
        {"a\\\\b|c", {"a\\b", "c"}}, {"ab\\", {"ab"}},        {"", {}}};
    std::string parsed = "h\n";
    for (const auto& row : rows) parsed += row.first + "\n";
    SqlWrapper& sql = Answering({{"SELECT *;", header + "\n" + row + "\n" + row + "\n"},
                                 {"SELECT m;", "id|name\n1|x|2\n"}, {"SELECT h;", parsed + "a|b\\|c|d\\|e\n"}});
    ASSERT_TRUE(sql.Exec("SELECT *;"));
    std::vector<std::string> columns;
    ASSERT_TRUE(sql.Next(columns));
    EXPECT_EQ(columns.size(), 30u);
    ASSERT_TRUE(sql.Next(columns, 35));
    EXPECT_EQ(columns.size(), 35u);
    EXPECT_FALSE(sql.Next(columns));
    EXPECT_EQ(columns.size(), 35u);
    Map map;
    ASSERT_TRUE(sql.Exec("SELECT m;") && sql.Next(map));
    EXPECT_EQ(map, (Map{{"id", "1"}, {"name", "x"}}));
    EXPECT_FALSE(sql.Next(map));
    EXPECT_EQ(map.size(), 2u);
    ASSERT_TRUE(sql.Exec("SELECT h;"));
    for (const auto& [line, want] : rows) {
        char* columns[8];
        int count = 8;
        ASSERT_TRUE(sql.NextParsed(columns, count)) << line;
        EXPECT_EQ(std::vector<std::string>(columns, columns + count), want) << line;
    }
    char* first[1];
    int count = 1;
    ASSERT_TRUE(sql.NextParsed(first, count));
    EXPECT_EQ(count, 3);
    EXPECT_EQ(std::string(first[0] + 3), "b|c") << "the second column, moved over its escape";
}

// A statement without its final ";" never reaches the server (the script would see it in place of the next).
TEST_F(ClientTest, StatementsWithoutSemicolonsRowsOrSuccessAndUndrainedResults)
{
    StderrCapture err;
    SqlWrapper& sql = Answering({{"INSERT 1;", ""}, {"SELECT bad;", "Error: near \"bad\": syntax error\n"},
                                 {"SELECT T;", "\vError: no such table: T\n"}, {"SELECT a;", "a\n1\n2\n3\n"},
                                 {"SELECT 2;", "v\n2\n"}});
    EXPECT_FALSE(sql.Exec("SELECT 1") || sql.Exec(""));
    ASSERT_TRUE(sql.Exec("INSERT 1;"));
    EXPECT_TRUE(sql.Eof() && sql.GetHeaders().empty());
    EXPECT_FALSE(sql.Exec("SELECT bad;"));
    EXPECT_EQ(sql.LastError(), "Error: near \"bad\": syntax error");
    EXPECT_FALSE(sql.Exec("SELECT T;"));
    EXPECT_EQ(sql.FailureReason(), "Error: no such table: T");
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> \"SELECT 1\" missing semicolon.\n"
                                    "warn <SqlWrapper> \"\" missing semicolon.\nerr  <SqlWrapper> Got prompt.\n");
    ASSERT_TRUE(sql.Exec("SELECT a;") && sql.Next());
    EXPECT_STREQ(sql.Line(), "1");
    ASSERT_TRUE(sql.Exec("SELECT 2;") && sql.Next());
    EXPECT_STREQ(sql.Line(), "2") << "the rest of the last result flushed";
    EXPECT_EQ(m_server->Accepted(), 1);
}

// A lost result reconnects once and ends; an over-long statement is retried with reconnects until the count ends.
TEST_F(ClientTest, LostResultsAndOverlongStatements)
{
    Serve({Prepared({Expect("SELECT a;\r\n"), Send("a\n1\n"), Close()}), Prepared()});
    ASSERT_TRUE(Sql().Exec("SELECT a;") && m_sql->Next());
    EXPECT_STREQ(m_sql->Line(), "1");
    EXPECT_FALSE(m_sql->Next() || m_sql->Next()) << "the loss ends the result";
    EXPECT_EQ(m_server->Accepted(), 2) << "with one reconnect";
    Serve({Prepared(), Prepared()});
    EXPECT_FALSE(Sql(1, 40).Exec("SELECT 'a statement longer than the line';"));
    EXPECT_EQ(m_sql->FailureReason(), "statement longer than 37 bytes");
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
    EXPECT_EQ(m_server->Received(1), CommentLine("SQL Wrapper") + "shell \\ |\r\n.header on\r\n");
}

// Runs `work` on another thread and stops it once `ready` holds; the stop must end it.
template <class Stopper, class Work, class Ready>
bool InterruptDuring(Stopper stop, Work work, Ready ready)
{
    auto result = std::async(std::launch::async, work);
    EXPECT_TRUE(WaitUntil(ready, ScaledMs(5000)));
    stop();
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(ScaledMs(5000))), std::future_status::ready);
    return result.get();
}

TEST_F(ClientTest, StopEndsThePromptWaitTheRetrySleepAndAReadAsCloseDoes)
{
    auto accepted = [&] { return m_server->Accepted() == 1; };
    Serve({{Send("banner without prompt\n")}});
    PrivateConnection connection(&m_addr, 2048, "x");
    EXPECT_TRUE(InterruptDuring([&] { connection.Stop(); }, [&] { return connection.Connect(); }, accepted));
    Serve({});
    SqlWrapper& retrying = Sql(PrivateConnection::INFINITE_RETRY);
    EXPECT_FALSE(InterruptDuring([&] { retrying.Stop(); }, [&] { return retrying.Exec("SELECT 1;"); }, accepted));
    EXPECT_EQ(m_server->Accepted(), 1);
    for (bool close : {false, true}) {
        Serve({Prepared({Expect("SELECT a;\r\n"), Send("a\n")})});
        SqlWrapper& sql = Sql(PrivateConnection::INFINITE_RETRY);
        ASSERT_TRUE(sql.Exec("SELECT a;"));
        auto start = std::chrono::steady_clock::now();
        // Nothing to poll for a blocked read: give it a moment to block.
        EXPECT_FALSE(InterruptDuring([&] { close ? sql.Close() : sql.Stop(); }, [&] { return sql.Next(); },
                                     [&] { return MsSince(start) > 100; }));
        EXPECT_TRUE(close ? !sql.Connected() : sql.GetRV()) << close;
        EXPECT_EQ(m_server->Accepted(), 1) << "a stopped read reconnects not";
    }
}

// Plain substring replacement: a prefix of a longer name matches, quotes in the statement mean nothing.
TEST(SqlParams, ReplacesReferencesInEachForm)
{
    enum Form { FIRST, STRING, ALL_BARE, ALL_QUOTED };
    const struct {
        Form form;
        const char *query, *name, *value;
        bool replaced;
        const char* result;
    } cases[] = {
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
        EXPECT_EQ(replaced, c.replaced) << c.query << " " << c.name;
        EXPECT_EQ(query, c.result) << c.query << " " << c.name;
    }
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> Value of \":v\" holds its own reference.\n");
}

}  // namespace
