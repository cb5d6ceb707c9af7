// The discovery library: the answer parser and MAC order as a table, then real passes against scripted units.
#include <gtest/gtest.h>

#include "Discover.h"
#include "daemon.h"
#include "scripted_server.h"
#include "sim_lan.h"

namespace {

// " key=value key=value | key=value |": the records in order.
std::string Text(const std::list<DiscoverRecord>& records)
{
    std::string out;
    for (const DiscoverRecord& record : records) {
        for (const auto& [key, value] : record) out += " " + key + "=" + value;
        out += " |";
    }
    return out;
}

TEST(Discover, ParsesAnswersIntoRecordsInMacOrder)
{
    const struct { const char* label; std::vector<std::string> answers; const char* records; } cases[] = {
        {"value ends at a further =", {"version=1.2=3"}, " version=1.2 |"},
        {"single-line form", {"mac:00:11:22:33:44:55 hwid:5 ipv4:10.0.0.5"},
         " hwid=5 ipv4=10.0.0.5 mac=00:11:22:33:44:55 master=? |"},
        {"hwid before mac is not taken", {"hwid:5 mac:00:11:22:33:44:55"}, " mac=00:11:22:33:44:55 master=? |"},
        {"single line ends the answer", {"a=1\nx mac:1  ipv6:fe80::1\nb=2"}, " a=1 ipv6=fe80::1 mac=1 master=? |"},
        {"empty lines and bare keys skipped, = line ends", {"a=1\n\n\nb\nc=\n===\nd=4"}, " a=1 |"},
        {"a record without mac is a barrier", {"hostname=x", "mac=02", "mac=01"}, " hostname=x | mac=02 | mac=01 |"},
        {"an empty mac is none", {"mac=02", "mac:", "mac=01"}, " mac=01 | mac=02 | mac= master=? |"},
        {"equal macs as they came", {"mac=01\nn=1", "mac=01\nn=2", "mac=00"}, " mac=00 | mac=01 n=1 | mac=01 n=2 |"},
    };
    for (const auto& c : cases) {
        std::list<DiscoverRecord> records;
        for (std::string answer : c.answers) {
            DiscoverRecord record;
            Discover::ParseAnswer(&answer[0], record);
            Discover::InsertByMac(records, std::move(record));
        }
        EXPECT_EQ(Text(records), c.records) << c.label;
    }
}

std::string g_reported;  // each reported line with the counter's value, then "|"
int* g_counter = nullptr;
void Collect(const char* line, int* value)
{
    g_reported += std::string(line) + " #" + std::to_string(*value) + "|";
    g_counter = value;
}

// The tests play the units themselves, in a LAN of their own.
class DiscoverLan : public ::testing::Test {
protected:
    void SetUp() override { SKIP_WITHOUT_NETNS(); ASSERT_TRUE(lan.Up()) << lan.Error(); }
    std::unique_ptr<ScriptedDatagramPeer> Unit(std::vector<Script> scripts)  // in the units namespace
    {
        std::unique_ptr<ScriptedDatagramPeer> unit;
        EXPECT_TRUE(RunInNetns(lan.Units(), [&] { unit.reset(new ScriptedDatagramPeer(scripts, 3543)); }));
        return unit;
    }
    SimLan lan{{"0"}};
};

// The pairs and callback forms read the same answers; requests go out byte for byte; a raised exit
// flag ends the pause at once. Reported: at "hostname", at "master" before any "hwid", and (once,
// after the answers) the last answer that collected values without a report.
TEST_F(DiscoverLan, ReadsAnswersAndSendsRequestsByteForByte)
{
    Script answers = {Send("mac:00:11:22:33:44:55 hwid:5"), Send("mac=02:00:00:00:00:01\nipv4=i\nhostname=a"),
                      Send("mac=m\nrs485=12\nmaster=x\nhwid=7"), Send("version=1"), Send("mac=n\nmasterMac=a"),
                      Send("mac=02:00:00:00:00:02\nhwid=3\nmaster=a")};
    auto unit = Unit({answers, answers});
    EXPECT_TRUE(RunInNetns(lan.Client(), [] {
        Discover discovery(3543);
        discovery.SetWait(0.3);
        std::list<std::pair<SockAddr, SockAddr>> pairs;
        ASSERT_TRUE(discovery.Find(pairs));
        char from[SockAddr::m_strLen], mac[SockAddr::m_strLen];
        std::string found;  // only the single-line form gives a pair
        for (const auto& [at, unit] : pairs) found += std::string(at.Str(from, true)) + " " + unit.Str(mac) + "|";
        EXPECT_EQ(found, "192.168.77.2:3543 00:11:22:33:44:55|");
        g_reported.clear();
        int hwId = 4;
        ASSERT_TRUE(discovery.Find(Collect, false, &hwId, "aa:bb:cc:dd:ee:ff"));
        EXPECT_EQ(g_reported, "02:00:00:00:00:01 i NONE NONE NONE #4|m NONE NONE NONE NONE #4|"
                              "02:00:00:00:00:02 NONE 3 NONE NONE #4|");
        discovery.SetWait(30);
        std::list<DiscoverRecord> none;
        daemon_should_exit = true;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(discovery.Find(none) && std::chrono::steady_clock::now() - start < std::chrono::seconds(10));
        daemon_should_exit = false;
        SockAddr target(AF_MAC, "00:11:22:33:44:55");
        EXPECT_TRUE(discovery.SetIPv4(target, "192.168.1.20", "255.255.255.0", "192.168.1.1", "192.168.1.1", true, "x"));
        EXPECT_FALSE(discovery.SetIPv4(target, "1.2.3.4", "255.0.0.0", "1.2.3.1", std::string(1500, 'd').c_str(), true, ""));
        EXPECT_EQ(discovery.LastError(), -EMSGSIZE);
    }));
    WaitUntil([&] { return unit->Received().size() >= 4; }, ScaledMs(5000));
    const std::string hello("Hello", 6), set = "SetIPv4 mac:00:11:22:33:44:55 192.168.1.20 255.255.255.0 192.168.1.1 "
                                                "192.168.1.1 permanent\nx" + std::string(1, '\0');
    EXPECT_EQ(unit->Received(), (std::vector<std::string>{hello, hello, hello, set}));
}

// A "serial enum" session of the local daemon's command channel.
Script SerialEnum(const std::string& lines)
{
    return {Send("vantor daemon\n#> "), Expect("serial enum\n"), Send(lines + "#> ")};
}

TEST_F(DiscoverLan, CentralSearchReportsEachCentralLine)
{
    const std::string frame = "/dev/ttyS1\nIdx  HwID  Addr  MAC  IPv4  State  Master  Version  Serial\n-------\n";
    auto unit = Unit({{Send("mac=02\nn=queued")}, {}, {}, {Send("mac=01\nn=fresh")}});
    EXPECT_TRUE(RunInNetns(lan.Client(), [&] {
        ScriptedServer daemon({SerialEnum(frame + "1 17 5 00:11:22:33:44:55 10.0.0.9 x 00:00:00:00:00:00\n\n"
                                                  "2 18,1234,00:00:00:00:00:00 0.0.0.0 s 02:00:00:00:00:01 v z extra\n"),
                               SerialEnum("3 40 7 02:00:00:00:00:03\n"), SerialEnum("4 abc\n5 41\n"),
                               {Send("#> "), Expect("serial set 02:00:00:00:00:09 12\n"), Send("Central moved.\n#> ")}},
                              SockAddr(AF_INET, 0x7F000001u, 3543));
        Discover discovery(3543);
        discovery.SetWait(0.2);
        g_reported.clear();
        RS485_MASTER_MAC_CHANGED = 0;
        for (int search = 0; search < 3; search++) {
            ASSERT_TRUE(discovery.Find(Collect, true, nullptr, "aa:bb:cc:dd:ee:ff"));
            if (search == 1) *g_counter = 0;  // no search resets it; a caller may
        }
        EXPECT_EQ(g_reported, "00:11:22:33:44:55 10.0.0.9 17 5 NONE aa:bb:cc:dd:ee:ff #17|"
                              "NONE NONE 18 NONE 02:00:00:00:00:01 aa:bb:cc:dd:ee:ff #17|"
                              "02:00:00:00:00:03 NONE 40 7 NONE aa:bb:cc:dd:ee:ff #17|"
                              "NONE NONE abc NONE NONE aa:bb:cc:dd:ee:ff #0|"
                              "NONE NONE 41 NONE NONE aa:bb:cc:dd:ee:ff #41|");
        discovery.ChangeRS485Address("10.0.0.1", "02:00:00:00:00:09", 12);  // true whatever happened
        discovery.ChangeRS485Address("10.0.0.1", std::string(200, 'm').c_str(), 12);
        EXPECT_TRUE(daemon.WaitScriptsDone(ScaledMs(5000)));
        EXPECT_EQ(daemon.Accepted(), 4);  // the too long "serial set" is not sent
        // The searches left the units' answers queued for this pass.
        std::list<DiscoverRecord> units;
        ASSERT_TRUE(discovery.Find(units));
        EXPECT_EQ(Text(units), " mac=01 n=fresh remote=192.168.77.2:3543 | mac=02 n=queued remote=192.168.77.2:3543 |");
    }));
}

// With only the loopback interface even the hand-built frame has no source.
TEST(DiscoverRs485, WithoutAnInterfaceNoSearchStarts)
{
    SKIP_WITHOUT_NETNS();
    EXPECT_EQ(0, RunInNamespaces(CLONE_NEWNET, [] {
        ScriptedServer daemon({SerialEnum("")}, SockAddr(AF_INET, 0x7F000001u, 3543));
        Discover discovery(3543);
        CHILD_CHECK(!discovery.Find(Collect, true, nullptr, "") && discovery.LastError() < 0 && daemon.Accepted() == 0);
        return 0;
    }));
}

}  // namespace
