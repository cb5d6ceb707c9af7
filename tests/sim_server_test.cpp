// vantor-sim over real sockets, read by the system's own clients; a clean stop (status 0) also means no sanitizer
// report and no thread left.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "recording_monitor.h"
#include "shell_client.h"

namespace {

using Rows = std::vector<std::string>;

// A silent client is dropped after --idle-timeout, freeing its place; a subscriber, silent too, stays.
TEST(SimServer, LimitAndIdleTimeOutSpareSubscribers)
{
    {  // the limit on its own simulator: with an idle time-out a slow machine could free a place first
        SimRunner full({false, 0, 0, {"--max-clients=2"}});
        EXPECT_TRUE(SimShell(full)->Reconnect() && SimShell(full)->Reconnect() && !SimShell(full)->Reconnect());
    }
    SimRunner sim({false, 0, 0, {"--max-clients=2", "--idle-timeout=1"}});
    RecordingMonitor watcher(SimAddr(sim), 0);
    ASSERT_TRUE(watcher.InitOK() && watcher.WaitForEntries(1)) << sim.Log();
    auto silent = SimShell(sim);  // greeted after the subscription: once it is dropped, the watcher was as silent
    ASSERT_TRUE(silent->Connect());
    EXPECT_TRUE(WaitUntil([&] { return silent->Pending() == -EPIPE; }, ScaledMs(5000)));
    const std::string change = "INSERT INTO Events (EvntDscID) VALUES (1); DELETE FROM Events WHERE EvntID = 11;";
    EXPECT_TRUE(WaitUntil([&] { return SimRun(*SimShell(sim), change) == Rows{}; }, ScaledMs(3000)));
    EXPECT_TRUE(WaitUntil([&] { return SimShell(sim)->Reconnect(); }, ScaledMs(3000)));  // the writer's close freed it
    ASSERT_TRUE(watcher.WaitForEntries(3));
    EXPECT_EQ((Rows{"up", "event:insert Events 11", "event:delete Events 11"}), watcher.Log());
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

TEST(SimServer, ManyConcurrentClientsLoseNothing)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    const int clients = 24, rows = 40;
    std::atomic<int> failures{0};
    std::vector<Rows> got(clients);  // each client's last answer, the failed one where it stopped
    std::vector<std::thread> threads;
    for (int t = 0; t < clients; ++t)
        threads.emplace_back([&, t] {
            auto shell = SimShell(sim);
            for (int i = 0; i < rows && failures == 0; ++i) {
                const std::string data = std::to_string(t) + "-" + std::to_string(i);
                got[t] = SimRun(*shell, "INSERT INTO Events (EvntData) VALUES ('" + data + "'); SELECT EvntData "
                                        "FROM Events WHERE EvntID = last_insert_rowid();");
                failures += got[t] != Rows{"EvntData", data};
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load()) << ::testing::PrintToString(got);
    const Rows count{"n", std::to_string(10 + clients * rows)};
    EXPECT_EQ(count, SimRun(*SimShell(sim), "SELECT count(*) AS n FROM Events;"));
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

// A full 100,000-row stream still arrives whole, and the stop is clean, while the rude ones are connected; a
// subscriber that never reads is cut off alone.
TEST(SimServer, GarbageAbruptAndNeverReadingClientsDoNotDisturbOthers)
{
    SimRunner sim({false, 100000, 0, {}});
    ASSERT_TRUE(sim.Running()) << sim.Log();
    std::string garbage;
    for (int i = 0; i < 20000; ++i) garbage.push_back(static_cast<char>((i * 7919) & 0xff));
    for (const std::string& junk : {garbage, std::string(70000, 'x') + "\n", std::string("\v\0\r\n", 4)})
        EXPECT_TRUE(RawLink(sim.Connect()).Send(junk));
    RawLink hoarder(sim.Connect());
    int small = 4096;
    ASSERT_EQ(0, setsockopt(hoarder.fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
    auto sleeper = SimShell(sim), steady = SimShell(sim);
    const std::string table = "T" + std::string(200, 'x');  // 60,000 change lines of it far outgrow every buffer
    EXPECT_EQ(Rows{}, SimRun(*steady, "CREATE TABLE " + table + " (v);"));
    ASSERT_TRUE(hoarder.Send("comment\n" + std::string(70000, 'y') + "\nmonitor " + table + "\r\n") &&
                hoarder.ReadUntil("#> \vError: line longer than 65535 bytes\n\v#> \n#> "));  // it survived a long line
    // One asks for 100,000 rows and leaves at once, the sleeper asks and never reads on.
    ASSERT_TRUE(SimShell(sim)->Exec("SELECT * FROM Events;") && sleeper->Exec("SELECT * FROM Events;"));
    EXPECT_EQ(Rows{}, SimRun(*steady, "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n WHERE x < 60000) "
                                      "INSERT INTO " + table + " SELECT x FROM n;"));
    const auto cutOff = [&] { return sim.Log().find("unread, disconnecting") != std::string::npos; };
    EXPECT_TRUE(WaitUntil(cutOff, ScaledMs(10000)));
    EXPECT_EQ(100000u + 1, SimRun(*steady, "SELECT EvntID FROM Events LIMIT 100000;").size());
    EXPECT_EQ(0, sim.Stop()) << sim.Log();
}

}  // namespace
