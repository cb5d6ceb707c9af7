#include <gtest/gtest.h>

#include <memory>

#include "process.h"
#include "recording_monitor.h"
#include "sim_runner.h"
#include "sql_script.h"

namespace {

// Greeting, subscription request, its prompt, then what the server pushes.
Script Subscribed(const std::string& pushed, const std::string& request = "monitor Events\r\n")
{
    return Then(Greeting("SQL monitor"), {Expect(request), Send("#> "), Send(pushed)});
}

// Events lose their six-byte prefix and the '!'; a loss, a refusal or a silent set-up is retried a second later;
// whatever the server does, the stop (ENTER in the command) is prompt.
TEST(MonitorTest, EventsAndLossesAsTheServerSendsThem)
{
    const Script asked = Then(Greeting("SQL monitor"), {Expect("monitor Events\r\n")});
    const Script refused = Then(asked, {Send("\vError: no such table: Events\n\v#> \n")});
    struct Case { const char* label; std::vector<Script> scripts; std::vector<std::string> log; int setupSeconds = 0;
                  unsigned operations = 0; } cases[] = {
        {"events", {Then(Subscribed("123456first!\nsecond!\nx\n"), {Close()}), Subscribed("abcdefthird!\n")},
         {"up", "event:first", "event:second", "event:", "down", "up", "event:third"}},
        {"marker", {Subscribed("\vError: oops\n\v\nabcdefone!\n\v\n"), Subscribed("abcdeftwo!\n")},
         {"up", "event:one", "down", "up", "event:two"}},
        {"before the first", {{Close()}, {Close()}, Subscribed("abcdefhello!\n")}, {"up", "event:hello"}},
        {"refused", {refused, Subscribed("abcdefone!\n")}, {"refused:Error: no such table: Events", "up", "event:one"}},
        {"bounded", {{Send("banner\n")}, asked, Subscribed("abcdefone!\n")}, {"up", "event:one"}, 1},
        {"operations in order", {Subscribed("abcdefone!\n", "monitor Events select insert update delete\r\n")},
         {"up", "event:one"}, 0, MonitorWrapper::OPERATION_ALL},
        {"waiting for a prompt", {{Send("banner\n")}}, {}},
        {"retrying an absent server", {}, {}},
    };
    for (Case& c : cases) {
        ScriptedServer server(std::move(c.scripts));
        auto monitor = std::make_unique<RecordingMonitor>(server.Addr(), c.operations);  // its stop is timed
        monitor->Bounds(c.setupSeconds, c.setupSeconds, 0);
        ASSERT_TRUE(monitor->InitOK() && monitor->WaitForEntries(c.log.size()) &&
                    WaitUntil([&] { return server.Accepted() >= 1; }, ScaledMs(5000))) << c.label;
        EXPECT_EQ(monitor->Log(), c.log) << c.label;
        auto times = server.AcceptTimes();
        for (size_t i = 1; i < times.size(); i++)
            EXPECT_GE(times[i] - times[i - 1], std::chrono::milliseconds(900)) << c.label << ": a second apart";
        auto start = std::chrono::steady_clock::now();
        monitor.reset();
        EXPECT_LT(MsSince(start), ScaledMs(3000)) << c.label;
        for (const std::string& failure : server.Failures()) ADD_FAILURE() << c.label << ": " << failure;
    }
}

TEST(MonitorTest, StartsOnceAndCallsNothingBackAfterItsStop)
{
    std::string flood;
    for (int i = 0; i < 5000; i++) flood += "abcdefline" + std::to_string(i) + "!\n";
    ScriptedServer server({Subscribed(flood)});
    RecordingMonitor monitor(server.Addr(), 0);
    EXPECT_TRUE(monitor.InitOK() && !monitor.Start() && monitor.InitOK()) << "started once, by the first InitOK";
    ASSERT_TRUE(monitor.WaitForEntries(100) && monitor.Stop());
    EXPECT_FALSE(WaitUntil([&, seen = monitor.Log().size()] { return monitor.Log().size() != seen; }, ScaledMs(200)));
    EXPECT_NE(monitor.Log().back(), "down") << "a stop is no lost connection";
}

// State changes go to standard error once each (a retry logs its first failure only), changes to standard output.
TEST(MonitorCommand, PrintsChangesAndItsStateAndGivesUpOnARefusedTable)
{
    SimRunner sim;
    ASSERT_TRUE(sim.Running()) << sim.Log();
    const std::string at = sim.Address(), server = "--server=" + at;
    const std::string start = "Connecting to " + at + "...\nPress ENTER to stop.\nWaiting for " + at + " ...\n";
    auto merged = [&](const char* table) {
        return InShell("exec \"$@\" 2>&1", TargetArgv(VTEST_BINARY, {"monitor", server, table}));
    };
    ChildProcess refused(merged("Nowhere"));
    EXPECT_TRUE(!refused.WaitForOutput("never printed", 10000) && refused.Wait(5000) == 1);  // read to its end
    EXPECT_EQ(OperatorErrors(refused.Output()), start + "Cannot monitor Nowhere: Error: no such table: Nowhere.\n");
    RunResult early = RunVtest({"monitor", "--server=127.0.0.1:1", "Events"}, "\n");
    EXPECT_TRUE(early.status == 0 && early.err == "Waiting for 127.0.0.1:1 ...\n") << early.status << early.err;
    ChildProcess monitor(merged("Hardware"));
    const std::string subscribed = "Monitoring Hardware on " + at + ".\n", change = "insert Hardware 99\n";
    ASSERT_TRUE(monitor.WaitForOutput(subscribed, 10000)) << monitor.Output();
    RunVtest({"sql", server, "INSERT INTO Hardware (HwID, HwName, HwType) VALUES (99, 'm', 'central');"});
    ASSERT_TRUE(monitor.WaitForOutput(change, 10000)) << monitor.Output();
    sim.Stop();
    const std::string lost = "Connection to " + at + " lost; retrying every second.\n";
    ASSERT_TRUE(monitor.WaitForOutput(lost, 10000));
    EXPECT_FALSE(monitor.WaitForOutput("never printed", 2500));  // two rounds of retries
    EXPECT_TRUE(monitor.Write("\n") && monitor.Wait(5000) == 0);
    EXPECT_EQ(OperatorErrors(monitor.Output()), start + subscribed + change + lost);
    EXPECT_EQ(CountOf(monitor.Output(), "Unable to connect"), 1u) << monitor.Output();
    EXPECT_EQ(CountOf(monitor.Output(), "<MonitorWrapper> Connect failed: connection refused by " + at + "."), 1u);
}

}  // namespace
