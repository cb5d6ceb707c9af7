#include "SockAddr.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils.h"

sockaddr_serial SockAddr::m_defaultSerial = {};

namespace {

struct AddressType {
    sa_family_t family;
    const char* name;
};

const AddressType address_types[] = {
    {AF_NAME, "name"}, {AF_MAC, "mac"},  {AF_INET, "ipv4"}, {AF_INET6, "ipv6"},
    {AF_UNIX, "unix"}, {AF_RS485, "rs485"}, {AF_UNSPEC, "none"},
};

// The SIOCGIFCONF answer has room for this many interfaces.
const int kMaxInterfaces = 32;

// Difference of the first differing bytes, the value the C library's
// memcmp (and, with stopAtNul, strcmp) returns; the ordering depends on it.
int sockaddr_byte_diff(const void* a, const void* b, size_t n, bool stopAtNul)
{
    const unsigned char* p = static_cast<const unsigned char*>(a);
    const unsigned char* q = static_cast<const unsigned char*>(b);
    for (size_t i = 0; i < n; i++) {
        if (p[i] != q[i]) return p[i] - q[i];
        if (stopAtNul && p[i] == '\0') return 0;
    }
    return 0;
}

// Ordering on a byte comparison: exactly -1 is less, exactly +1 is not, and
// any other result (equal, or a larger difference) leaves it to `tie`.
bool sockaddr_less_unit_rule(int diff, bool tie)
{
    if (diff == -1) return true;
    if (diff == 1) return false;
    return tie;
}

int sockaddr_gai_errno(int rc)
{
    switch (rc) {
    case EAI_SYSTEM: return errno ? -errno : -EIO;
    case EAI_MEMORY: return -ENOMEM;
    case EAI_ADDRFAMILY:
    case EAI_SERVICE:
    case EAI_SOCKTYPE:
    case EAI_NODATA:
    case EAI_NONAME: return -ENODATA;
    case EAI_FAIL: return -ENETDOWN;
    case EAI_AGAIN: return -EAGAIN;
    default: return -EINVAL;  // EAI_FAMILY, EAI_BADFLAGS and the rest
    }
}

// One SIOCGIF* request on a throw-away datagram socket: 0 or -errno.
int sockaddr_ioctl(unsigned long request, void* arg)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    int rv = ioctl(fd, request, arg) < 0 ? -errno : 0;
    close(fd);
    return rv;
}

// Copies at most size - 1 bytes of a field that need not be terminated.
char* sockaddr_copy_text(char* buf, const char* field, size_t fieldSize)
{
    size_t n = strnlen(field, fieldSize);
    n = std::min(n, SockAddr::m_strLen - 1);
    memcpy(buf, field, n);
    buf[n] = '\0';
    return buf;
}

// Reads the device part of a serial text into `s`: 0 or a negated errno.
int sockaddr_serial_device(const char* text, const char* part, sockaddr_serial& s)
{
    const char* bang = strchr(part, '!');
    size_t len = strlen(part);
    if (strchr(text, '!')) {
        if (!bang) return -EINVAL;
        int speed, bits, stop;
        char parity;
        if (sscanf(bang + 1, "%8d/%1d/%c/%1d ", &speed, &bits, &parity, &stop) != 4) return -EINVAL;
        len = static_cast<size_t>(bang - part);
        s.speed = speed;
        s.bits = bits;
        s.parity = SockAddr::a2parity(parity);
        s.start_stop = stop;
    }
    if (len >= sizeof s.dev) return -ENOSPC;
    memset(s.dev, 0, sizeof s.dev);
    memcpy(s.dev, part, len);
    return 0;
}

}  // namespace

SockAddr::SockAddr() { Clear(); }

SockAddr::SockAddr(const sockaddr_in& a)
{
    Clear();
    m_addr.in4 = a;
}

SockAddr::SockAddr(const sockaddr_in6& a)
{
    Clear();
    m_addr.in6 = a;
}

SockAddr::SockAddr(const sockaddr_un& a)
{
    Clear();
    m_addr.un = a;
}

SockAddr::SockAddr(const sockaddr_name& a)
{
    Clear();
    m_addr.name = a;
    m_addr.name.sa_family = AF_NAME;
}

