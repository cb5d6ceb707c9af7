#include "Backlog.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <set>

const char kVersionDir[] = "/var/local";
const char kUnitVersionFile[] = "vantor.ver";
const char kPeerVersionPrefix[] = "vantor.ver.";

namespace {

const long long kMaxPeerId = 2147483647;

std::string dir_path(const std::string& dir, const char* name)
{
    return dir + (!dir.empty() && dir.back() == '/' ? "" : "/") + name;
}

// Keeps the first kBacklogMaxIgnoredNames names in sorted order, counting all.
void note_ignored(std::set<std::string>& names, const char* name, size_t& count)
{
    count++;
    names.insert(name);
    if (names.size() > kBacklogMaxIgnoredNames) names.erase(std::prev(names.end()));
}

// Lists the peer ids of `dir` (unsorted) and the names that look like peer
// files but are not. False with `unknown` set when it cannot.
bool list_peers(const std::string& dir, std::vector<int>& ids, BacklogReading& reading, std::string& unknown)
{
    DIR* listing = opendir(dir.c_str());
    if (!listing) {
        unknown = "cannot list " + dir + ": " + strerror(errno);
        return false;
    }
    std::set<std::string> ignored;
    size_t prefixLength = strlen(kPeerVersionPrefix);
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(listing);
        if (!entry) break;
        int id;
        if (strncmp(entry->d_name, kPeerVersionPrefix, prefixLength) != 0) continue;
        if (!backlog_peer_name(entry->d_name, id)) {
            note_ignored(ignored, entry->d_name, reading.ignoredCount);
        } else if (ids.size() == kBacklogMaxPeers) {
            unknown = "more than " + std::to_string(kBacklogMaxPeers) + " peer files in " + dir;
            break;
        } else {
            ids.push_back(id);
        }
    }
    int listError = errno;
    closedir(listing);
    if (!unknown.empty()) return false;
    if (listError != 0) {
        unknown = "cannot list " + dir + ": " + strerror(listError);
        return false;
    }
    reading.ignored.assign(ignored.begin(), ignored.end());
    return true;
}

}  // namespace

bool backlog_peer_name(const char* name, int& id)
{
    if (strncmp(name, kPeerVersionPrefix, strlen(kPeerVersionPrefix)) != 0) return false;
    const char* digits = name + strlen(kPeerVersionPrefix);
    if (digits[0] < '0' || digits[0] > '9' || (digits[0] == '0' && digits[1] != '\0')) return false;
    long long value = 0;
    for (const char* p = digits; *p; p++) {
        if (*p < '0' || *p > '9') return false;
        value = value * 10 + (*p - '0');
        if (value > kMaxPeerId) return false;
    }
    id = static_cast<int>(value);
    return true;
}

bool backlog_read(const std::string& dir, BacklogReading& reading, std::string& unknown)
{
    BacklogReading read;
    std::string unitPath = dir_path(dir, kUnitVersionFile);
    int rv = read.unit.ReadFile(unitPath.c_str(), &read.unitMtime);
    if (rv != 0) {
        unknown = unitPath + ": " + backlog_reason(rv);
        return false;
    }
    std::vector<int> ids;
    std::string why;
    if (!list_peers(dir, ids, read, why)) {
        unknown = why;
        return false;
    }
    std::sort(ids.begin(), ids.end());
    read.peers.reserve(ids.size());
    std::string path = dir_path(dir, kPeerVersionPrefix);
    size_t stem = path.size();
    for (int id : ids) {
        PeerReading peer;
        peer.id = id;
        path.resize(stem);
        path += std::to_string(id);
        peer.error = peer.version.ReadFile(path.c_str(), &peer.mtime);
        if (peer.error != -ENOENT) read.peers.push_back(peer);
    }
    reading = std::move(read);
    return true;
}

std::string backlog_reason(int error)
{
    switch (error) {
        case -ENOENT: return "missing";
        case -EISDIR: return "a directory";
        case -EINVAL: return "not a regular file";
        case -EBADMSG: return "not a version number";
        case -EAGAIN: return "kept changing while read";
        case -EACCES: return "permission denied";
        default: return strerror(-error);
    }
}

