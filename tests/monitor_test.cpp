#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "process.h"
#include "recording_monitor.h"
#include "sql_script.h"
#include "wait.h"

namespace {

using Clock = std::chrono::steady_clock;

const char kSubscription[] = "monitor Events\r\n";

// Greeting, subscription request, its prompt, then what the server pushes.
Script Subscribed(const std::string& pushed, const std::string& request = kSubscription)
{
    return Then(Greeting("SQL monitor"), {Expect(request), Send("#> "), Send(pushed)});
}

class MonitorTest : public ::testing::Test {
protected:
    RecordingMonitor& Monitor(std::vector<Script> scripts, unsigned operations = 0)
    {
        m_server = std::make_unique<ScriptedServer>(std::move(scripts));
        m_addr = m_server->Addr();
        m_monitor = std::make_unique<RecordingMonitor>(m_addr, operations);
        EXPECT_TRUE(m_monitor->InitOK());
        return *m_monitor;
    }
    // Destroys the monitor and returns how long that took.
    long DestroyMonitor()
    {
        auto start = Clock::now();
        m_monitor.reset();
        return MsSince(start);
    }
    void TearDown() override
    {
        m_monitor.reset();
        if (m_server)
            for (const std::string& failure : m_server->Failures()) ADD_FAILURE() << failure;
    }

    std::unique_ptr<ScriptedServer> m_server;
    SockAddr m_addr;
    std::unique_ptr<RecordingMonitor> m_monitor;
};

using Log = std::vector<std::string>;

TEST_F(MonitorTest, StartsOnceWhetherByInitOKOrStart)
{
    ScriptedServer server({});
    RecordingMonitor monitor(server.Addr(), 0);
    EXPECT_FALSE(monitor.IsRunning());
    EXPECT_TRUE(monitor.Start());
    EXPECT_TRUE(monitor.InitOK());
    EXPECT_FALSE(monitor.Start());
    EXPECT_TRUE(monitor.InitOK());
}

TEST_F(MonitorTest, EventsCutSkipAndResubscribeAfterALostConnection)
{
    RecordingMonitor& monitor = Monitor({Then(Subscribed("123456first!\nsecond!\nx\n"), {Close()}),
                                         Subscribed("abcdefthird!\n")});
    ASSERT_TRUE(monitor.WaitForEntries(7));
    EXPECT_EQ(monitor.Log(), (Log{"up", "event:first", "event:second", "event:", "down", "up", "event:third"}));
}

TEST_F(MonitorTest, SubscriptionNamesTheOperationsInTheServersOrder)
{
    RecordingMonitor& monitor = Monitor({Subscribed("", "monitor Events select insert update delete\r\n")},
                                        MonitorWrapper::OPERATION_ALL);
    ASSERT_TRUE(monitor.WaitForEntries(1));
    EXPECT_TRUE(m_server->WaitScriptsDone(ScaledMs(5000)));
}

TEST_F(MonitorTest, ErrorLinesAreIgnoredAndABareMarkerIsALoss)
{
    RecordingMonitor& monitor =
        Monitor({Subscribed("\vError: oops\n\v\nabcdefone!\n\v\n"), Subscribed("abcdeftwo!\n")});
    ASSERT_TRUE(monitor.WaitForEntries(5));
    EXPECT_EQ(monitor.Log(), (Log{"up", "event:one", "down", "up", "event:two"}));
}

TEST_F(MonitorTest, NoCallbackBeforeTheFirstSubscriptionAndRetriesASecondApart)
{
    RecordingMonitor& monitor = Monitor({{Close()}, {Close()}, Subscribed("abcdefhello!\n")});
    ASSERT_TRUE(monitor.WaitForEntries(2));
    EXPECT_EQ(monitor.Log(), (Log{"up", "event:hello"}));
    auto times = m_server->AcceptTimes();
    ASSERT_EQ(times.size(), 3u);
    for (size_t i = 1; i < times.size(); i++)
        EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(times[i] - times[i - 1]).count(), 900);
}

TEST_F(MonitorTest, NoCallbackAfterStopReturns)
{
    std::string flood;
    for (int i = 0; i < 5000; i++) flood += "abcdefline" + std::to_string(i) + "!\n";
    RecordingMonitor& monitor = Monitor({Subscribed(flood)});
    ASSERT_TRUE(monitor.WaitForEntries(100));
    EXPECT_TRUE(monitor.Stop());
    size_t seen = monitor.Log().size();
    EXPECT_FALSE(WaitUntil([&] { return monitor.Log().size() != seen; }, ScaledMs(200)));
    EXPECT_NE(monitor.Log().back(), "down") << "a stop is no lost connection";
}

// The monitor command ends on ENTER: the stop must not wait for a silent or
// absent server. Measured, not asserted tightly.
TEST_F(MonitorTest, StopsPromptlyWhateverTheServerDoes)
{
    struct Case {
        const char* label;
        std::vector<Script> scripts;
        size_t entries;  // callbacks to wait for before stopping
    };
    std::vector<Case> cases;
    cases.push_back({"subscribed to a silent server", {Subscribed("")}, 1});
    cases.push_back({"waiting for a prompt", {{Send("banner\n")}}, 0});
    cases.push_back({"retrying an absent server", {}, 0});
    for (Case& c : cases) {
        RecordingMonitor& monitor = Monitor(std::move(c.scripts));
        bool ready = c.entries ? monitor.WaitForEntries(c.entries)
                               : WaitUntil([&] { return m_server->Accepted() >= 1; }, ScaledMs(5000));
        ASSERT_TRUE(ready) << c.label;
        long ms = DestroyMonitor();
        std::cout << "monitor stop, " << c.label << ": " << ms << " ms\n";
        RecordProperty(c.label, std::to_string(ms));
        EXPECT_LT(ms, ScaledMs(3000)) << c.label;
    }
}

}  // namespace
