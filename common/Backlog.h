// The replication backlog of a unit's peers, from the version files in one
// directory: "vantor.ver" holds the unit's number, "vantor.ver.<HwID>" the
// number peer <HwID> has confirmed. Reading the files and judging each peer.
#pragma once

#include <time.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Version.h"

// Where a unit keeps its version files.
extern const char kVersionDir[];
// The unit's own file, and the beginning of every peer file's name.
extern const char kUnitVersionFile[];
extern const char kPeerVersionPrefix[];
// Most peer files one reading takes; more makes the backlog unknown.
const size_t kBacklogMaxPeers = 4096;
// Most names of non-peer files a reading keeps for its warning.
const size_t kBacklogMaxIgnoredNames = 32;
// Shortest time between two readings, in seconds, that gives rates.
const double kBacklogMinRateSeconds = 0.1;

struct PeerReading {
    int id = 0;         // the peer's HwID, 0..2147483647
    int error = 0;      // 0, or the negated errno of Version::ReadFile
    Version version;    // when error is 0
    timespec mtime{};   // the file's modification time, when error is 0
};

struct BacklogReading {
    Version unit;
    timespec unitMtime{};
    std::vector<PeerReading> peers;    // sorted by id
    std::vector<std::string> ignored;  // first names (sorted) that begin like a peer file but are none
    size_t ignoredCount = 0;           // all such names
};

// True with `id` set when `name` is a peer file's: the prefix, then a
// canonical decimal 0..2147483647 (what "%d" writes for a HwID).
bool backlog_peer_name(const char* name, int& id);

// Reads <dir>/vantor.ver and every peer file of `dir`, each once. Returns
// true, or false with `unknown` saying why no backlog can be judged: the
// unit's file cannot be read ("<path>: <reason>"), the directory cannot be
// listed, or it holds more than kBacklogMaxPeers peer files. A peer file
// that vanished after the listing is left out; one that cannot be read is
// kept with its error. `reading` is unchanged on failure.
bool backlog_read(const std::string& dir, BacklogReading& reading, std::string& unknown);

// What a negated errno of Version::ReadFile means, in a few words.
std::string backlog_reason(int error);

// Peer states in the order of precedence: the first that applies wins.
enum class PeerState { kMalformed, kStalled, kMoving, kCritical, kStale, kBehind, kAhead, kOk };
// The statuses of a monitoring check; also the backlog command's exit statuses.
enum BacklogStatus { kBacklogOk = 0, kBacklogWarning = 1, kBacklogCritical = 2, kBacklogUnknown = 3 };

// Thresholds; one that is not given is never exceeded.
struct BacklogLimits {
    std::optional<uint64_t> warn;           // backlog above it: behind
    std::optional<uint64_t> crit;           // backlog above it: critical
    std::optional<long long> staleSeconds;  // lagging, file unchanged at least this long: stale
};

struct PeerReport {
    int id = 0;
    int error = 0;           // malformed: why
    Version version;
    uint64_t backlog = 0;    // changes the peer lacks; 0 when level or ahead
    long long age = 0;       // whole seconds since the file changed; -1 when its time is in the future
    bool rated = false;      // rate (and perhaps eta) hold values
    double rate = 0;         // changes confirmed per second between the readings
    bool hasEta = false;
    double eta = 0;          // seconds to catch up at that rate
    PeerState state = PeerState::kOk;
    BacklogStatus status = kBacklogOk;
};

// Judges one peer of the later reading. `before` is the same peer in an
// earlier reading `elapsed` seconds before (null when there is none);
// rates need both readings well-formed and elapsed >= kBacklogMinRateSeconds,
// otherwise the peer is judged as from one reading. `now` is the wall clock.
PeerReport backlog_judge(const Version& unit, const PeerReading& peer, const PeerReading* before, double elapsed,
                         const BacklogLimits& limits, const timespec& now);

// Judges every peer of `later` (see backlog_judge); `earlier` may be null.
std::vector<PeerReport> backlog_judge_all(const BacklogReading& later, const BacklogReading* earlier,
                                          double elapsed, const BacklogLimits& limits, const timespec& now);

// The worst status of the reports (kBacklogOk for none).
BacklogStatus backlog_status(const std::vector<PeerReport>& reports);

// Whole seconds from `mtime` to `now`, rounded down; -1 when mtime is later.
long long backlog_age(const timespec& mtime, const timespec& now);
// A duration rounded down: below 120 s "Ns", below 120 min "Nm", below 48 h
// "Nh", else "Nd".
std::string backlog_age_text(double seconds);

const char* backlog_state_word(PeerState state);
const char* backlog_status_word(BacklogStatus status);
