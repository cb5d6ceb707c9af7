// Unit discovery: a "Hello" broadcast on a UDP port, answered by every
// unit's daemon with a text datagram that describes it, gathered into
// records; and "SetIPv4", which tells one unit to take new IPv4 settings.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ListedObj.hpp"
#include "SockAddr.h"

// One answering unit: field name to text value. "remote" is the sender as
// "a.b.c.d:port"; the single-line answer form adds "master" = "?".
using DiscoverRecord = std::map<std::string, std::string>;

class Discover : public ListedObj<Discover> {
public:
    // Reports a unit (or an RS-485 central): its text line and a value.
    using CentralFoundCb = void (*)(const char* record, int* value);

    static const char* const m_packet_hello;      // "Hello"
    static const char* const m_packet_set_ipv4;   // "SetIPv4"
    static const char* const m_str_permanent;     // "permanent"
    static const char* const m_str_temporary;     // "temporary"

    // Room for the largest IPv4 UDP payload (65,507 bytes) and a NUL.
    static const size_t kAnswerBufferSize = 65508;
    // Answers one pass reads at most; more stay queued on the socket.
    static const int kMaxAnswersPerPass = 10000;
    // The receive buffer asked for: a burst of a thousand answers fits.
    static const int kReceiveBufferBytes = 4 << 20;

    // `port`: where requests are broadcast to. Nothing is opened yet.
    explicit Discover(unsigned short port);
    ~Discover() override;
    Discover(const Discover&) = delete;
    Discover& operator=(const Discover&) = delete;

    // Opens, binds (any address, an ephemeral port) and enables broadcast on
    // the UDP socket unless it is open; asks for a large receive buffer
    // (refusal is no failure) and binds to the interface of SetInterface.
    // True when ready; false (logged, LastError() set, socket closed) when a
    // step fails.
    bool Prepare();
    // Shuts down and closes the socket if it is open.
    void Cleanup();

    // One pass each: broadcast "Hello", then read answers for the pause of
    // SetWait (reading while waiting, so a burst never overflows the socket;
    // answers arriving later stay queued for the next pass). Every form
    // returns false only when the socket cannot be prepared or the "Hello"
    // cannot be sent (LastError() tells why); a pass with no answer is true.
    // The pause ends early, true, when daemon_should_exit is raised.

    // Appends one record per answer, ordered by "mac" (see InsertByMac);
    // records already in `targets` take part in the ordering.
    bool Find(std::list<DiscoverRecord>& targets);
    // Appends (sender, hardware address) for each answer holding "mac:"
    // followed by a MAC; other answers are ignored. No ordering.
    bool Find(std::list<std::pair<SockAddr, SockAddr>>& targets);
    // Reports units through `centralFoundCallback` (see ReportUnits), with a
    // copy of *hwId. With searchRs485 the answers are not read (they stay
    // queued) and the RS-485 central search runs after the pause instead:
    // "serial enum" on the local daemon's command channel, each central
    // reported by exec_out, `hwMac` kept in MAC meanwhile. Its failures are
    // logged and change nothing in the result.
    bool Find(CentralFoundCb centralFoundCallback, bool searchRs485, int* hwId, const char* hwMac);

    // Broadcasts "SetIPv4 <type>:<target> <addr> <mask> <gateway> [<dns> ]
    // permanent|temporary[\n<optional>]" (NUL included); no answer is
    // awaited. dnsList and optional may be null. False when the socket
    // cannot be prepared, the request would not fit 1,500 bytes
    // (LastError() -EMSGSIZE; a cut request is never sent) or the send fails.
    bool SetIPv4(const SockAddr& target, const char* ipv4Addr, const char* ipv4Mask, const char* ipv4Gateway,
                 const char* dnsList, bool permanent, const char* optional);

    // The RS-485 central with hardware address `slaveMac` gets `newAddress`:
    // "serial set <slaveMac> <newAddress>" on the local daemon's command
    // channel (127.0.0.1:3543), whatever `masterIp` says (it is only
    // logged). Failures are logged; true in every case.
    bool ChangeRS485Address(const char* masterIp, const char* slaveMac, int newAddress);

