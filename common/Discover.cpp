#include "Discover.h"

#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "Api.h"
#include "NetUtils.h"
#include "TimeSpan.h"
#include "daemon.h"
#include "debugger.h"
#include "utils.h"

std::string MAC;
int RS485_MASTER_MAC_CHANGED = 0;

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
// The longest "serial set" command sent.
const size_t kSerialSetMax = 200;
// "serial enum" columns: 1-based numbers of those the search reports.
const size_t kColumnHwId = 2, kColumnRs485 = 3, kColumnMac = 4, kColumnIpv4 = 5, kColumnMaster = 7;
const size_t kColumnsKnown = 9;
const size_t kRs485AddressMax = 3;  // characters; longer is no address
const char kNoMac[] = "00:00:00:00:00:00";
const char kNoIpv4[] = "0.0.0.0";

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

// The local daemon's command channel, each output line to exec_out.
class LocalChannel : public Api {
public:
    explicit LocalChannel(void* cbData) : Api(SockAddr(AF_INET, INADDR_LOOPBACK, static_cast<int>(kServicePort)), strPrompt)
    {
        Timeout(Discover::kChannelTimeoutSeconds);
        RegisterOutputCb(exec_out, cbData);
    }
};

// A whole token of digits with an optional sign, within int.
bool whole_int(const char* text, int& value)
{
    char* end = nullptr;
    errno = 0;
    long n = strtol(text, &end, 10);
    if (end == text || *end || errno || n < INT_MIN || n > INT_MAX) return false;
    value = static_cast<int>(n);
    return true;
}

bool is_table_frame(const char* line)
{
    return strstr(line, "------") || strstr(line, "Version") || (strstr(line, "/dev/ttyS1") && strlen(line) <= 14);
}

// Column `number` (1-based) into its field of a central's record.
void take_column(size_t number, const std::string& value, std::string& hwid, std::string& rs485, std::string& mac,
                 std::string& ipv4, std::string& master)
{
    switch (number) {
    case kColumnHwId: hwid = value; break;
    case kColumnRs485: rs485 = value.size() > kRs485AddressMax ? kNone : value; break;
    case kColumnMac: mac = value == kNoMac ? kNone : value; break;
    case kColumnIpv4: ipv4 = value == kNoIpv4 ? kNone : value; break;
    case kColumnMaster: master = value == kNoMac ? kNone : value; break;
    default: break;
    }
}

}  // namespace

bool rs485_central_line(const char* line, const std::string& hwMac, std::vector<std::string>& words,
                        std::string& record)
{
    if (is_table_frame(line)) return false;
    std::vector<std::string> found;
    for (const char* at = line; *at;) {
        size_t n = strcspn(at, " ,");
        if (n) found.emplace_back(at, n);
        at += n + (at[n] ? 1 : 0);
    }
    if (found.empty()) return false;
    std::string hwid = kNone, rs485 = kNone, mac = kNone, ipv4 = kNone, master = kNone;
    for (size_t i = 0; i < found.size(); i++) take_column(i + 1, found[i], hwid, rs485, mac, ipv4, master);
    record = mac + " " + ipv4 + " " + hwid + " " + rs485 + " " + master + " " + (hwMac.empty() ? kNone : hwMac);
    words = std::move(found);
    return true;
}

void exec_out(void* cbData, const char* out)
{
    syslog_safe(6, "%s:Starting RS-485 Search: %s", __func__, out);
    if (!cbData) return;
    std::vector<std::string> words;
    std::string record;
    if (!rs485_central_line(out, MAC, words, record)) {
        syslog_safe(3, "Line skip: %s", out);
        return;
    }
    for (size_t i = 0; i < words.size(); i++) {
        syslog_safe(3, "Data:%s", words[i].c_str());
        if (i + 1 > kColumnsKnown) syslog_safe(3, "Unknown argument number=%zu", i + 1);
    }
    int hwId = 0;
    if (RS485_MASTER_MAC_CHANGED == 0 && words.size() >= kColumnHwId && whole_int(words[kColumnHwId - 1].c_str(), hwId))
        RS485_MASTER_MAC_CHANGED = hwId;
    syslog_safe(6, "SORTED:%s", record.c_str());
    reinterpret_cast<Discover::CentralFoundCb>(cbData)(record.c_str(), &RS485_MASTER_MAC_CHANGED);
}

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
    if (searchRs485) {
        if (!Pass(nullptr)) return false;
        SearchRs485(centralFoundCallback, hwMac);
        return true;
    }
    std::string unreported;
    bool sent = Pass([&](char* text, const SockAddr&) {
        std::string line = ReportUnits(text, centralFoundCallback, value);
        if (!line.empty()) unreported = line;
    });
    if (!sent) return false;
    if (!unreported.empty() && centralFoundCallback) centralFoundCallback(unreported.c_str(), &value);
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

void Discover::SearchRs485(CentralFoundCb callback, const char* hwMac)
{
    syslog_safe(3, "Search for RS-485 centrals with 'serial enum'.");
    MAC = hwMac ? hwMac : "";
    LocalChannel api(reinterpret_cast<void*>(callback));
    if (!api.Exec("serial enum")) syslog_safe(3, "Error: Failed to execute 'serial enum'.");
    api.Disconnect();
    MAC.clear();
}

bool Discover::ChangeRS485Address(const char* masterIp, const char* slaveMac, int newAddress)
{
    syslog_safe(6, "Discover - Change RS-485 address to %d (from %s, slave MAC %s).", newAddress,
                masterIp ? masterIp : "", slaveMac ? slaveMac : "");
    char command[kSerialSetMax + 1];
    int n = snprintf(command, sizeof command, "serial set %s %d", slaveMac ? slaveMac : "", newAddress);
    // A cut command would name another central, or none.
    LocalChannel api(nullptr);
    if (n < 0 || static_cast<size_t>(n) > kSerialSetMax || !api.Exec(command))
        syslog_safe(3, "Error: Failed to execute serial set.");
    api.Disconnect();
    return true;
}