PeerReport backlog_judge(const Version& unit, const PeerReading& peer, const PeerReading* before, double elapsed,
                         const BacklogLimits& limits, const timespec& now)
{
    PeerReport r;
    r.id = peer.id;
    r.error = peer.error;
    if (peer.error != 0) {
        r.state = PeerState::kMalformed;
        r.status = kBacklogWarning;
        return r;
    }
    r.version = peer.version;
    r.backlog = unit.BacklogOf(peer.version);
    r.age = backlog_age(peer.mtime, now);
    bool lagging = r.backlog > 0;
    r.rated = before && before->error == 0 && elapsed >= kBacklogMinRateSeconds;
    bool advanced = r.rated && peer.version > before->version;
    if (r.rated) {
        r.rate = (static_cast<double>(peer.version.Value()) - static_cast<double>(before->version.Value())) / elapsed;
        r.hasEta = lagging && r.rate > 0;
        if (r.hasEta) r.eta = static_cast<double>(r.backlog) / r.rate;
    }
    bool aboveWarn = limits.warn && r.backlog > *limits.warn;
    bool aboveCrit = limits.crit && r.backlog > *limits.crit;
    // A peer that advanced was written meanwhile, whatever its file's time says.
    bool stale = lagging && !advanced && limits.staleSeconds && std::max(r.age, 0LL) >= *limits.staleSeconds;
    if (r.rated && lagging && !advanced) {
        r.state = PeerState::kStalled;
        r.status = aboveWarn ? kBacklogCritical : kBacklogWarning;
    } else if (advanced && lagging && (aboveWarn || aboveCrit)) {
        r.state = PeerState::kMoving;
        r.status = kBacklogWarning;
    } else if (aboveCrit || stale) {
        r.state = aboveCrit ? PeerState::kCritical : PeerState::kStale;
        r.status = kBacklogCritical;
    } else if (aboveWarn || peer.version > unit) {
        r.state = aboveWarn ? PeerState::kBehind : PeerState::kAhead;
        r.status = kBacklogWarning;
    }
    return r;
}

std::vector<PeerReport> backlog_judge_all(const BacklogReading& later, const BacklogReading* earlier,
                                          double elapsed, const BacklogLimits& limits, const timespec& now)
{
    std::vector<PeerReport> reports;
    reports.reserve(later.peers.size());
    static const std::vector<PeerReading> kNone;
    const std::vector<PeerReading>& old = earlier ? earlier->peers : kNone;
    size_t at = 0;
    for (const PeerReading& peer : later.peers) {
        // Both lists are sorted by id: walk them together.
        while (at < old.size() && old[at].id < peer.id) at++;
        const PeerReading* before = at < old.size() && old[at].id == peer.id ? &old[at] : nullptr;
        reports.push_back(backlog_judge(later.unit, peer, before, elapsed, limits, now));
    }
    return reports;
}

BacklogStatus backlog_status(const std::vector<PeerReport>& reports)
{
    BacklogStatus worst = kBacklogOk;
    for (const PeerReport& r : reports) worst = std::max(worst, r.status);
    return worst;
}

long long backlog_age(const timespec& mtime, const timespec& now)
{
    if (mtime.tv_sec > now.tv_sec || (mtime.tv_sec == now.tv_sec && mtime.tv_nsec > now.tv_nsec)) return -1;
    return static_cast<long long>(now.tv_sec) - static_cast<long long>(mtime.tv_sec) - (now.tv_nsec < mtime.tv_nsec);
}

std::string backlog_age_text(double seconds)
{
    static const struct {
        double below;  // seconds
        double unit;   // seconds
        char suffix;
    } kSteps[] = {{120, 1, 's'}, {120 * 60, 60, 'm'}, {48 * 3600, 3600, 'h'}, {HUGE_VAL, 86400, 'd'}};
    double whole = std::floor(seconds);
    for (const auto& step : kSteps) {
        if (whole >= step.below) continue;
        char text[48];
        snprintf(text, sizeof text, "%.0f%c", std::floor(whole / step.unit), step.suffix);
        return text;
    }
    return "-";  // not a number
}

const char* backlog_state_word(PeerState state)
{
    static const char* const kWords[] = {"malformed", "stalled", "moving", "critical", "stale", "behind", "ahead", "ok"};
    return kWords[static_cast<int>(state)];
}

const char* backlog_status_word(BacklogStatus status)
{
    static const char* const kWords[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    return kWords[status];
}
