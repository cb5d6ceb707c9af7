// vantor-sim over real sockets; a clean stop (status 0) also means no sanitizer report and no thread left.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>

#include "process.h"
#include "shell_client.h"
#include "sim_runner.h"
#include "wait.h"

namespace {

using Lines = std::vector<std::string>;

struct Client {
    explicit Client(const SimRunner& sim, int waitMs = 15000) : link(sim.Connect(), waitMs), reads(link) {}
    bool Prepare() { return link.Fd() >= 0 && reads.Greet() && reads.Setup() && link.Quiet(); }
    Lines Run(const std::string& statement)
    {
        Lines lines;
        EXPECT_EQ(0, reads.Exec(statement, lines)) << statement << ": " << reads.LastError();
        return lines;
    }
    bool Closed()
    {
        char c;
        return link.Get(c) == -1;
    }

    FdShellTransport link;
    ScriptedShellClient reads;
};

// A silent client is dropped after --idle-timeout, freeing its place; a subscriber, silent too, stays.
TEST(SimServer, LimitAndIdleTimeOutSpareSubscribers)
{
    {  // the limit on its own simulator: with an idle time-out a slow machine could free a place first
        SimRunner full({false, 0, 0, {"--max-clients=2"}});
        ASSERT_TRUE(full.Running()) << full.Log();
        Client first(full), second(full);
        ASSERT_TRUE(first.Prepare() && second.Prepare());
        EXPECT_TRUE(Client(full).Closed());
    }
    SimRunner sim({false, 0, 0, {"--max-clients=2", "--idle-timeout=1"}});
    ASSERT_TRUE(sim.Running()) << sim.Log();
    Client silent(sim), watcher(sim);
    ASSERT_TRUE(silent.reads.Greet() && watcher.reads.Greet("[pid=2] SQL monitor") && watcher.reads.Subscribe("Events"));
    EXPECT_TRUE(WaitUntil([&] { return silent.Closed(); }, ScaledMs(5000)));
    std::unique_ptr<Client> writer;
    ASSERT_TRUE(WaitUntil([&] { return (writer = std::make_unique<Client>(sim))->Prepare(); }, ScaledMs(3000)));
    writer->Run("INSERT INTO Events (EvntDscID) VALUES (1); DELETE FROM Events WHERE EvntID = 11;");
    std::string event;
    for (const char* expected : {"insert Events 11", "delete Events 11"})
        EXPECT_TRUE(watcher.reads.NextEvent(event) && event == expected) << event;
    EXPECT_TRUE(watcher.link.Quiet());
    writer.reset();  // a client's own close frees its place too
    EXPECT_TRUE(WaitUntil([&] { return Client(sim).Prepare(); }, ScaledMs(3000)));
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

TEST(SimServer, ManyConcurrentClientsLoseNothing)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    const int clients = 24, rows = 40;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < clients; ++t)
        threads.emplace_back([&, t] {
            Client c(sim);
            failures += !c.Prepare();
            for (int i = 0; i < rows && failures == 0; ++i) {
                const std::string data = std::to_string(t) + "-" + std::to_string(i);
                Lines lines;
                failures += c.reads.Exec("INSERT INTO Events (EvntData) VALUES ('" + data + "'); SELECT EvntData "
                                         "FROM Events WHERE EvntID = last_insert_rowid();", lines) != 0 ||
                            lines != Lines{"EvntData", data};
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    Client counter(sim);
    ASSERT_TRUE(counter.Prepare());
    EXPECT_EQ((Lines{"n", std::to_string(10 + clients * rows)}), counter.Run("SELECT count(*) AS n FROM Events;"));
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

// A full 100,000-row stream still arrives whole, and the stop is clean, while the rude ones are connected.
TEST(SimServer, GarbageLongLinesAndAbruptClientsDoNotDisturbOthers)
{
    SimRunner sim({false, 100000, 0, {}});
    ASSERT_TRUE(sim.Running()) << sim.Log();
    Client steady(sim), watcher(sim), sleeper(sim), longLine(sim);
    ASSERT_TRUE(steady.Prepare() && watcher.reads.Greet() && watcher.reads.Subscribe("Events"));
    std::string garbage;
    for (int i = 0; i < 20000; ++i) garbage.push_back(static_cast<char>((i * 7919) & 0xff));
    for (const std::string& junk : {garbage, std::string(70000, 'x') + "\n", std::string("\v\0\r\n", 4)})
        EXPECT_TRUE(Client(sim).link.Send(junk));
    std::string answer;
    ASSERT_TRUE(longLine.reads.Greet() && longLine.link.Send(std::string(70000, 'y') + "\r\n"));
    EXPECT_TRUE(longLine.link.ReadUntil("\vError: line longer than 65535 bytes\n\v#> \n", answer, 3000)) << answer;
    {  // asks for 100,000 rows and leaves at once
        Client quitter(sim);
        ASSERT_TRUE(quitter.Prepare() && quitter.link.Send("SELECT * FROM Events;\r\n"));
    }
    ASSERT_TRUE(sleeper.Prepare() && sleeper.link.Send("SELECT * FROM Events;\r\n"));  // asks and never reads
    EXPECT_EQ((Lines{"n", "100010"}), steady.Run("SELECT count(*) AS n FROM Events;"));
    steady.Run("INSERT INTO Events (EvntData) VALUES ('still here');");
    ASSERT_TRUE(steady.link.Send("SELECT * FROM Events LIMIT 100000;\r\n"));
    std::string all;
    ASSERT_TRUE(steady.link.ReadUntil("\v#> \n", all, 30000));
    EXPECT_EQ(100000 + 2, std::count(all.begin(), all.end(), '\n'));  // header, rows, the end marker's line
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

TEST(SimServer, SubscriberThatNeverReadsIsCutOffAlone)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    Client hoarder(sim), writer(sim, 60000);
    int small = 4096;
    ASSERT_EQ(0, setsockopt(hoarder.link.Fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
    ASSERT_TRUE(writer.Prepare());
    const std::string table = "T" + std::string(200, 'x');  // 60,000 change lines of it far outgrow every buffer
    writer.Run("CREATE TABLE " + table + " (v);");
    ASSERT_TRUE(hoarder.reads.Greet() && hoarder.reads.Subscribe(table));
    writer.Run("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 60000) "
               "INSERT INTO " + table + " SELECT x FROM n;");
    EXPECT_TRUE(WaitUntil([&] { return sim.Log().find("unread, disconnecting") != std::string::npos; }, ScaledMs(10000)));
    EXPECT_EQ((Lines{"n", "60000"}), writer.Run("SELECT count(*) AS n FROM " + table + ";"));
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

}  // namespace
