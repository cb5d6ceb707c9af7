// vantor-sim over real sockets: the client's exact reads on TCP and Unix
// sockets, monitor fan-out between connections, many clients at once, and
// clients that misbehave.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <tuple>

#include "process.h"
#include "shell_client.h"
#include "sim_runner.h"

namespace {

// One connection with the scripted client's reads on it.
struct Client {
    explicit Client(const SimRunner& sim, int waitMs = 15000) : link(sim.Connect(), waitMs), reads(link) {}
    // Greeting and set-up as the SQL client does them.
    bool Prepare() { return link.Fd() >= 0 && reads.Greet() && reads.Setup() && link.Quiet(); }
    // Runs a statement that must succeed; its raw lines.
    std::vector<std::string> Run(const std::string& statement)
    {
        std::vector<std::string> lines;
        EXPECT_EQ(0, reads.Exec(statement, lines)) << statement << ": " << reads.LastError();
        return lines;
    }

    FdShellTransport link;
    ScriptedShellClient reads;
};

// Polls `condition` until it holds or `ms` (scaled) pass.
template <typename F>
bool Eventually(F condition, int ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ScaledMs(ms));
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Each test runs its own simulator and expects it to stop cleanly: exit
// status 0 also means no sanitizer report and no thread left hanging.
class SimServer : public ::testing::Test {
protected:
    // Options in field order: unixSocket, events, notReady, extraArgs.
    bool Start(const SimRunner::Options& options = {})
    {
        runner = std::make_unique<SimRunner>(options);
        return runner->Running();
    }
    void TearDown() override
    {
        if (runner && runner->Running()) {
            EXPECT_EQ(0, runner->Stop()) << runner->Log();
        }
    }
    SimRunner& Sim() { return *runner; }

