// One address value for every kind of endpoint the system talks to: IPv4,
// IPv6, Unix socket, interface name, hardware address and RS-485 line.
#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>

// Program-defined families, above the system's own range.
constexpr sa_family_t AF_NAME = 33;
constexpr sa_family_t AF_MAC = 34;
constexpr sa_family_t AF_RS485 = 35;

enum Parity { NONE = 0, ODD = 1, EVEN = 2 };

struct sockaddr_name {
    sa_family_t sa_family;  // AF_NAME
    uint16_t port;          // never set by the parsers
    char name[100];         // interface name, NUL-terminated
};

struct sockaddr_mac {
    sa_family_t sa_family;  // AF_MAC
    unsigned char mac[6];   // wire order
};

struct sockaddr_serial {
    sa_family_t sa_family;  // AF_RS485
    char dev[16];           // device name, at most 15 characters
    int speed;              // baud rate
    int bits;               // data bits; 0: no line settings given
    Parity parity;
    int start_stop;         // stop bits
    int device_index;       // the unit's address on the bus, also the "port"
};

union sockaddr_all {
    sockaddr addr;
    sockaddr_name name;
    sockaddr_mac mac;
    sockaddr_in in4;
    sockaddr_in6 in6;
    sockaddr_un un;
    sockaddr_serial serial;
};
static_assert(sizeof(sockaddr_all) == 112, "the address value is 112 bytes");

class SockAddr {
public:
    // Size of the text buffers callers hand to Str and its helpers; longer
    // texts (a long Unix path or interface name) are cut to fit.
    static const size_t m_strLen = 50;

    SockAddr();
    explicit SockAddr(const sockaddr_in& a);
    explicit SockAddr(const sockaddr_in6& a);
    explicit SockAddr(const sockaddr_un& a);
    explicit SockAddr(const sockaddr_name& a);
    explicit SockAddr(const sockaddr_mac& a);
    explicit SockAddr(const sockaddr_serial& a);
    // AF_INET: (uint32_t host-order address, int port); AF_INET6: (const
    // void* 16 bytes, int port); AF_NAME: (const char*); AF_MAC: (const char*
    // MAC text, family 0 if it does not parse); AF_RS485: (const char* device,
    // int index, low 16 bits kept). Any other family gives an invalid value.
    // The family is an int: va_start needs an unpromoted last parameter.
    explicit SockAddr(int family, ...);
    // Kept as it always was and not for building working addresses: copies
    // h_length bytes of the h_addr_list pointer array itself, into the IPv6
    // address position for AF_INET and the IPv4 position otherwise.
    explicit SockAddr(const hostent* h);
    SockAddr(const SockAddr&) = default;
    SockAddr& operator=(const SockAddr&) = default;

    const sockaddr_all& Get() const { return m_addr; }
    sockaddr_all& GetPrivate() { return m_addr; }
    sa_family_t GetAF() const { return m_addr.addr.sa_family; }
    void Invalidate() { m_addr.addr.sa_family = AF_UNSPEC; }
    const char* GetDevice() const { return m_addr.serial.dev; }
    // Copies at most 15 characters.
    void SetDevice(const char* dev);

    // Host-order port for IPv4/IPv6, device_index for rs485, else 0.
    unsigned short GetPort() const;
    // IPv4/IPv6: network order; rs485: device_index; others unchanged.
    void SetPort(unsigned short port);

    // Text forms. Each writes at most m_strLen bytes into buf and returns it.
    char* Str(char* buf, bool port = false) const;
    static char* IPv4(unsigned int addr, char* buf);
    static char* IPv4(const sockaddr_in* a, char* buf, bool port);
    static char* IPv6(const sockaddr_in6* a, char* buf, bool port);
    static char* IPv6(const in6_addr* a, char* buf);
    static char* MAC(const unsigned char* mac, char* buf);
    static char* Serial(const sockaddr_serial* s, char* buf);
    static char* Unix(const sockaddr_un* a, char* buf);
    // "none" for an unknown family; 0 for an unknown name or "none".
    static const char* Type(sa_family_t family);
    static sa_family_t Type(const char* name);
    static const char* Parity2a(Parity p);
    static Parity a2parity(char c);

    // The serial line that text parsed by GetSerial starts from.
    static void SetDefaultSerial(const sockaddr_serial& s);
    static const sockaddr_serial& DefaultSerial() { return m_defaultSerial; }

    // Parses text of the given family; true on success.
    bool Parse(sa_family_t family, const char* text);

    // Lookups: 0 on success, else a negated errno with the family left at 0.
    // "a.b.c.d[:port]" literally (octets unchecked), else through GetIP.
    int GetIPv4(const char* text);
    int GetIPv6(const char* text);
    // getaddrinfo of "host[:service]" (IPv4) or "host[|service]" (IPv6);
    // -EINVAL for text over 50 characters, -ENODATA for an unknown name or
    // service, -EAGAIN, -ENOMEM, -ENETDOWN as the resolver reports.
    int GetIP(const char* text, int family);
    // "xx:xx:xx:xx:xx:xx"; -EINVAL with the first 8 bytes cleared.
    int GetMAC(const char* text);
    // "[index][@]device[!speed/bits/parity/stop]" or a bare index;
    // -EINVAL for bad text, -ENOSPC for a device name of 16 or more.
    int GetSerial(const char* text);

    // Interfaces with an IPv4 address, in the kernel's order (at most 32).
    // -ENOENT past the last one, -EINVAL for the loopback interface (not for
    // GetName), or the negated errno of a failing socket or ioctl. An index
    // of -1 means the first interface that has one (index 0, then 1).
    int GetName(unsigned int index);
    int GetIPv4(unsigned int index);
    int GetMAC(unsigned int index);
    // From /proc/net/if_inet6: the first line of the interface.
    int GetIPv6(unsigned int index);
    int GetName(int index) { return GetName(static_cast<unsigned int>(index)); }
    int GetIPv4(int index) { return GetIPv4(static_cast<unsigned int>(index)); }
    int GetMAC(int index) { return GetMAC(static_cast<unsigned int>(index)); }
    int GetIPv6(int index) { return GetIPv6(static_cast<unsigned int>(index)); }
    // 0 with `loopback` set, or a negated errno with it untouched.
    static int IsLoopback(const char* ifname, bool& loopback);
    static int IsLoopback(unsigned int index, bool& loopback);

    // The local address of a socket: 0, or a negated errno with family 0.
    int GetSockname(int fd);
    // recvfrom() storing the sender here; returns what recvfrom returns.
    ssize_t RecvFrom(int fd, void* buf, size_t len, int flags);

    bool operator==(const SockAddr& other) const;
    bool operator!=(const SockAddr& other) const { return !(*this == other); }
    bool operator<(const SockAddr& other) const;

private:
    void Clear();
    int Fail(int error);
    int GetOnInterface(unsigned int index, int (SockAddr::*query)(unsigned int));
    int GetIPv4Of(unsigned int index);
    int GetMACOf(unsigned int index);
    int GetIPv6Of(unsigned int index);
    int InterfaceRequest(unsigned int index, unsigned long request, void* ifr);

    sockaddr_all m_addr;

    static sockaddr_serial m_defaultSerial;
};
