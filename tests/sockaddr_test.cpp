#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "SockAddr.h"
#include "utils.h"
#include "process.h"

namespace {

std::string Text(const SockAddr& a, bool port = true)
{
    char buf[SockAddr::m_strLen];
    return a.Str(buf, port);
}

SockAddr Parsed(sa_family_t family, const char* text)
{
    SockAddr a;
    EXPECT_TRUE(a.Parse(family, text)) << text;
    return a;
}

SockAddr V6(std::initializer_list<unsigned> groups, int port = 0)
{
    unsigned char bytes[16] = {};
    int i = 0;
    for (unsigned g : groups) {
        bytes[i++] = static_cast<unsigned char>(g >> 8);
        bytes[i++] = static_cast<unsigned char>(g);
    }
    return SockAddr(AF_INET6, bytes, port);
}

// Names are case-sensitive; unknown values read back as "none" or "x".
TEST(SockAddr, TypeAndParityNamesOutsideTheTable)
{
    EXPECT_EQ(SockAddr::Type("IPV4"), 0);
    EXPECT_STREQ(SockAddr::Type(7), "none");
    EXPECT_STREQ(SockAddr::Parity2a(static_cast<Parity>(5)), "x");
    EXPECT_EQ(SockAddr::a2parity('E'), NONE);
}

TEST(SockAddr, ParsesTextOfEveryFamily)
{
    struct Case {
        const char* type;
        const char* text;
        const char* printed;
    } cases[] = {
        {"ipv4", "10.0.0.1", "10.0.0.1:0"},
        {"ipv4", "10.0.0.1:3000", "10.0.0.1:3000"},
        {"ipv4", "300.1.1.1", "44.1.1.1:0"},           // the first octet is cut to 8 bits
        {"ipv4", "2.256.0.1", "3.0.0.1:0"},            // spills into the octet before
        {"ipv4", "1.2.3.-1", "255.255.255.255:0"},     // a negative octet sets every bit
        {"ipv4", "localhost:3543", "127.0.0.1:3543"},  // not literal: the resolver
        {"ipv6", "fe80::1|80", "fe80::0001|80"},
        {"ipv6", "fe80::1:80", "fe80::0001:0080|0"},   // ':' is never the port separator
        {"unix", "/tmp/x.sock", "/tmp/x.sock"},
        {"name", "eth0", "eth0"},
        {"mac", "00:1A:2b:3c:4d:5e", "00:1a:2b:3c:4d:5e"},
        {"rs485", "2@ttyS1!9600/8/e/1", "2@ttyS1!9600/8/e/1"},
    };
    for (const Case& c : cases) EXPECT_EQ(Text(Parsed(SockAddr::Type(c.type), c.text)), c.printed) << c.text;
}

TEST(SockAddr, RefusedTextLeavesAnInvalidAddress)
{
    static const std::string kLongPath = "/tmp/" + std::string(110, 'p');
    struct Case {
        sa_family_t family;
        const char* text;
    } cases[] = {
        {AF_INET, nullptr}, {AF_INET, ""}, {0, "x"}, {36, "x"}, {7, "x"},
        {AF_INET, "localhost:nosuchservice"}, {AF_INET6, "::1|nosuchservice"},
        {AF_INET6, "0000:0000:0000:0000:0000:0000:0000:0001|65535000000000"},  // over 50 characters
        {AF_MAC, "00:11:22:33:44"}, {AF_RS485, "0"}, {AF_RS485, "-3"},
        {AF_UNIX, kLongPath.c_str()},  // too long for sun_path: refused, not cut
    };
    for (const Case& c : cases) {
        SockAddr a(AF_INET, 0x7f000001u, 1);
        EXPECT_FALSE(a.Parse(c.family, c.text)) << (c.text ? c.text : "(null)");
        EXPECT_EQ(a.GetAF(), 0) << (c.text ? c.text : "(null)");
        EXPECT_EQ(Text(a), "unknown");
    }
}

TEST(SockAddr, ResolverErrorsMapToErrno)
{
    SockAddr a;
    EXPECT_EQ(a.GetIP("localhost:nosuchservice", AF_INET), -ENODATA);
    EXPECT_EQ(a.GetIP("localhost", 12345), -EINVAL);
    EXPECT_EQ(a.GetIP(std::string(51, '1').c_str(), AF_INET), -EINVAL);
    EXPECT_EQ(a.GetIP("::1|8080", AF_INET6), 0);
    EXPECT_EQ(Text(a), "::0001|8080");
}

TEST(SockAddr, IPv6TextCompressesOnlyTheFirstZeroRun)
{
    struct Case {
        SockAddr addr;
        const char* text;
    } cases[] = {
        {V6({0x2001, 0xdb8, 1, 2, 3, 4, 5, 6}), "2001:0db8:0001:0002:0003:0004:0005:0006"},
        {V6({0xfe80, 0, 0, 0, 0x211, 0x22ff, 0xfe33, 0x4455}), "fe80::0211:22ff:fe33:4455"},
        {V6({1, 0, 3, 0, 0, 0, 0, 7}), "0001::0003:0000:0000:0000:0000:0007"},
        {V6({1, 2, 3, 0, 5, 6, 7, 8}), "0001:0002:0003::0005:0006:0007:0008"},
        {V6({0, 0, 0, 0, 0, 0, 0, 0}), "::"},
        {V6({0, 0, 3, 4, 5, 6, 7, 8}), "::0003:0004:0005:0006:0007:0008"},
        {V6({1, 2, 3, 4, 5, 6, 0, 0}), "0001:0002:0003:0004:0005:0006::"},
        {V6({1, 2, 3, 4, 5, 6, 7, 0}, 443), "0001:0002:0003:0004:0005:0006:0007::|443"},
    };
    for (const Case& c : cases) EXPECT_EQ(Text(c.addr, c.addr.GetPort() != 0), c.text);
}

// Accepted texts print back the same after one more round; refused ones
// leave an invalid address.
TEST(SockAddr, SerialTextRoundTripsOrIsRefused)
{
    sockaddr_serial line = {};
    safe_strncpy(line.dev, "ttyUSB0", sizeof line.dev);
    line.speed = 19200;
    line.bits = 7;
    line.parity = ODD;
    line.start_stop = 2;
    line.device_index = 99;  // never taken from the default
    SockAddr::SetDefaultSerial(line);
    struct Case {
        const char* text;
        int rv;
        const char* printed = "";
        int index = 0;
    } cases[] = {
        {"7", 0, "7@ttyUSB0!19200/7/o/2", 7},
        {"2@ttyS1!9600/8/e/1", 0, "2@ttyS1!9600/8/e/1", 2},
        {"3@ttyS1", 0, "3@ttyS1!19200/7/o/2", 3},
        {"ttyS2!4800/8/n/1", 0, "ttyS2!4800/8/n/1", 0},
        {"ttyS2", 0, "ttyS2!19200/7/o/2", 0},
        {"x5@ttyS3", 0, "ttyS3!19200/7/o/2", 0},  // '@' later in the text: index from the start
        {"4@ttyS1!9600/8/q/1", 0, "4@ttyS1!9600/8/n/1", 4},
        {"1@ttyS123456789AB!9600/8/n/1", 0, "1@ttyS123456789AB!9600/8/n/1", 1},  // 15 characters fit
        {"0", -EINVAL}, {"-2@ttyS1", -EINVAL}, {"1@ttyS1!9600/8", -EINVAL}, {"1@ttyS1!9600/x/n/1", -EINVAL},
        {"a!b@ttyS1", -EINVAL},  // "!" only before the device part
        {"1@ttyS1234567890AB!9600/8/n/1", -ENOSPC}, {"1@ttyS1234567890AB", -ENOSPC},  // 16 characters
        {"99999999999999999999", -EINVAL},
    };
    for (const Case& c : cases) {
        SockAddr a(AF_NAME, "keep");
        EXPECT_EQ(a.GetSerial(c.text), c.rv) << c.text;
        if (c.rv < 0) {
            EXPECT_EQ(a.GetAF(), 0) << c.text;
            continue;
        }
        EXPECT_EQ(Text(a), c.printed) << c.text;
        EXPECT_EQ(a.GetPort(), c.index) << c.text;
        EXPECT_EQ(Text(Parsed(AF_RS485, Text(a).c_str())), c.printed) << c.text;
    }
    SockAddr::SetDefaultSerial(sockaddr_serial{});
    EXPECT_EQ(Text(Parsed(AF_RS485, "7")), "7");
    EXPECT_EQ(Text(SockAddr(AF_RS485, "ttyS0", 0x10005)), "5@ttyS0");
}

TEST(SockAddr, MacTextAndFailureClearsTheValue)
{
    SockAddr a(AF_MAC, "02:11:22:33:44:55");
    EXPECT_EQ(a.GetMAC("02:11:22:zz:44:55"), -EINVAL);
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(&a.Get());
    EXPECT_EQ(std::string(raw, raw + 8), std::string(8, '\0'));
    EXPECT_EQ(SockAddr(AF_MAC, "nonsense").GetAF(), 0);
    EXPECT_EQ(SockAddr(AF_UNIX, "/tmp/x").GetAF(), 0);  // this constructor takes names and MACs only
}

TEST(SockAddr, EqualityIgnoresWhatItShould)
{
    SockAddr a = V6({0xfe80, 0, 0, 0, 0, 0, 0, 1}, 80), b = a;
    b.GetPrivate().in6.sin6_scope_id = 3;
    b.GetPrivate().in6.sin6_flowinfo = 7;
    EXPECT_TRUE(a == b);
    b.SetPort(81);
    EXPECT_TRUE(a != b);

    SockAddr n1(AF_NAME, "eth0"), n2(AF_NAME, "eth0");
    n2.GetPrivate().name.port = 5;
    EXPECT_TRUE(n1 == n2);
    EXPECT_TRUE(n1 < n2 && !(n2 < n1));  // equal, yet ordered by port
    n1.SetPort(9);  // a name has no port to set
    EXPECT_EQ(n1.GetPort(), 0);

    SockAddr s1 = Parsed(AF_RS485, "3@ttyS1!9600/8/n/1"), s2 = Parsed(AF_RS485, "3@ttyS1!4800/7/e/2");
    EXPECT_TRUE(s1 == s2);
    SockAddr invalid;
    EXPECT_TRUE(invalid == invalid);
    EXPECT_FALSE(invalid == SockAddr());
}

TEST(SockAddr, OrderingUsesTheExactUnitDifference)
{
    // First differing byte 1 apart: decided by the address, whatever the port.
    EXPECT_TRUE(V6({1}, 9) < V6({2}, 1));
    EXPECT_FALSE(V6({2}, 1) < V6({1}, 9));
    // Further apart: the comparison falls through to the port.
    EXPECT_FALSE(V6({1}, 9) < V6({3}, 1));
    EXPECT_TRUE(V6({3}, 1) < V6({1}, 9));

    EXPECT_TRUE(SockAddr(AF_RS485, "ttyS1", 9) < SockAddr(AF_RS485, "ttyS2", 1));
    EXPECT_TRUE(SockAddr(AF_RS485, "ttyS3", 1) < SockAddr(AF_RS485, "ttyS1", 9));
    EXPECT_TRUE(SockAddr(AF_RS485, "ttyS1", 1) < SockAddr(AF_RS485, "ttyS1", 2));

    // IPv4 compares the raw word: on a little-endian host the last octet weighs most.
    SockAddr a = Parsed(AF_INET, "1.0.0.2"), b = Parsed(AF_INET, "2.0.0.1");
    EXPECT_EQ(b < a, htonl(1) != 1);
    EXPECT_EQ(a < b, htonl(1) == 1);

    EXPECT_FALSE(SockAddr(AF_NAME, "zz") < Parsed(AF_INET, "1.1.1.1"));
    EXPECT_TRUE(Parsed(AF_INET, "9.9.9.9") < SockAddr(AF_NAME, "a"));  // family 2 before 33
    EXPECT_FALSE(SockAddr() < SockAddr());
    EXPECT_TRUE(SockAddr() < SockAddr(AF_NAME, "a"));
    EXPECT_TRUE(SockAddr(AF_MAC, "00:00:00:00:00:01") < SockAddr(AF_MAC, "00:00:00:00:00:05"));
    EXPECT_TRUE(Parsed(AF_UNIX, "/a") < Parsed(AF_UNIX, "/b"));
}

TEST(SockAddr, HostentConstructorIsCrossed)
{
    char addr[4] = {10, 0, 0, 1};
    char* list[2] = {addr, nullptr};
    hostent h = {};
    h.h_addrtype = AF_INET;
    h.h_length = 4;
    h.h_addr_list = list;
    SockAddr a(&h);
    EXPECT_EQ(a.GetAF(), AF_INET);
    EXPECT_EQ(memcmp(&a.Get().in6.sin6_addr, &h.h_addr_list, 4), 0);  // the pointer's bytes, not the address
    EXPECT_EQ(a.Get().in4.sin_addr.s_addr, 0u);
}

TEST(SockAddr, SocknameAndRecvFromOverLoopback)
{
    int rx = socket(AF_INET, SOCK_DGRAM, 0), tx = socket(AF_INET, SOCK_DGRAM, 0);
    SockAddr local = Parsed(AF_INET, "127.0.0.1");
    ASSERT_EQ(bind(rx, &local.Get().addr, sizeof(sockaddr_in)), 0);
    ASSERT_EQ(local.GetSockname(rx), 0);
    ASSERT_NE(local.GetPort(), 0);
    ASSERT_EQ(sendto(tx, "hi", 2, 0, &local.Get().addr, sizeof(sockaddr_in)), 2);
    SockAddr from, sender;
    char buf[8];
    EXPECT_EQ(from.RecvFrom(rx, buf, sizeof buf, 0), 2);
    ASSERT_EQ(sender.GetSockname(tx), 0);
    EXPECT_EQ(Text(from), "127.0.0.1:" + std::to_string(sender.GetPort()));
    close(rx);
    close(tx);
    EXPECT_EQ(from.GetSockname(-1), -EBADF);
    EXPECT_EQ(from.GetAF(), 0);
}


// In a fresh network namespace: lo (127.0.0.1) is interface 0 and v0, one
// end of a veth pair with known addresses, interface 1; v1 has no IPv4
// address and so is not listed.
int InterfaceChecks()
{
    if (system("ip link add v0 type veth peer name v1 && ip link set v0 address 02:11:22:33:44:55 &&"
               " ip link set v0 addrgenmode none && ip link set v1 addrgenmode none &&"
               " ip addr add 10.1.2.3/24 dev v0 && ip addr add fd00::5/64 dev v0 nodad &&"
               " ip link set v0 up && ip link set v1 up") != 0)
        return 2;
    SockAddr a;
    CHILD_CHECK(a.GetName(0) == 0 && Text(a) == "lo");
    CHILD_CHECK(a.GetName(1) == 0 && Text(a) == "v0" && a.GetAF() == AF_NAME);
    CHILD_CHECK(a.GetName(2) == -ENOENT && a.GetAF() == 0);
    CHILD_CHECK(a.GetIPv4(0) == -EINVAL && a.GetAF() == 0);
    CHILD_CHECK(a.GetIPv4(1) == 0 && Text(a) == "10.1.2.3:0");
    CHILD_CHECK(a.GetIPv4(-1) == 0 && Text(a) == "10.1.2.3:0");
    CHILD_CHECK(a.GetMAC(-1) == 0 && Text(a) == "02:11:22:33:44:55");
    CHILD_CHECK(a.GetIPv6(-1) == 0 && Text(a) == "fd00::0005|0");
    CHILD_CHECK(a.GetIPv6(0) == -EINVAL);
    CHILD_CHECK(a.GetIPv6(7) == -ENOENT);
    bool loopback = false;
    CHILD_CHECK(SockAddr::IsLoopback(0u, loopback) == 0 && loopback);
    CHILD_CHECK(SockAddr::IsLoopback("v0", loopback) == 0 && !loopback);
    loopback = true;
    CHILD_CHECK(SockAddr::IsLoopback("nosuch0", loopback) == -ENODEV && loopback);
    // v0 without IPv6 lines: an interface with none gives -ENOENT.
    CHILD_CHECK(system("ip -6 addr flush dev v0") == 0);
    CHILD_CHECK(a.GetIPv6(1) == -ENOENT);
    return 0;
}

TEST(SockAddr, InterfaceEnumerationInANamespace)
{
    std::string why = NamespacesUnavailableReason(CLONE_NEWNET);
    if (!why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNET, InterfaceChecks, ScaledMs(20000)), 0);
}

}  // namespace