    std::unique_ptr<SimRunner> runner;
};

TEST_F(SimServer, ClientReadsFitEveryAnswerOverTcpAndUnixSocket)
{
    // Statement, Exec's result and the lines it gives (for an error: its text).
    const std::vector<std::tuple<std::string, int, std::vector<std::string>>> cases = {
        {"SELECT HwID FROM Hardware LIMIT 3;", 0, {"HwID", "1", "2", "3"}},
        {"SELECT HwID FROM Hardware WHERE HwID < 0;", 0, {"HwID"}},
        {"INSERT INTO Events (EvntDateTime, EvntDscID, UsrID, HwID, EvntData) "
         "VALUES(\"2026-11-23 06:00:00\", \"8\", \"1\", \"1\", \"a|b\");", 0, {}},
        {"SELECT * FROM Nowhere;", -5, {"Error: no such table: Nowhere"}},
        {"SELECT EvntData FROM Events WHERE EvntID = 11;", 0, {"EvntData", "a\\|b"}},
    };
    for (bool unixSocket : {false, true}) {
        ASSERT_TRUE(Start({unixSocket, 0, 0, {}}));
        Client c(Sim());
        ASSERT_TRUE(c.Prepare());
        for (const auto& [statement, result, expected] : cases) {
            std::vector<std::string> lines;
            EXPECT_EQ(result, c.reads.Exec(statement, lines)) << statement;
            EXPECT_EQ(expected, result == 0 ? lines : std::vector<std::string>{c.reads.LastError()}) << statement;
            EXPECT_TRUE(c.link.Quiet()) << statement;  // no leftover bytes
        }
        EXPECT_EQ(0, Sim().Stop()) << Sim().Log();
    }
}

TEST_F(SimServer, ConnectionsBeyondTheLimitAreClosedAtAccept)
{
    ASSERT_TRUE(Start({false, 0, 0, {"--max-clients=2"}}));
    auto first = std::make_unique<Client>(Sim());
    Client second(Sim());
    ASSERT_TRUE(first->Prepare() && second.Prepare());
    Client refused(Sim());
    char c;
    EXPECT_EQ(-1, refused.link.Get(c));
    first.reset();
    EXPECT_TRUE(Eventually([&] { return Client(Sim()).Prepare(); }, 3000));
}

TEST_F(SimServer, SubscriberHearsEveryChangeOfItsTableFromOtherClients)
{
    ASSERT_TRUE(Start());
    SimRunner& sim = Sim();
    Client watcher(sim), writer(sim);
    ASSERT_TRUE(watcher.link.Fd() >= 0 && watcher.reads.Greet("[pid=2] SQL monitor"));
    ASSERT_TRUE(watcher.reads.Subscribe("Events"));
    EXPECT_TRUE(watcher.link.Quiet());
    ASSERT_TRUE(writer.Prepare());
    for (const char* statement : {"INSERT INTO Hardware (HwName, HwType) VALUES ('x', 'unit');",
                                  "INSERT INTO Events (EvntDscID) VALUES (1);",
                                  "UPDATE Events SET EvntData = 'y' WHERE EvntID = 11;", "DELETE FROM Events WHERE EvntID = 11;"})
        writer.Run(statement);
    std::string event;
    for (const char* expected : {"insert Events 11", "update Events 11", "delete Events 11"}) {
        ASSERT_TRUE(watcher.reads.NextEvent(event));
        EXPECT_EQ(expected, event);
    }
    EXPECT_TRUE(watcher.link.Quiet());
}

TEST_F(SimServer, ManyConcurrentClientsLoseNothing)
{
    ASSERT_TRUE(Start());
    SimRunner& sim = Sim();
    const int clients = 24, rows = 40;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < clients; ++t)
        threads.emplace_back([&, t] {
            Client c(sim);
            if (!c.Prepare()) return void(++failures);
            for (int i = 0; i < rows; ++i) {
                std::vector<std::string> lines;
                std::string data = "t" + std::to_string(t) + "-" + std::to_string(i);
                if (c.reads.Exec("INSERT INTO Events (EvntData) VALUES ('" + data + "');", lines) != 0 ||
                    c.reads.Exec("SELECT EvntData FROM Events WHERE EvntData = '" + data + "';", lines) != 0 ||
                    lines != std::vector<std::string>{"EvntData", data})
                    ++failures;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    Client counter(sim);
    ASSERT_TRUE(counter.Prepare());
    EXPECT_EQ((std::vector<std::string>{"n", std::to_string(10 + clients * rows)}), counter.Run("SELECT count(*) AS n FROM Events;"));
}

// Misbehaving clients around one that works: it keeps its answers, a full
// 100,000-row stream still arrives whole, and the simulator stops cleanly
// while the rude ones are still connected.
TEST_F(SimServer, GarbageLongLinesAndAbruptClientsDoNotDisturbOthers)
{
    ASSERT_TRUE(Start({false, 100000, 0, {}}));
    SimRunner& sim = Sim();
    Client steady(sim), idle(sim), watcher(sim);
    ASSERT_TRUE(steady.Prepare() && idle.reads.Greet());
    ASSERT_TRUE(watcher.reads.Greet() && watcher.reads.Subscribe("Events"));

    std::string garbage;
    for (int i = 0; i < 20000; ++i) garbage.push_back(static_cast<char>((i * 7919) & 0xff));
    for (const std::string& junk : {garbage, std::string(70000, 'x') + "\n", std::string("\v\0\r\n", 4)}) {
        Client rude(sim);
        EXPECT_TRUE(rude.link.Send(junk));
    }
    Client longLine(sim);
    ASSERT_TRUE(longLine.reads.Greet());
    std::string answer;
    ASSERT_TRUE(longLine.link.Send(std::string(70000, 'y') + "\r\n"));
    EXPECT_TRUE(longLine.link.ReadUntil("\v#> \n", answer, 3000));
    EXPECT_EQ("\vError: line longer than 65535 bytes\n\v#> \n", answer);

    // Asks for 100,000 rows and leaves at once, or never reads them.
    {
        Client quitter(sim);
        ASSERT_TRUE(quitter.Prepare());
        ASSERT_TRUE(quitter.link.Send("SELECT * FROM Events;\r\n"));
    }
    Client sleeper(sim);
    ASSERT_TRUE(sleeper.Prepare());
    ASSERT_TRUE(sleeper.link.Send("SELECT * FROM Events;\r\n"));

    EXPECT_EQ((std::vector<std::string>{"n", "100010"}), steady.Run("SELECT count(*) AS n FROM Events;"));
    steady.Run("INSERT INTO Events (EvntData) VALUES ('still here');");

    ASSERT_TRUE(steady.link.Send("SELECT * FROM Events LIMIT 100000;\r\n"));
    std::string bytes;
    ASSERT_TRUE(steady.link.ReadUntil("\v#> \n", bytes, 30000));
    EXPECT_EQ(100000 + 2, std::count(bytes.begin(), bytes.end(), '\n'));  // header, rows, the end marker's line
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

TEST_F(SimServer, SilentClientsAreDroppedButSubscribersStay)
{
    ASSERT_TRUE(Start({false, 0, 0, {"--idle-timeout=1"}}));
    SimRunner& sim = Sim();
    Client silent(sim), watcher(sim);
    ASSERT_TRUE(silent.reads.Greet());
    ASSERT_TRUE(watcher.reads.Greet() && watcher.reads.Subscribe("Hardware"));
    char c;
    EXPECT_TRUE(Eventually([&] { return silent.link.Get(c) == -1; }, 5000));
    Client writer(sim);
    ASSERT_TRUE(writer.Prepare());
    writer.Run("DELETE FROM Hardware WHERE HwID = 7;");
    std::string event;
    ASSERT_TRUE(watcher.reads.NextEvent(event));
    EXPECT_EQ("delete Hardware 7", event);
}

TEST_F(SimServer, SubscriberThatNeverReadsIsCutOffAlone)
{
    ASSERT_TRUE(Start());
    SimRunner& sim = Sim();
    Client hoarder(sim), writer(sim, 60000);
    int small = 4096;
    ASSERT_EQ(0, setsockopt(hoarder.link.Fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
    ASSERT_TRUE(writer.Prepare());
    // A long table name makes long change lines: 60,000 of them are about
    // 13 MB, far more than the queue and the socket buffers hold.
    const std::string table = "T" + std::string(200, 'x');
    writer.Run("CREATE TABLE " + table + " (v);");
    ASSERT_TRUE(hoarder.reads.Greet() && hoarder.reads.Subscribe(table));
    writer.Run("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 60000) "
               "INSERT INTO " + table + " SELECT x FROM n;");
    EXPECT_TRUE(Eventually([&] { return sim.Log().find("unread, disconnecting") != std::string::npos; }, 10000));
    EXPECT_EQ((std::vector<std::string>{"n", "60000"}), writer.Run("SELECT count(*) AS n FROM " + table + ";"));
}

}  // namespace