SockAddr::SockAddr(const sockaddr_mac& a)
{
    Clear();
    m_addr.mac = a;
    m_addr.mac.sa_family = AF_MAC;
}

SockAddr::SockAddr(const sockaddr_serial& a)
{
    Clear();
    m_addr.serial = a;
    m_addr.serial.sa_family = AF_RS485;
}

SockAddr::SockAddr(int family, ...)
{
    Clear();
    va_list args;
    va_start(args, family);
    switch (family) {
    case AF_INET: {
        uint32_t addr = va_arg(args, uint32_t);
        int port = va_arg(args, int);
        m_addr.in4.sin_family = AF_INET;
        m_addr.in4.sin_addr.s_addr = htonl(addr);
        m_addr.in4.sin_port = htons(static_cast<uint16_t>(port));
        break;
    }
    case AF_INET6: {
        const void* bytes = va_arg(args, const void*);
        int port = va_arg(args, int);
        m_addr.in6.sin6_family = AF_INET6;
        memcpy(&m_addr.in6.sin6_addr, bytes, sizeof m_addr.in6.sin6_addr);
        m_addr.in6.sin6_port = htons(static_cast<uint16_t>(port));
        break;
    }
    case AF_NAME:
        m_addr.name.sa_family = AF_NAME;
        safe_strncpy(m_addr.name.name, va_arg(args, const char*), sizeof m_addr.name.name);
        break;
    case AF_MAC: (void)GetMAC(va_arg(args, const char*)); break;
    case AF_RS485: {
        const char* dev = va_arg(args, const char*);
        int index = va_arg(args, int);
        m_addr.serial.sa_family = AF_RS485;
        safe_strncpy(m_addr.serial.dev, dev, sizeof m_addr.serial.dev);
        m_addr.serial.device_index = index & 0xffff;
        break;
    }
    default: break;
    }
    va_end(args);
}

SockAddr::SockAddr(const hostent* h)
{
    Clear();
    m_addr.addr.sa_family = static_cast<sa_family_t>(h->h_addrtype);
    // Bounded by both positions (16 and 4 bytes are the real lengths).
    size_t n = static_cast<size_t>(std::max(0, std::min(h->h_length, 16)));
    void* dst = h->h_addrtype == AF_INET ? static_cast<void*>(&m_addr.in6.sin6_addr)
                                         : static_cast<void*>(&m_addr.in4.sin_addr);
    memcpy(dst, &h->h_addr_list, std::min(n, sizeof h->h_addr_list));
}

void SockAddr::Clear() { memset(&m_addr, 0, sizeof m_addr); }

int SockAddr::Fail(int error)
{
    Invalidate();
    return error;
}

void SockAddr::SetDevice(const char* dev) { safe_strncpy(m_addr.serial.dev, dev, sizeof m_addr.serial.dev); }

unsigned short SockAddr::GetPort() const
{
    switch (GetAF()) {
    case AF_INET: return ntohs(m_addr.in4.sin_port);
    case AF_INET6: return ntohs(m_addr.in6.sin6_port);
    case AF_RS485: return static_cast<unsigned short>(m_addr.serial.device_index);
    default: return 0;
    }
}

void SockAddr::SetPort(unsigned short port)
{
    switch (GetAF()) {
    case AF_INET: m_addr.in4.sin_port = htons(port); break;
    case AF_INET6: m_addr.in6.sin6_port = htons(port); break;
    case AF_RS485: m_addr.serial.device_index = port; break;
    default: break;
    }
}

char* SockAddr::Str(char* buf, bool port) const
{
    switch (GetAF()) {
    case AF_UNIX: return Unix(&m_addr.un, buf);
    case AF_INET: return IPv4(&m_addr.in4, buf, port);
    case AF_INET6: return IPv6(&m_addr.in6, buf, port);
    case AF_NAME: return sockaddr_copy_text(buf, m_addr.name.name, sizeof m_addr.name.name);
    case AF_MAC: return MAC(m_addr.mac.mac, buf);
    case AF_RS485: return Serial(&m_addr.serial, buf);
    default: return strcpy(buf, "unknown");
    }
}