    // The pause after "Hello", in seconds (default 1).
    void SetWait(double seconds) { m_waitSeconds = seconds; }
    // Binds the socket to this interface (SO_BINDTODEVICE) at Prepare, and
    // sends the hand-built frame through it in place of "eth0". Null or
    // empty: no binding. Call before the socket is prepared.
    void SetInterface(const char* name) { m_interface = name ? name : ""; }
    // The last negative result of Prepare (the failing step's negated errno)
    // or of the broadcast; 0 after a success.
    int LastError() const { return m_lastError; }

    // The answer parser: NUL-terminated text, split in place. Lines are
    // split at "\n" (empty ones skipped), each at "=" into key and value (a
    // value ends at a further "="). A key without value is skipped unless the
    // line holds "mac": then the single-line form from that "mac" on
    // ("mac:<v> hwid:<v> ipv4:<v> ipv6:<v>", blank-separated) fills those
    // keys and "master" = "?", and the rest is ignored. A line of only "="
    // ends the answer.
    static void ParseAnswer(char* text, DiscoverRecord& record);
    // Inserts before the first record whose "mac" is greater (byte order);
    // a record without "mac", or one met first in the walk, sends it to the
    // end. Equal MACs keep arrival order.
    static void InsertByMac(std::list<DiscoverRecord>& targets, DiscoverRecord&& record);
    // The callback form's reading of one answer: each line split at "=";
    // "ipv4", "mac", "hwid", "masterMac" collected ("rs485" always as
    // "NONE"), the text line "<mac> <ipv4> <hwid> <rs485> <masterMac>"
    // reported at a "hostname" line and at a "master" line before any
    // "hwid". Returns the line of an answer that collected values but made
    // no report (the pass reports the last such line once, after the
    // answers), or an empty string.
    static std::string ReportUnits(char* text, CentralFoundCb callback, int hwId);

    // Seconds each step on the local command channel may take.
    static const int kChannelTimeoutSeconds = 10;

private:
    // "serial enum" on the local command channel, each line to exec_out.
    void SearchRs485(CentralFoundCb callback, const char* hwMac);

    // One received answer, NUL-terminated in the object's buffer.
    using AnswerHandler = std::function<void(char* text, const SockAddr& from)>;

    // Logs `format` (with errno), keeps -errno in LastError() and closes the
    // socket; false.
    bool Fail(const char* format);
    const char* FallbackInterface() const;
    // Prepare, "Hello", then the pause; an empty handler only waits.
    bool Pass(const AnswerHandler& onAnswer);
    void Listen(const AnswerHandler& onAnswer);
    // Reads up to `room` queued answers without waiting; the count read.
    int ReadQueued(int room, const AnswerHandler& onAnswer);

    int m_fd = -1;
    unsigned short m_port;
    double m_waitSeconds = 1.0;
    std::string m_interface;
    int m_lastError = 0;
    std::vector<char> m_buffer;  // one answer, kAnswerBufferSize bytes once prepared
};

// The RS-485 search's process-wide state (one search at a time, unguarded):
// the `hwMac` of the running search, and the first HwID a central line gave
// (0 until then; no search resets it, the callback gets a pointer to it).
extern std::string MAC;
extern int RS485_MASTER_MAC_CHANGED;

// The command channel's output handler of the RS-485 operations, one call
// per output line; `cbData` is the search's CentralFoundCb, null for the
// address change (then the line is only logged). Reports each central line
// (see rs485_central_line, with MAC) and keeps its HwID column in
// RS485_MASTER_MAC_CHANGED while that is 0 and the column is a whole int.
void exec_out(void* cbData, const char* out);
// One "serial enum" output line, split at blanks and commas: false for the
// table's port, header and rule lines and for a line without a word; else
// its words and the record "<mac> <ipv4> <hwid> <rs485> <masterMac>
// <hwMac>" (columns 4, 5, 2, 3 and 7; absent ones, an all-zero MAC or IPv4
// and an RS-485 address over 3 characters as "NONE").
bool rs485_central_line(const char* line, const std::string& hwMac, std::vector<std::string>& words,
                        std::string& record);
