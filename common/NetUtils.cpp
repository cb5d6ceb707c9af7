#include "NetUtils.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "SockAddr.h"
#include "debugger.h"
#include "utils.h"

const char kBroadcastInterface[] = "eth0";

namespace {

const size_t kIpHeaderLen = 20;
const size_t kUdpHeaderLen = 8;
const size_t kHeadersLen = kIpHeaderLen + kUdpHeaderLen;
const size_t kMaxIpPacket = 65535;  // the IPv4 total length is 16 bits

void put16(unsigned char* at, unsigned short value)
{
    unsigned short net = htons(value);
    memcpy(at, &net, sizeof net);
}

// The IPv4 and UDP headers in front of `len` payload bytes (at frame + 28).
void build_headers(unsigned char* frame, in_addr source, unsigned short srcPort, unsigned short dstPort,
                   unsigned int len)
{
    memset(frame, 0, kHeadersLen);
    frame[0] = 0x45;  // version 4, five 32-bit words
    put16(frame + 2, static_cast<unsigned short>(len + kHeadersLen));
    put16(frame + 6, 0x4000);  // don't fragment
    frame[8] = 64;             // time to live
    frame[9] = IPPROTO_UDP;
    memcpy(frame + 12, &source, 4);
    memset(frame + 16, 0xff, 4);
    unsigned short sum = ipv4_checksum(frame, kIpHeaderLen);
    memcpy(frame + 10, &sum, sizeof sum);
    put16(frame + 20, srcPort);
    put16(frame + 22, dstPort);
    put16(frame + 24, static_cast<unsigned short>(len + kUdpHeaderLen));
}

int send_frame(int ifindex, const std::vector<unsigned char>& frame)
{
    int fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_ALL));
    if (fd < 0) return -errno;
    sockaddr_ll to = {};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(ETH_P_IP);
    to.sll_ifindex = ifindex;
    memset(to.sll_addr, 0xff, ETH_ALEN);
    ssize_t sent = sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    int rv = sent < 0 ? -errno : static_cast<int>(sent);
    close(fd);
    return rv;
}

}  // namespace

int ifc_index(const char* ifname)
{
    ifreq ifr = {};
    safe_strncpy(ifr.ifr_name, ifname, IFNAMSIZ);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    int rv = ioctl(fd, SIOCGIFINDEX, &ifr) < 0 ? -errno : ifr.ifr_ifindex;
    close(fd);
    return rv;
}

unsigned short ipv4_checksum(const unsigned char* data, int len)
{
    unsigned long sum = 0;
    int i = 0;
    for (; i + 1 < len; i += 2) {
        unsigned short word;
        memcpy(&word, data + i, sizeof word);
        sum += word;
    }
    if (i < len) {
        unsigned char last[2] = {data[i], 0};
        unsigned short word;
        memcpy(&word, last, sizeof word);
        sum += word;
    }
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<unsigned short>(~sum);
}

int ipv4_udp_broadcast_manual(unsigned short srcPort, unsigned short dstPort, const unsigned char* data,
                              unsigned int len, const char* ifname)
{
    SockAddr source;
    int rv = source.GetIPv4(-1);
    if (rv < 0) return rv;
    int ifindex = ifc_index(ifname);
    if (ifindex < 0) return ifindex;
    if (len > kMaxIpPacket - kHeadersLen) return -EMSGSIZE;
    std::vector<unsigned char> frame(kHeadersLen + len);
    build_headers(frame.data(), source.Get().in4.sin_addr, srcPort, dstPort, len);
    if (len) memcpy(frame.data() + kHeadersLen, data, len);
    return send_frame(ifindex, frame);
}

int ipv4_udp_broadcast(int fd, unsigned short port, const unsigned char* data, unsigned int len,
                       const char* ifname)
{
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    to.sin_port = htons(port);
    ssize_t rv = sendto(fd, data, len, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    if (rv >= 0) return 0;
    int error = errno;
    if (error == ENETUNREACH) {
        SockAddr own;
        int got = own.GetSockname(fd);
        if (got < 0) return got;
        return ipv4_udp_broadcast_manual(own.GetPort(), port, data, len, ifname);
    }
    syslog_safe(3, "Unable to send packet (%d) rv=%zd.", error, rv);
    return -error;
}

int ipv4_udp_broadcast(int fd, unsigned short port, const char* text, const char* ifname)
{
    return ipv4_udp_broadcast(fd, port, reinterpret_cast<const unsigned char*>(text),
                              static_cast<unsigned int>(strlen(text) + 1), ifname);
}