char* SockAddr::IPv4(unsigned int addr, char* buf)
{
    const unsigned char* o = reinterpret_cast<const unsigned char*>(&addr);
    snprintf(buf, m_strLen, "%d.%d.%d.%d", o[0], o[1], o[2], o[3]);
    return buf;
}

char* SockAddr::IPv4(const sockaddr_in* a, char* buf, bool port)
{
    if (a->sin_family != AF_INET) return strcpy(buf, "unknown");
    IPv4(a->sin_addr.s_addr, buf);
    if (port) {
        size_t n = strlen(buf);
        snprintf(buf + n, m_strLen - n, ":%d", ntohs(a->sin_port));
    }
    return buf;
}

char* SockAddr::IPv6(const sockaddr_in6* a, char* buf, bool port)
{
    if (a->sin6_family != AF_INET6) return strcpy(buf, "unknown");
    IPv6(&a->sin6_addr, buf);
    if (port) {
        size_t n = strlen(buf);
        snprintf(buf + n, m_strLen - n, "|%d", ntohs(a->sin6_port));
    }
    return buf;
}

// Only the first run of zero groups is compressed, however short, even when
// a longer run follows: the system's text form has always been so.
char* SockAddr::IPv6(const in6_addr* a, char* buf)
{
    unsigned group[8];
    for (int i = 0; i < 8; i++) group[i] = (a->s6_addr[2 * i] << 8) | a->s6_addr[2 * i + 1];
    int start = 0;
    while (start < 8 && group[start] != 0) start++;
    int end = start;
    while (end < 8 && group[end] == 0) end++;
    // 8 groups of 4 digits and 7 separators fit the 50 bytes many times.
    char* p = buf;
    if (start == 8) {
        for (int i = 0; i < 8; i++) p += sprintf(p, i ? ":%04x" : "%04x", group[i]);
        return buf;
    }
    if (start == 0) p += sprintf(p, ":");
    for (int i = 0; i < start; i++) p += sprintf(p, "%04x:", group[i]);
    if (end == 8) sprintf(p, ":");
    for (int i = end; i < 8; i++) p += sprintf(p, ":%04x", group[i]);
    return buf;
}

