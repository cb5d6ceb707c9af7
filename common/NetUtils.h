// Raw UDP broadcast: a datagram to 255.255.255.255 on a port, and, when the
// host has no route for it, the same datagram as a hand-built IPv4 frame
// sent through a packet socket, which needs no route.
#pragma once

#include <cstddef>

// The interface the hand-built frame goes out on unless the caller names one.
extern const char kBroadcastInterface[];

// Sends `text` and its terminating NUL with the function below.
int ipv4_udp_broadcast(int fd, unsigned short port, const char* text, const char* ifname = kBroadcastInterface);

// sendto() of `len` bytes to 255.255.255.255:port on the caller's socket,
// which must allow broadcasting (SO_BROADCAST). 0 when sent. When the kernel
// refuses with ENETUNREACH (no route), the result of
// ipv4_udp_broadcast_manual() with the socket's own port as the source, so
// replies come back to that socket, on interface `ifname`. Otherwise the
// negated errno (a failing getsockname, or the send, which is logged).
int ipv4_udp_broadcast(int fd, unsigned short port, const unsigned char* data, unsigned int len,
                       const char* ifname = kBroadcastInterface);

// Builds the IPv4 and UDP headers by hand (source: SockAddr::GetIPv4(-1),
// the first non-loopback interface among interfaces 0 and 1; UDP checksum
// 0) and sends the frame through an AF_PACKET socket to the link-layer
// broadcast address of `ifname`. The number of bytes sent, headers
// included; else the negated errno of the failing step, in this order: the
// source lookup, ifc_index (-ENODEV: no such interface), -EMSGSIZE for a
// payload the 16-bit IPv4 length cannot carry, the packet socket (-EPERM
// without CAP_NET_RAW), the send (-ENETDOWN: the interface is down).
int ipv4_udp_broadcast_manual(unsigned short srcPort, unsigned short dstPort, const unsigned char* data,
                              unsigned int len, const char* ifname = kBroadcastInterface);

// The interface's index (SIOCGIFINDEX; the name cut to 15 characters), or
// the negated errno.
int ifc_index(const char* ifname);

// The Internet checksum (RFC 1071) of `len` bytes summed as 16-bit words in
// memory order; it can be stored into a header as it is.
unsigned short ipv4_checksum(const unsigned char* data, int len);
