#include "Discover.h"

#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "NetUtils.h"
#include "TimeSpan.h"
#include "daemon.h"
#include "debugger.h"
#include "utils.h"

const char* const Discover::m_packet_hello = "Hello";
const char* const Discover::m_packet_set_ipv4 = "SetIPv4";
const char* const Discover::m_str_permanent = "permanent";
const char* const Discover::m_str_temporary = "temporary";

namespace {

// The longest slice of the pause: every wait ends soon after
// daemon_should_exit is raised.
const int kSliceMs = 100;
// Answers read per wake-up before the clock is looked at again.
const int kReadBatch = 64;
// The request buffer of SetIPv4.
const size_t kRequestSize = 1500;
const char kNone[] = "NONE";

const std::string* mac_of(const DiscoverRecord& record)
{
    auto it = record.find("mac");
    return it == record.end() || it->second.empty() ? nullptr : &it->second;
}

bool starts_with(const char* text, const char* prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

// "mac:<v> hwid:<v> ipv4:<v> ipv6:<v>" from `text` on, blank-separated;
// other tokens are ignored.
void parse_single_line(char* text, DiscoverRecord& record)
{
    static const char* const kKeys[] = {"hwid", "mac", "ipv4", "ipv6"};
    char* save = nullptr;
    for (char* token = strtok_r(text, " ", &save); token; token = strtok_r(nullptr, " ", &save)) {
        const char* colon = strchr(token, ':');
        if (!colon) continue;
        for (const char* key : kKeys)
            if (starts_with(token, key)) record[key] = colon + 1;
    }
    record["master"] = "?";
}

// The values the callback form collects from one answer.
struct UnitLine {
    std::string ipv4 = kNone, mac = kNone, hwid = kNone, rs485 = kNone, masterMac = kNone;
    bool given = false;     // a value was collected
    bool reported = false;  // the callback saw this answer
    bool hwidSeen = false;

    std::string Text() const { return mac + " " + ipv4 + " " + hwid + " " + rs485 + " " + masterMac; }
    void Report(Discover::CentralFoundCb callback, int hwId)
    {
        reported = true;
        if (callback) callback(Text().c_str(), &hwId);
    }
    void Take(const char* key, const char* value, Discover::CentralFoundCb callback, int hwId);
};

struct CollectedField {
    const char* key;
    std::string UnitLine::*slot;
    const char* log;
};
const CollectedField kCollected[] = {
    {"ipv4", &UnitLine::ipv4, "IPv4->%s"},
    {"mac", &UnitLine::mac, "MAC->%s"},
    {"hwid", &UnitLine::hwid, "HwID->%s"},
    {"rs485", &UnitLine::rs485, "RS485 address->%s"},
    {"masterMac", &UnitLine::masterMac, "Master MAC->%s"},
};

void UnitLine::Take(const char* key, const char* value, Discover::CentralFoundCb callback, int hwId)
{
    if (strcmp(key, "hostname") == 0) {
        syslog_safe(6, "hostname ->%s", value);
        Report(callback, hwId);
        return;
    }
    if (strcmp(key, "master") == 0) {
        syslog_safe(6, "Master name->%s", value);
        if (!hwidSeen) Report(callback, hwId);
        return;
    }
    for (const CollectedField& field : kCollected) {
        if (strcmp(key, field.key) != 0) continue;
        given = true;
        // An "rs485" value is recorded as "NONE" whatever it says, as the
        // system has always done.
        this->*field.slot = field.slot == &UnitLine::rs485 ? kNone : value;
        hwidSeen |= field.slot == &UnitLine::hwid;
        if (field.slot == &UnitLine::mac) syslog_safe(6, "--------CENTRAL FOUND---------");
        syslog_safe(6, field.log, value);
    }
}

}  // namespace

Discover::Discover(unsigned short port) : m_port(port)
{
    safe_mem_object(__FILE__, __LINE__, "Discover", this);
}

Discover::~Discover()
{
    Cleanup();
    safe_mem_object(__FILE__, __LINE__, "~Discover", this);
}

bool Discover::Fail(const char* format)
{
    int error = errno;
    syslog_safe(3, format, error);
    m_lastError = -error;
    Cleanup();
    return false;
}

bool Discover::Prepare()
{
    if (m_fd >= 0) return true;
    m_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (m_fd < 0) return Fail("Unable to create UDP socket for discovery (%d).");
    sockaddr_in any = {};
    any.sin_family = AF_INET;
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&any), sizeof any) != 0) return Fail("Unable to bind socket (%d).");
    int on = 1;
    if (setsockopt(m_fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0)
        return Fail("Unable to enable broadcast on socket (%d).");
    // The default buffer holds a few hundred answers; a burst from a large
    // network must not be dropped before it is read.
    int size = kReceiveBufferBytes;
    if (setsockopt(m_fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0 &&
        setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0)
        syslog_safe(7, "DBG %s:%d Receive buffer of %d bytes refused (%d).", "Discover.cpp", __LINE__, size, errno);
    if (!m_interface.empty() &&
        setsockopt(m_fd, SOL_SOCKET, SO_BINDTODEVICE, m_interface.c_str(), m_interface.size() + 1) != 0)
        return Fail("Unable to bind discovery socket to its interface (%d).");
    m_buffer.resize(kAnswerBufferSize);
    m_lastError = 0;
    return true;
}

void Discover::Cleanup()
{
    if (m_fd < 0) return;
    shutdown(m_fd, SHUT_RDWR);
    close(m_fd);
    m_fd = -1;
}

const char* Discover::FallbackInterface() const
{
    return m_interface.empty() ? kBroadcastInterface : m_interface.c_str();
}

bool Discover::Pass(const AnswerHandler& onAnswer)
{
    if (!Prepare()) return false;
    int rv = ipv4_udp_broadcast(m_fd, m_port, m_packet_hello, FallbackInterface());
    m_lastError = rv < 0 ? rv : 0;
    if (rv < 0) return false;
    Listen(onAnswer);
    return true;
}

void Discover::Listen(const AnswerHandler& onAnswer)
{
    TimeSpan deadline(0, static_cast<long long>(m_waitSeconds * TimeSpan::m_sToNs));
    int room = onAnswer ? kMaxAnswersPerPass : 0;
    for (;;) {
        long long leftNs = -deadline.DurationNs();
        if (leftNs <= 0 || daemon_should_exit) break;
        int sliceMs = static_cast<int>(std::min<long long>(kSliceMs, (leftNs + TimeSpan::m_msToNs - 1) / TimeSpan::m_msToNs));
        pollfd p = {m_fd, POLLIN, 0};
        // Not reading: the answers stay queued, so wait on nothing.
        if (poll(&p, room > 0 ? 1 : 0, sliceMs) > 0) room -= ReadQueued(room, onAnswer);
    }
    // What arrived within the pause and is still queued belongs to it.
    while (room > 0) {
        int got = ReadQueued(room, onAnswer);
        room -= got;
        if (got < kReadBatch) break;
    }
    if (onAnswer && room == 0)
        syslog_safe(4, "Discovery: %d answers read in one pass, the rest stays queued.", kMaxAnswersPerPass);
}

int Discover::ReadQueued(int room, const AnswerHandler& onAnswer)
{
    int count = 0;
    for (; count < std::min(room, kReadBatch); count++) {
        SockAddr from;
        ssize_t n = from.RecvFrom(m_fd, m_buffer.data(), kAnswerBufferSize - 1, MSG_DONTWAIT);
        if (n < 0) break;
        m_buffer[static_cast<size_t>(n)] = '\0';
        onAnswer(m_buffer.data(), from);
    }
    return count;
}

bool Discover::Find(std::list<DiscoverRecord>& targets)
{
    return Pass([&targets](char* text, const SockAddr& from) {
        DiscoverRecord record;
        ParseAnswer(text, record);
        char remote[SockAddr::m_strLen];
        record["remote"] = from.Str(remote, true);
        InsertByMac(targets, std::move(record));
    });
}

bool Discover::Find(std::list<std::pair<SockAddr, SockAddr>>& targets)
{
    return Pass([&targets](char* text, const SockAddr& from) {
        const char* at = strstr(text, "mac:");
        SockAddr mac;
        if (at && mac.GetMAC(at + 4) == 0) targets.emplace_back(from, mac);
    });
}

bool Discover::Find(CentralFoundCb centralFoundCallback, bool searchRs485, int* hwId, const char* hwMac)
{
    syslog_safe(6, "DISCOVER-FIND FUNCTION!");
    syslog_safe(6, "Final MAC:%s", hwMac ? hwMac : "");
    int value = hwId ? *hwId : 0;
    std::string unreported;
    bool sent = Pass([&](char* text, const SockAddr&) {
        std::string line = ReportUnits(text, centralFoundCallback, value);
        if (!line.empty()) unreported = line;
    });
    if (!sent) return false;
    if (!unreported.empty() && centralFoundCallback) centralFoundCallback(unreported.c_str(), &value);
    (void)searchRs485;
    return true;
}

bool Discover::SetIPv4(const SockAddr& target, const char* ipv4Addr, const char* ipv4Mask, const char* ipv4Gateway,
                       const char* dnsList, bool permanent, const char* optional)
{
    if (!Prepare()) return false;
    char text[SockAddr::m_strLen];
    char request[kRequestSize];
    bool extra = optional && *optional;
    int n = snprintf(request, sizeof request, "%s %s:%s %s %s %s %s%s%s%s%s", m_packet_set_ipv4,
                     SockAddr::Type(target.GetAF()), target.Str(text, false), ipv4Addr, ipv4Mask, ipv4Gateway,
                     dnsList ? dnsList : "", dnsList ? " " : "", permanent ? m_str_permanent : m_str_temporary,
                     extra ? "\n" : "", extra ? optional : "");
    if (n < 0 || static_cast<size_t>(n) >= sizeof request) {
        syslog_safe(3, "SetIPv4 request of %d bytes does not fit %zu.", n, sizeof request);
        m_lastError = -EMSGSIZE;
        return false;
    }
    int rv = ipv4_udp_broadcast(m_fd, m_port, request, FallbackInterface());
    m_lastError = rv < 0 ? rv : 0;
    return rv >= 0;
}

void Discover::ParseAnswer(char* text, DiscoverRecord& record)
{
    char* lineSave = nullptr;
    for (char* line = strtok_r(text, "\n", &lineSave); line; line = strtok_r(nullptr, "\n", &lineSave)) {
        char* fieldSave = nullptr;
        char* key = strtok_r(line, "=", &fieldSave);
        if (!key) return;  // a line of "=" ends the answer
        char* value = strtok_r(nullptr, "=", &fieldSave);
        if (value) {
            record[key] = value;
            continue;
        }
        char* single = strstr(key, "mac");
        if (!single) continue;
        parse_single_line(single, record);
        return;
    }
}

void Discover::InsertByMac(std::list<DiscoverRecord>& targets, DiscoverRecord&& record)
{
    const std::string* mac = mac_of(record);
    auto at = targets.end();
    for (auto it = targets.begin(); mac && it != targets.end(); ++it) {
        const std::string* other = mac_of(*it);
        if (!other) break;
        if (other->compare(*mac) > 0) {
            at = it;
            break;
        }
    }
    targets.insert(at, std::move(record));
}

std::string Discover::ReportUnits(char* text, CentralFoundCb callback, int hwId)
{
    UnitLine unit;
    char* lineSave = nullptr;
    for (char* line = strtok_r(text, "\n", &lineSave); line; line = strtok_r(nullptr, "\n", &lineSave)) {
        char* fieldSave = nullptr;
        char* key = strtok_r(line, "=", &fieldSave);
        if (!key) break;
        char* value = strtok_r(nullptr, "=", &fieldSave);
        if (value) unit.Take(key, value, callback, hwId);
    }
    return unit.given && !unit.reported ? unit.Text() : std::string();
}