char* SockAddr::MAC(const unsigned char* mac, char* buf)
{
    snprintf(buf, m_strLen, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return buf;
}

char* SockAddr::Serial(const sockaddr_serial* s, char* buf)
{
    char dev[sizeof s->dev];
    sockaddr_copy_text(dev, s->dev, sizeof s->dev);
    int d = s->device_index;
    const char* parity = Parity2a(s->parity);
    if (!dev[0])
        snprintf(buf, m_strLen, "%d", d);
    else if (d && s->bits)
        snprintf(buf, m_strLen, "%d@%s!%d/%d/%s/%d", d, dev, s->speed, s->bits, parity, s->start_stop);
    else if (d)
        snprintf(buf, m_strLen, "%d@%s", d, dev);
    else if (s->bits)
        snprintf(buf, m_strLen, "%s!%d/%d/%s/%d", dev, s->speed, s->bits, parity, s->start_stop);
    else
        strcpy(buf, dev);
    return buf;
}

char* SockAddr::Unix(const sockaddr_un* a, char* buf)
{
    return sockaddr_copy_text(buf, a->sun_path, sizeof a->sun_path);
}

const char* SockAddr::Type(sa_family_t family)
{
    const AddressType* t = address_types;
    while (t->family != AF_UNSPEC && t->family != family) t++;
    return t->name;
}

sa_family_t SockAddr::Type(const char* name)
{
    if (!name) return AF_UNSPEC;
    for (const AddressType* t = address_types; t->family != AF_UNSPEC; t++)
        if (strcmp(t->name, name) == 0) return t->family;
    return AF_UNSPEC;
}

const char* SockAddr::Parity2a(Parity p)
{
    switch (p) {
    case NONE: return "n";
    case ODD: return "o";
    case EVEN: return "e";
    default: return "x";
    }
}

Parity SockAddr::a2parity(char c) { return c == 'e' ? EVEN : c == 'o' ? ODD : NONE; }

void SockAddr::SetDefaultSerial(const sockaddr_serial& s) { m_defaultSerial = s; }

// A path or name too long for its field is refused rather than cut, so that
// a cut text never names a different file or interface.
bool SockAddr::Parse(sa_family_t family, const char* text)
{
    Clear();
    if (!text || !*text || family < 1 || family > AF_RS485) return false;
    switch (family) {
    case AF_UNIX:
        if (strlen(text) >= sizeof m_addr.un.sun_path) return false;
        m_addr.un.sun_family = AF_UNIX;
        strcpy(m_addr.un.sun_path, text);
        return true;
    case AF_INET: return GetIPv4(text) == 0;
    case AF_INET6: return GetIPv6(text) == 0;
    case AF_NAME:
        if (strlen(text) >= sizeof m_addr.name.name) return false;
        m_addr.name.sa_family = AF_NAME;
        strcpy(m_addr.name.name, text);
        return true;
    case AF_MAC: return GetMAC(text) == 0;
    case AF_RS485: return GetSerial(text) == 0;
    default: return false;
    }
}

// Octets are deliberately unchecked: a number above 255 spills into the
// octet before it. Unsigned arithmetic gives the same bits without overflow.
int SockAddr::GetIPv4(const char* text)
{
    if (!text) return Fail(-EINVAL);
    int a, b, c, d, port = 0;
    if (sscanf(text, "%3d.%3d.%3d.%3d:%5d", &a, &b, &c, &d, &port) < 4) return GetIP(text, AF_INET);
    uint32_t addr = (static_cast<uint32_t>(a) << 24) | (static_cast<uint32_t>(b) << 16) |
                    (static_cast<uint32_t>(c) << 8) | static_cast<uint32_t>(d);
    Clear();
    m_addr.in4.sin_family = AF_INET;
    m_addr.in4.sin_addr.s_addr = htonl(addr);
    m_addr.in4.sin_port = htons(static_cast<uint16_t>(port));
    return 0;
}

int SockAddr::GetIPv6(const char* text) { return GetIP(text, AF_INET6); }

int SockAddr::GetIP(const char* text, int family)
{
    const size_t maxText = 50;
    if (!text || strnlen(text, maxText + 1) > maxText) return Fail(-EINVAL);
    char host[maxText + 1];
    strcpy(host, text);
    const char* service = nullptr;
    if (char* sep = strchr(host, family == AF_INET6 ? '|' : ':')) {
        *sep = '\0';
        service = sep + 1;
    }
    addrinfo hints = {};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    int rc = getaddrinfo(host, service, &hints, &result);
    if (rc != 0) return Fail(sockaddr_gai_errno(rc));
    Clear();
    memcpy(&m_addr, result->ai_addr, std::min(static_cast<size_t>(result->ai_addrlen), sizeof m_addr));
    freeaddrinfo(result);
    return 0;
}

int SockAddr::GetMAC(const char* text)
{
    unsigned int b[6];
    if (!text || sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5]) != 6) {
        memset(&m_addr, 0, sizeof m_addr.mac);
        return -EINVAL;
    }
    Clear();
    m_addr.mac.sa_family = AF_MAC;
    for (int i = 0; i < 6; i++) m_addr.mac.mac[i] = static_cast<unsigned char>(b[i]);
    return 0;
}

int SockAddr::GetSerial(const char* text)
{
    if (!text || strcmp(text, "0") == 0) return Fail(-EINVAL);
    Clear();
    sockaddr_serial s = m_defaultSerial;
    s.sa_family = AF_RS485;
    errno = 0;
    char* end;
    long n = strtol(text, &end, 10);
    if (errno == ERANGE || n > INT_MAX || n < INT_MIN) return Fail(-EINVAL);
    long index = n;
    const char* part = nullptr;
    if (*end == '@')
        part = end + 1;
    else if (*end && strchr(text, '@'))
        part = strchr(text, '@') + 1;
    else if (*end) {
        part = text;
        index = 0;
    }
    if (part) {
        int rv = sockaddr_serial_device(text, part, s);
        if (rv) return Fail(rv);
    }
    if (index < 0) return Fail(-EINVAL);
    s.device_index = static_cast<int>(index);
    m_addr.serial = s;
    return 0;
}

