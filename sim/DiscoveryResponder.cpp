#include "DiscoveryResponder.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "SockAddr.h"
#include "daemon.h"
#include "debugger.h"
#include "regular_file.h"
#include "utils.h"

namespace {

const int kSliceMs = 100;                // longest wait between looks at the stop flags
const size_t kDatagramMax = 65535;       // largest request read
const char kHello[] = "Hello";
const size_t kUnitsFileMax = 4 << 20;    // bytes of a units file

bool is_hello(const std::string& datagram)
{
    return datagram == kHello || datagram == std::string(kHello, sizeof kHello);  // with its NUL or without
}

// One datagram to or from `peer`, with room for control data.
msghdr datagram_message(sockaddr_in& peer, iovec& data, char* control, size_t controlSize)
{
    msghdr msg = {};
    msg.msg_name = &peer;
    msg.msg_namelen = sizeof peer;
    msg.msg_iov = &data;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = controlSize;
    return msg;
}

std::string address_text(in_addr address)
{
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &address, text, sizeof text) ? text : "?";
}

}  // namespace

DiscoveryResponder::DiscoveryResponder(std::vector<SimUnit> units, double moveDelay)
    : Thread("discovery"), m_units(std::move(units)), m_moveDelay(moveDelay), m_buffer(kDatagramMax + 1)
{
    for (const SimUnit& unit : m_units) m_answers.push_back(unit.Answer());
}

DiscoveryResponder::~DiscoveryResponder()
{
    // Wake the thread out of its poll at once and let it end before the
    // join, whose waits come in whole seconds.
    Stop(true);
    if (m_fd >= 0) shutdown(m_fd, SHUT_RDWR);
    for (int i = 0; i < kSliceMs && IsRunning(); i++) usleep(1000);
    Stop();
    if (m_fd >= 0) close(m_fd);
}

bool DiscoveryResponder::Open(unsigned short port)
{
    m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    int on = 1;
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    any.sin_port = htons(port);
    if (m_fd < 0 || setsockopt(m_fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        setsockopt(m_fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0 ||
        bind(m_fd, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) {
        syslog_safe(3, "<vantor-sim> Unable to open the discovery port %u (%d).", port, errno);
        return false;
    }
    m_ownAddresses = setsockopt(m_fd, IPPROTO_IP, IP_TRANSPARENT, &on, sizeof on) == 0;
    if (!m_ownAddresses)
        syslog_safe(4, "<vantor-sim> Units answer from the host's address: IP_TRANSPARENT refused (%d).", errno);
    syslog_safe(6, "<vantor-sim> Discovery: %zu units on UDP port %u.", m_units.size(), port);
    return true;
}

void* DiscoveryResponder::ThreadMain()
{
    while (KeepRunning() && !daemon_should_exit) {
        pollfd p = {m_fd, POLLIN, 0};
        if (poll(&p, 1, PollTimeoutMs()) > 0) ReceiveOne();
        MoveDue();
    }
    return nullptr;
}

int DiscoveryResponder::PollTimeoutMs() const
{
    long long soonest = kSliceMs;
    for (const Move& move : m_moves) soonest = std::min(soonest, -move.due.DurationNs() / TimeSpan::m_msToNs + 1);
    return static_cast<int>(std::max(0LL, soonest));
}

void DiscoveryResponder::ReceiveOne()
{
    sockaddr_in from = {};
    char control[CMSG_SPACE(sizeof(in_pktinfo))];
    iovec iov = {m_buffer.data(), kDatagramMax};
    msghdr msg = datagram_message(from, iov, control, sizeof control);
    ssize_t n = recvmsg(m_fd, &msg, MSG_DONTWAIT);
    if (n < 0) return;
    int ifindex = 0;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c))
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO)
            ifindex = reinterpret_cast<in_pktinfo*>(CMSG_DATA(c))->ipi_ifindex;
    Handle(std::string(m_buffer.data(), static_cast<size_t>(n)), from, ifindex);
}

