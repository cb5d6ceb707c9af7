#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <cstdlib>

#include "SockAddr.h"
#include "process.h"

namespace {

std::string Text(const SockAddr& a) { char buf[SockAddr::m_strLen]; return a.Str(buf, true); }

SockAddr Parsed(sa_family_t af, const char* text) { SockAddr a; EXPECT_TRUE(a.Parse(af, text)) << text; return a; }

// The family's own lookup where it has one (its errno result), else Parse.
int Lookup(SockAddr& a, sa_family_t f, const char* text)
{
    return f == AF_INET ? a.GetIPv4(text) : f == AF_INET6 ? a.GetIPv6(text) : f == AF_MAC ? a.GetMAC(text)
           : f == AF_RS485 ? a.GetSerial(text) : a.Parse(f, text) ? 0 : -EINVAL;
}

// Accepted text prints as `printed` ("=": as given), which reads back the same; refused text ("") leaves an invalid
// address (-EINVAL unless rv says otherwise). Lines read without settings take them from the default serial line; a
// line's index is read from the start ("x5@" gives none), '!' only follows the device, whose name holds 15 characters.
TEST(SockAddr, TextOfEveryFamilyParsesOrIsRefused)
{
    SockAddr::SetDefaultSerial({AF_RS485, "ttyUSB0", 19200, 7, ODD, 2, 99});  // the index 99 is never taken
    const std::string longPath = "/tmp/" + std::string(110, 'p');
    struct Case { sa_family_t family; const char* text; const char* printed; int rv = 0; } cases[] = {
        {AF_INET, "10.0.0.1:3000", "="}, {AF_INET, "localhost:3543", "127.0.0.1:3543"},  // the resolver
        {AF_INET, "localhost:nosuchservice", "", -ENODATA}, {AF_INET, nullptr, ""}, {AF_NAME, "", ""},
        // Octets unchecked: cut to 8 bits, spilling into the one before; a negative one sets every bit.
        {AF_INET, "300.1.1.1", "44.1.1.1:0"}, {AF_INET, "2.256.0.1", "3.0.0.1:0"}, {AF_NAME, "eth0", "="},
        {AF_INET, "1.2.3.-1", "255.255.255.255:0"}, {AF_INET6, "fe80::1:80", "fe80::0001:0080|0"},  // port after '|'
        {AF_INET6, "0000:0000:0000:0000:0000:0000:0000:0001|65535000000000", ""},  // over 50
        {AF_INET6, "2001:db8:1:2:3:4:5:6", "2001:0db8:0001:0002:0003:0004:0005:0006|0"}, {AF_INET6, "::", "::|0"},
        {AF_INET6, "1:0:3:0:0:0:0:7", "0001::0003:0000:0000:0000:0000:0007|0"},  // the first zero run only
        {AF_INET6, "::3:4:5:6:7:8", "::0003:0004:0005:0006:0007:0008|0"}, {AF_UNIX, "/tmp/x.sock", "="},
        {AF_INET6, "1:2:3:4:5:6:7:0|443", "0001:0002:0003:0004:0005:0006:0007::|443"}, {AF_UNIX, nullptr, ""},
        {AF_MAC, "00:1A:2b:3c:4d:5e", "00:1a:2b:3c:4d:5e"}, {AF_UNIX, longPath.c_str(), ""},  // too long: not cut
        {AF_MAC, "00:11:22:33:44", ""}, {0, "x", ""}, {7, "x", ""}, {36, "x", ""}, {AF_RS485, "0", ""},
        {AF_RS485, "-2@ttyS1", ""}, {AF_RS485, "99999999999999999999", ""}, {AF_RS485, "1@ttyS1!9600/x/n/1", ""},
        {AF_RS485, "7", "7@ttyUSB0!19200/7/o/2"}, {AF_RS485, "3@ttyS1", "3@ttyS1!19200/7/o/2"},
        {AF_RS485, "2@ttyS1!9600/8/e/1", "="}, {AF_RS485, "ttyS2!48/8/n/1", "="}, {AF_RS485, "a!b@ttyS1", ""},
        {AF_RS485, "4@ttyS1!9600/8/q/1", "4@ttyS1!9600/8/n/1"}, {AF_RS485, "x5@ttyS3", "ttyS3!19200/7/o/2"},
        {AF_RS485, "1@ttyS123456789AB!9600/8/n/1", "="}, {AF_RS485, "1@ttyS1234567890AB!9600/8/n/1", "", -ENOSPC},
    };
    for (const Case& c : cases) {
        const std::string label = std::string(SockAddr::Type(c.family)) + " " + (c.text ? c.text : "(null)");
        const char* printed = strcmp(c.printed, "=") ? c.printed : c.text;
        SockAddr a(AF_INET, 0x7f000001u, 1);  // a failed lookup leaves nothing of it
        EXPECT_EQ(Lookup(a, c.family, c.text), c.rv ? c.rv : *printed ? 0 : -EINVAL) << label;
        EXPECT_EQ(Text(a), *printed ? printed : "unknown") << label;
        if (*printed) { EXPECT_EQ(Text(Parsed(c.family, printed)), printed) << label; }
    }
    SockAddr::SetDefaultSerial(sockaddr_serial{});  // then none; an index keeps 16 bits
    EXPECT_EQ(Text(Parsed(AF_RS485, "7")) + " " + Text(SockAddr(AF_RS485, "ttyS0", 0x10005)), "7 5@ttyS0");
}

// Odd corners: a name's case, a failed MAC, the crossed hostent constructor, a failed socket name.
TEST(SockAddr, NamesFailedTextHostentAndSockname)
{
    EXPECT_TRUE(SockAddr::Type("IPV4") == 0 && SockAddr::Parity2a(Parity(5)) == std::string("x"));  // case-sensitive
    SockAddr a(AF_MAC, "02:11:22:33:44:55");
    EXPECT_TRUE(a.GetMAC("02:11:22:zz:44:55") == -EINVAL && std::string((const char*)&a.Get(), 8) == std::string(8, 0));
    // This constructor takes names and MACs only; GetIP takes IPv4 and IPv6 only.
    EXPECT_TRUE(SockAddr(AF_UNIX, "/tmp/x").GetAF() == 0 && a.GetIP("localhost", 12345) == -EINVAL);
    char addr[4] = {10, 0, 0, 1}, *list[2] = {addr, nullptr};
    hostent h = {nullptr, nullptr, AF_INET, 4, list};
    SockAddr crossed(&h);  // the pointer's bytes, not the address, and in the IPv6 field
    EXPECT_TRUE(crossed.GetAF() == AF_INET && memcmp(&crossed.Get().in6.sin6_addr, &h.h_addr_list, 4) == 0 &&
                crossed.Get().in4.sin_addr.s_addr == 0u && crossed.GetSockname(-1) == -EBADF && crossed.GetAF() == 0);
}

// Equality ignores what is not the endpoint (scope, line settings, a name's port); ordering goes by the first
// differing byte when exactly one apart, else by the port. Relations as "a==b a<b b<a": "!<." puts a before b.
TEST(SockAddr, EqualityAndOrdering)
{
    const unsigned char one[16] = {0, 1};
    auto v4 = [](const char* t) { return Parsed(AF_INET, t); };
    auto v6 = [](const char* t) { return Parsed(AF_INET6, t); };
    struct Case { SockAddr a, b; std::string rel; } cases[] = {
        {v6("fe80::1|80"), v6("fe80::1%lo|80"), "=.."}, {v6("fe80::1|80"), v6("fe80::1|81"), "!<."},
        {SockAddr(AF_INET6, one, 9), v6("2::|1"), "!<."}, {SockAddr(AF_INET6, one, 9), v6("3::|1"), "!.>"},
        {SockAddr(AF_NAME, "eth0"), SockAddr(sockaddr_name{AF_NAME, 5, "eth0"}), "=<."},
        {SockAddr(), SockAddr(AF_NAME, "a"), "!<."}, {SockAddr(), SockAddr(), "!.."},  // family 0 before 33
        {Parsed(AF_RS485, "3@ttyS1!9600/8/n/1"), Parsed(AF_RS485, "3@ttyS1!4800/7/e/2"), "=.."},
        {SockAddr(AF_RS485, "ttyS3", 1), SockAddr(AF_RS485, "ttyS1", 9), "!<."},
        {Parsed(AF_UNIX, "/a"), Parsed(AF_UNIX, "/b"), "!<."},
        // IPv4 compares the raw word: on a little-endian host the last octet weighs most.
        {v4("1.0.0.2"), v4("2.0.0.1"), htonl(1) != 1 ? "!.>" : "!<."}, {v4("1.2.3.4:5"), v4("1.2.3.4:6"), "!<."},
        {SockAddr(sockaddr_in{AF_INET, htons(6), {htonl(0x01020304)}, {}}), v4("1.2.3.4:6"), "=.."},
        {SockAddr(AF_MAC, "00:00:00:00:00:01"), SockAddr(AF_MAC, "00:00:00:00:00:05"), "!<."},
    };
    for (const auto& [a, b, rel] : cases)  // "?": != is not the opposite of ==, or a value (even invalid) is not itself
        EXPECT_EQ((std::string{a == b ? '=' : '!', a < b ? '<' : '.', b < a ? '>' : '.'} +
                   ((a != b) == (a == b) || !(a == a) ? "?" : "")), rel) << Text(a) << " " << Text(b);
    // SetPort takes a host-order port (a line's unit index); a name has none.
    std::string texts;
    for (SockAddr a : {v4("1.2.3.4:5"), v6("::1|80"), Parsed(AF_RS485, "3@ttyS1"), SockAddr(AF_NAME, "eth0")})
        a.SetPort(9), texts += Text(a) + " " + std::to_string(a.GetPort()) + ";";
    EXPECT_EQ(texts, "1.2.3.4:9 9;::0001|9 9;9@ttyS1 9;eth0 0;");
}

// In a fresh network namespace: lo is interface 0, v0 (a veth end with known addresses) interface 1;
// v1 has no IPv4 address and so is not listed.
int InterfaceChecks()
{
    if (system("ip link add v0 type veth peer name v1 && ip link set v0 address 02:11:22:33:44:55 &&"
               " ip link set v0 addrgenmode none && ip link set v1 addrgenmode none && ip addr add 10.1.2.3/24 dev v0"
               " && ip addr add fd00::5/64 dev v0 nodad && ip link set v0 up && ip link set v1 up") != 0)
        return 2;
    SockAddr a;
    CHILD_CHECK(a.GetName(1) == 0 && Text(a) == "v0");
    CHILD_CHECK(a.GetName(2) == -ENOENT && a.GetAF() == 0 && a.GetIPv4(0) == -EINVAL && a.GetAF() == 0);
    CHILD_CHECK(a.GetIPv4(-1) == 0 && Text(a) == "10.1.2.3:0");  // -1: lo refused, so interface 1
    CHILD_CHECK(a.GetMAC(-1) == 0 && Text(a) == "02:11:22:33:44:55");
    CHILD_CHECK(a.GetIPv6(-1) == 0 && Text(a) == "fd00::0005|0");
    bool lo = false, v0 = true, none = true;
    CHILD_CHECK(SockAddr::IsLoopback(0u, lo) == 0 && SockAddr::IsLoopback("v0", v0) == 0 && lo && !v0);
    CHILD_CHECK(SockAddr::IsLoopback("nosuch0", none) == -ENODEV && none);
    CHILD_CHECK(system("ip -6 addr flush dev v0") == 0 && a.GetIPv6(1) == -ENOENT);  // an interface with none
    return 0;
}

TEST(SockAddr, InterfaceEnumerationInANamespace)
{
    if (std::string why = NamespacesUnavailableReason(CLONE_NEWNET); !why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(RunInNamespaces(CLONE_NEWNET, InterfaceChecks, ScaledMs(20000)), 0);
}

}  // namespace