int SockAddr::GetName(unsigned int index)
{
    ifreq entries[kMaxInterfaces];
    ifconf conf = {};
    conf.ifc_len = sizeof entries;
    conf.ifc_req = entries;
    int rv = sockaddr_ioctl(SIOCGIFCONF, &conf);
    if (rv) return Fail(rv);
    size_t count = static_cast<size_t>(conf.ifc_len) / sizeof(ifreq);
    if (index >= count) return Fail(-ENOENT);
    Clear();
    m_addr.name.sa_family = AF_NAME;
    safe_strncpy(m_addr.name.name, entries[index].ifr_name, IFNAMSIZ);
    return 0;
}

int SockAddr::IsLoopback(const char* ifname, bool& loopback)
{
    ifreq ifr = {};
    safe_strncpy(ifr.ifr_name, ifname, sizeof ifr.ifr_name);
    int rv = sockaddr_ioctl(SIOCGIFFLAGS, &ifr);
    if (rv) return rv;
    loopback = (ifr.ifr_flags & IFF_LOOPBACK) != 0;
    return 0;
}

int SockAddr::IsLoopback(unsigned int index, bool& loopback)
{
    SockAddr name;
    int rv = name.GetName(index);
    return rv ? rv : IsLoopback(name.m_addr.name.name, loopback);
}

// Names the index-th interface in `ifr` and refuses the loopback one; with a
// request, also runs it. 0 or a negated errno (-EINVAL for the loopback).
int SockAddr::InterfaceRequest(unsigned int index, unsigned long request, void* arg)
{
    ifreq& ifr = *static_cast<ifreq*>(arg);
    SockAddr name;
    int rv = name.GetName(index);
    if (rv) return rv;
    bool loopback = false;
    rv = IsLoopback(name.m_addr.name.name, loopback);
    if (rv) return rv;
    if (loopback) return -EINVAL;
    safe_strncpy(ifr.ifr_name, name.m_addr.name.name, sizeof ifr.ifr_name);
    return request ? sockaddr_ioctl(request, &ifr) : 0;
}

int SockAddr::GetOnInterface(unsigned int index, int (SockAddr::*query)(unsigned int))
{
    if (index != UINT_MAX) return (this->*query)(index);
    int rv = (this->*query)(0);
    return rv < 0 ? (this->*query)(1) : rv;
}

int SockAddr::GetIPv4(unsigned int index) { return GetOnInterface(index, &SockAddr::GetIPv4Of); }
int SockAddr::GetMAC(unsigned int index) { return GetOnInterface(index, &SockAddr::GetMACOf); }
int SockAddr::GetIPv6(unsigned int index) { return GetOnInterface(index, &SockAddr::GetIPv6Of); }

int SockAddr::GetIPv4Of(unsigned int index)
{
    ifreq ifr = {};
    ifr.ifr_addr.sa_family = AF_INET;
    int rv = InterfaceRequest(index, SIOCGIFADDR, &ifr);
    if (rv) return Fail(rv);
    Clear();
    memcpy(&m_addr.in4, &ifr.ifr_addr, sizeof ifr.ifr_addr);
    return 0;
}

int SockAddr::GetMACOf(unsigned int index)
{
    ifreq ifr = {};
    int rv = InterfaceRequest(index, SIOCGIFHWADDR, &ifr);
    if (rv) return Fail(rv);
    Clear();
    m_addr.mac.sa_family = AF_MAC;
    memcpy(m_addr.mac.mac, ifr.ifr_hwaddr.sa_data, sizeof m_addr.mac.mac);
    return 0;
}