void DiscoveryResponder::Handle(const std::string& datagram, const sockaddr_in& from, int ifindex)
{
    if (is_hello(datagram))
        AnswerHello(from, ifindex);
    else if (datagram.compare(0, 8, "SetIPv4 ") == 0)
        Schedule(datagram);
}

void DiscoveryResponder::AnswerHello(const sockaddr_in& from, int ifindex)
{
    size_t answered = 0;
    for (size_t i = 0; i < m_units.size(); i++) {
        int rv = SendFrom(m_units[i], m_answers[i], from, ifindex);
        if (rv == 0) answered++;
        else syslog_safe(4, "<vantor-sim> Unit %s cannot answer (%d).", address_text(m_units[i].ipv4).c_str(), -rv);
    }
    syslog_safe(6, "<vantor-sim> Hello from %s:%u: %zu units answered.", address_text(from.sin_addr).c_str(),
                ntohs(from.sin_port), answered);
}

// To the sender; with no route to it, as a limited broadcast to its port on
// the interface the request came in on, which needs none.
int DiscoveryResponder::SendFrom(const SimUnit& unit, const std::string& text, const sockaddr_in& to, int ifindex)
{
    sockaddr_in target = to;
    char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    iovec iov = {const_cast<char*>(text.data()), text.size()};
    msghdr msg = datagram_message(target, iov, control, sizeof control);
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo* info = reinterpret_cast<in_pktinfo*>(CMSG_DATA(c));
    if (m_ownAddresses) info->ipi_spec_dst = unit.ipv4;
    if (sendmsg(m_fd, &msg, 0) >= 0) return 0;
    if (errno != ENETUNREACH) return -errno;
    target.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    info->ipi_ifindex = ifindex;
    return sendmsg(m_fd, &msg, 0) >= 0 ? 0 : -errno;
}

void DiscoveryResponder::Schedule(const std::string& datagram)
{
    SetIPv4Request request;
    if (!sim_parse_set_ipv4(datagram, request)) {
        syslog_safe(4, "<vantor-sim> Ignoring a malformed SetIPv4 request.");
        return;
    }
    for (size_t i = 0; i < m_units.size(); i++) {
        if (memcmp(m_units[i].mac, request.mac, sizeof request.mac) != 0) continue;
        syslog_safe(6, "<vantor-sim> SetIPv4: unit %s moves to %s in %g s.", address_text(m_units[i].ipv4).c_str(),
                    address_text(request.address).c_str(), m_moveDelay);
        m_moves.push_back({TimeSpan(0, static_cast<long long>(m_moveDelay * TimeSpan::m_sToNs)), i, request.address});
    }
    MoveDue();
}

void DiscoveryResponder::MoveDue()
{
    for (auto it = m_moves.begin(); it != m_moves.end();) {
        if (it->due.DurationNs() < 0) {
            ++it;
            continue;
        }
        m_units[it->unit].MoveTo(it->address);
        m_answers[it->unit] = m_units[it->unit].Answer();
        it = m_moves.erase(it);
    }
}

bool sim_discovery_start(const SimOptions& options, std::unique_ptr<DiscoveryResponder>& responder)
{
    std::vector<SimUnit> units;
    if (options.discoveryUnits > 0) units = sim_units_generate(options.discoveryUnits);
    if (!options.unitsFile.empty()) {
        std::string text, error;
        int rv = regular_file_read(options.unitsFile.c_str(), kUnitsFileMax, text);
        if (rv < 0) error = strerror(-rv);
        if (rv < 0 || !sim_units_parse(text, units, error)) {
            syslog_safe(3, "<vantor-sim> Units file %s: %s.", options.unitsFile.c_str(), error.c_str());
            return false;
        }
    }
    if (units.empty()) return true;
    responder = std::make_unique<DiscoveryResponder>(std::move(units), options.setIPv4Delay);
    return responder->Open(kServicePort) && responder->Start();
}