int SockAddr::GetIPv6Of(unsigned int index)
{
    ifreq ifr = {};
    int rv = InterfaceRequest(index, 0, &ifr);
    if (rv) return Fail(rv);
    FILE* f = fopen("/proc/net/if_inet6", "re");
    if (!f) return Fail(-errno);
    unsigned int word[4], ifindex, prefix, scope, flags;
    char name[21];
    rv = -ENOENT;
    while (fscanf(f, "%08x%08x%08x%08x %02x %02x %02x %02x %20s\n", &word[0], &word[1], &word[2], &word[3],
                  &ifindex, &prefix, &scope, &flags, name) == 9) {
        if (strcmp(name, ifr.ifr_name) != 0) continue;
        Clear();
        m_addr.in6.sin6_family = AF_INET6;
        for (int i = 0; i < 4; i++) {
            uint32_t net = htonl(word[i]);
            memcpy(&m_addr.in6.sin6_addr.s6_addr[4 * i], &net, sizeof net);
        }
        rv = 0;
        break;
    }
    fclose(f);
    return rv ? Fail(rv) : 0;
}

int SockAddr::GetSockname(int fd)
{
    socklen_t len = sizeof m_addr;
    if (getsockname(fd, &m_addr.addr, &len) == 0) return 0;
    return Fail(-errno);
}

ssize_t SockAddr::RecvFrom(int fd, void* buf, size_t len, int flags)
{
    socklen_t addrLen = sizeof m_addr;
    return recvfrom(fd, buf, len, flags, &m_addr.addr, &addrLen);
}

bool SockAddr::operator==(const SockAddr& other) const
{
    if (this == &other) return true;
    const sockaddr_all& a = m_addr;
    const sockaddr_all& b = other.m_addr;
    if (GetAF() != other.GetAF() || GetAF() < 1 || GetAF() > AF_RS485) return false;
    switch (GetAF()) {
    case AF_UNIX: return strncmp(a.un.sun_path, b.un.sun_path, sizeof a.un.sun_path) == 0;
    case AF_INET: return a.in4.sin_port == b.in4.sin_port && a.in4.sin_addr.s_addr == b.in4.sin_addr.s_addr;
    case AF_INET6:
        return a.in6.sin6_port == b.in6.sin6_port &&
               memcmp(&a.in6.sin6_addr, &b.in6.sin6_addr, sizeof a.in6.sin6_addr) == 0;
    case AF_NAME: return strncmp(a.name.name, b.name.name, sizeof a.name.name) == 0;
    case AF_MAC: return memcmp(a.mac.mac, b.mac.mac, sizeof a.mac.mac) == 0;
    case AF_RS485:
        return a.serial.device_index == b.serial.device_index &&
               strncmp(a.serial.dev, b.serial.dev, sizeof a.serial.dev) == 0;
    default: return false;
    }
}

// Not a strict weak order for ipv6, name and rs485 (the exactly -1 / +1
// rule); kept as it is because sorted lists of the system rely on it.
bool SockAddr::operator<(const SockAddr& other) const
{
    const sockaddr_all& a = m_addr;
    const sockaddr_all& b = other.m_addr;
    if (GetAF() < other.GetAF()) return true;
    if (GetAF() != other.GetAF() || GetAF() == 0 || GetAF() > AF_RS485) return false;
    switch (GetAF()) {
    case AF_UNIX: return strncmp(a.un.sun_path, b.un.sun_path, sizeof a.un.sun_path) < 0;
    case AF_INET:
        if (a.in4.sin_addr.s_addr != b.in4.sin_addr.s_addr) return a.in4.sin_addr.s_addr < b.in4.sin_addr.s_addr;
        return a.in4.sin_port < b.in4.sin_port;
    case AF_INET6:
        return sockaddr_less_unit_rule(
            sockaddr_byte_diff(&a.in6.sin6_addr, &b.in6.sin6_addr, sizeof a.in6.sin6_addr, false),
            a.in6.sin6_port < b.in6.sin6_port);
    case AF_NAME:
        return sockaddr_less_unit_rule(sockaddr_byte_diff(a.name.name, b.name.name, sizeof a.name.name, true),
                                       a.name.port < b.name.port);
    case AF_MAC: return memcmp(a.mac.mac, b.mac.mac, sizeof a.mac.mac) < 0;
    case AF_RS485:
        return sockaddr_less_unit_rule(sockaddr_byte_diff(a.serial.dev, b.serial.dev, sizeof a.serial.dev, true),
                                       a.serial.device_index < b.serial.device_index);
    default: return false;
    }
}
