#include "TimeZone.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "regular_file.h"

namespace {

const char kDefaultZoneDir[] = "/usr/share/zoneinfo";
const size_t kHeaderBytes = 44;
const int64_t kFirstInstant = -62135596800;  // 0001-01-01T00:00:00Z
const int64_t kEndInstant = 253402300800;    // 10000-01-01T00:00:00Z
// More than any offset or leap correction (both 32-bit): instants further
// from the years 0001..9999 than this cannot show a date in them.
const int64_t kMargin = int64_t(1) << 33;

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
int64_t be64(const uint8_t* p) { return static_cast<int64_t>(uint64_t(be32(p)) << 32 | be32(p + 4)); }
int64_t read_time(const uint8_t* p, size_t bytes) { return bytes == 4 ? static_cast<int32_t>(be32(p)) : be64(p); }

bool in_years(int64_t posix) { return posix >= kFirstInstant && posix < kEndInstant; }

// t - corr and p + corr without overflow: far instants only need to stay far.
int64_t add_saturated(int64_t a, int32_t b)
{
    if (b > 0 && a > INT64_MAX - b) return INT64_MAX;
    if (b < 0 && a < INT64_MIN - b) return INT64_MIN;
    return a + b;
}

bool is_path(const char* zone) { return zone[0] == '/' || strncmp(zone, "./", 2) == 0 || strncmp(zone, "../", 3) == 0; }

bool is_name_char(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || strchr("._+-", c);
}

// Parts of [A-Za-z0-9._+-] joined by "/", none empty, "." or "..".
bool is_name(const char* zone)
{
    const char* part = zone;
    for (const char* p = zone;; p++) {
        if (*p && *p != '/') {
            if (!is_name_char(*p)) return false;
            continue;
        }
        size_t len = static_cast<size_t>(p - part);
        if (len == 0 || (len == 1 && part[0] == '.') || (len == 2 && part[0] == '.' && part[1] == '.')) return false;
        if (!*p) return true;
        part = p + 1;
    }
}

std::string zone_path(const char* name)
{
    const char* dir = getenv("TZDIR");
    return std::string(dir && *dir ? dir : kDefaultZoneDir) + "/" + name;
}

std::string file_error(int rv)
{
    switch (rv) {
    case -EFBIG:
        return "larger than " + std::to_string(TimeZone::kMaxFileBytes) + " bytes";
    case -EINVAL:
        return "not a regular file";
    default:
        return strerror(-rv);
    }
}

struct Counts {
    uint32_t isut, isstd, leap, time, type, chars;
};

}  // namespace

void tz_escape(std::string& out, const char* text, size_t len, bool (*plain)(unsigned char))
{
    static const char kHex[] = "0123456789abcdef";
    for (size_t i = 0; i < len; i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (plain(c)) out += static_cast<char>(c);
        else out += "\\x", out += kHex[c >> 4], out += kHex[c & 15];
    }
}

std::string tz_quoted(const char* text, size_t len)
{
    std::string out = "\"";
    tz_escape(out, text, len, [](unsigned char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; });
    return out + "\"";
}

// ---- reading TZif data

// Walks the bytes of a TZif file; every length is checked against what is
// left before anything is read or allocated.
struct TimeZone::Reader {
    const uint8_t* p;
    size_t left;
    char version;
    std::string& why;

    bool Fail(const std::string& text)
    {
        why = text;
        return false;
    }
    bool Need(uint64_t bytes, const char* what)
    {
        if (bytes <= left) return true;
        return Fail(std::string("truncated ") + what + " (needs " + std::to_string(bytes) + " bytes, " +
                    std::to_string(left) + " left)");
    }
    const uint8_t* Take(size_t bytes)
    {
        const uint8_t* at = p;
        p += bytes, left -= bytes;
        return at;
    }

    bool Header(Counts& c, bool first)
    {
        if (!Need(kHeaderBytes, first ? "header" : "second header")) return false;
        const uint8_t* h = Take(kHeaderBytes);
        if (memcmp(h, "TZif", 4) != 0) return Fail(first ? "not a TZif file" : "second header without \"TZif\"");
        char v = static_cast<char>(h[4]), hex[8];
        snprintf(hex, sizeof hex, "0x%02x", h[4]);
        if (first && v != 0 && v != '2' && v != '3' && v != '4')
            return Fail(std::string("unknown TZif version byte ") + hex);
        if (!first && v != version) return Fail("second header of another version");
        version = v;
        uint32_t* fields[] = {&c.isut, &c.isstd, &c.leap, &c.time, &c.type, &c.chars};
        for (int i = 0; i < 6; i++) *fields[i] = be32(h + 20 + 4 * i);
        return true;
    }

    static uint64_t BlockBytes(const Counts& c, size_t timeBytes)
    {
        return uint64_t(c.time) * (timeBytes + 1) + uint64_t(c.type) * 6 + c.chars +
               uint64_t(c.leap) * (timeBytes + 4) + uint64_t(c.isstd) + c.isut;
    }

    bool CheckCounts(const Counts& c)
    {
        auto bad = [&](const char* name, uint32_t n, const std::string& rule) {
            return Fail(std::string(name) + " " + std::to_string(n) + " (" + rule + ")");
        };
        auto most = [](uint32_t cap) { return "at most " + std::to_string(cap); };
        if (c.type < 1 || c.type > kMaxTypes) return bad("typecnt", c.type, "1 to " + std::to_string(kMaxTypes));
        if (c.chars < 1 || c.chars > kMaxChars) return bad("charcnt", c.chars, "1 to " + std::to_string(kMaxChars));
        if (c.time > kMaxTransitions) return bad("timecnt", c.time, most(kMaxTransitions));
        if (c.leap > kMaxLeaps) return bad("leapcnt", c.leap, most(kMaxLeaps));
        if (c.isstd != 0 && c.isstd != c.type) return bad("isstdcnt", c.isstd, "0 or typecnt");
        if (c.isut != 0 && c.isut != c.type) return bad("isutcnt", c.isut, "0 or typecnt");
        return true;
    }

    bool Block(const Counts& c, size_t timeBytes, TimeZone& z);
    bool Types(const Counts& c, const uint8_t* records, TimeZone& z);
    bool Leaps(const Counts& c, const uint8_t* records, size_t timeBytes, TimeZone& z);
    bool Footer(TimeZone& z);
};

bool TimeZone::Reader::Block(const Counts& c, size_t timeBytes, TimeZone& z)
{
    if (!CheckCounts(c) || !Need(BlockBytes(c, timeBytes), "data block")) return false;
    const uint8_t* times = Take(c.time * timeBytes);
    const uint8_t* indices = Take(c.time);
    const uint8_t* types = Take(c.type * 6);
    const uint8_t* chars = Take(c.chars);
    const uint8_t* leaps = Take(c.leap * (timeBytes + 4));
    const uint8_t* isstd = Take(c.isstd);
    const uint8_t* isut = Take(c.isut);
    z.m_times.resize(c.time);
    for (uint32_t i = 0; i < c.time; i++) {
        z.m_times[i] = read_time(times + i * timeBytes, timeBytes);
        if (i > 0 && z.m_times[i] <= z.m_times[i - 1])
            return Fail("transition times not ascending at transition " + std::to_string(i + 1));
        if (indices[i] >= c.type) return Fail("transition " + std::to_string(i + 1) + " names a missing type");
    }
    z.m_indices.assign(indices, indices + c.time);
    z.m_chars.assign(reinterpret_cast<const char*>(chars), c.chars);
    for (uint32_t i = 0; i < c.type; i++) {
        bool ut = c.isut && isut[i], standard = c.isstd && isstd[i];
        if ((c.isstd && isstd[i] > 1) || (c.isut && isut[i] > 1) || (ut && !standard))
            return Fail("bad standard/wall or UT/local indicator of type " + std::to_string(i));
    }
    return Types(c, types, z) && Leaps(c, leaps, timeBytes, z);
}

bool TimeZone::Reader::Types(const Counts& c, const uint8_t* records, TimeZone& z)
{
    for (uint32_t i = 0; i < c.type; i++) {
        const uint8_t* r = records + 6 * i;
        Type t{static_cast<int32_t>(be32(r)), r[4] == 1, r[5]};
        std::string which = "type " + std::to_string(i);
        if (t.utoff == INT32_MIN) return Fail(which + ": offset -2^31");
        if (r[4] > 1) return Fail(which + ": DST flag " + std::to_string(r[4]));
        if (r[5] >= c.chars || !memchr(z.m_chars.data() + r[5], 0, c.chars - r[5]))
            return Fail(which + ": abbreviation outside the characters or without its NUL");
        z.m_types.push_back(t);
    }
    return true;
}

bool TimeZone::Reader::Leaps(const Counts& c, const uint8_t* records, size_t timeBytes, TimeZone& z)
{
    bool v4 = version >= '4';
    for (uint32_t i = 0; i < c.leap; i++) {
        const uint8_t* r = records + i * (timeBytes + 4);
        Leap l{read_time(r, timeBytes), static_cast<int32_t>(be32(r + timeBytes))};
        std::string which = "leap second record " + std::to_string(i + 1);
        if (i == 0 && !v4 && (l.at < 0 || (l.corr != 1 && l.corr != -1)))
            return Fail(which + ": a table must start at or after 1970 with a correction of 1 or -1");
        if (i > 0) {
            const Leap& prev = z.m_leaps.back();
            int64_t step = int64_t(l.corr) - prev.corr;
            bool expiry = v4 && step == 0 && i + 1 == c.leap;
            if (l.at <= prev.at) return Fail(which + ": not after the one before");
            if (step != 1 && step != -1 && !expiry) return Fail(which + ": correction does not change by 1");
        }
        z.m_leaps.push_back(l);
    }
    return true;
}

bool TimeZone::Reader::Footer(TimeZone& z)
{
    if (left == 0 || *p != '\n') return Fail("no footer after the data block");
    const uint8_t* text = p + 1;
    size_t room = std::min(left - 1, TzRule::kMaxLength + 1);
    const uint8_t* nl = static_cast<const uint8_t*>(memchr(text, '\n', room));
    if (!nl && room > TzRule::kMaxLength)
        return Fail("footer longer than " + std::to_string(TzRule::kMaxLength) + " bytes");
    if (!nl) return Fail("footer without its closing newline");
    size_t len = static_cast<size_t>(nl - text);
    Take(len + 2);
    if (memchr(text, 0, len)) return Fail("footer holds a NUL byte");
    if (len == 0) return true;
    std::string bad;
    if (!z.SetRule(reinterpret_cast<const char*>(text), len, bad)) return Fail("footer: " + bad);
    if (version < '3' && z.m_rule.NeedsVersion3())
        return Fail("footer needs version 3 (rule hours outside 0..24 or DST all year) in a version 2 file");
    if (z.m_times.empty()) return true;
    const Type& table = z.m_types[z.m_indices.back()];
    const Type& rule = z.TypeAt(z.m_times.back());
    if (z.SameType(table, rule)) return true;
    auto show = [&](const Type& t) {
        const char* abbr = z.m_chars.c_str() + t.abbr;
        return tz_quoted(abbr, strlen(abbr)) + " gmtoff=" + std::to_string(t.utoff) +
               " isdst=" + std::to_string(t.isdst);
    };
    return Fail("footer rule gives " + show(rule) + " at the last transition, the table " + show(table));
}

// ---- loading

bool TimeZone::Fail(const std::string& why)
{
    m_error = why;
    return false;
}

bool TimeZone::SetRule(const char* text, size_t len, std::string& why)
{
    if (!m_rule.Parse(text, len, why)) return false;
    m_hasRule = true;
    m_ruleTypes = m_types.size();
    for (bool dst : {false, true}) {
        if (dst && !m_rule.HasDst()) break;
        m_types.push_back(Type{m_rule.Offset(dst), dst, static_cast<uint32_t>(m_chars.size())});
        m_chars += m_rule.Name(dst);
        m_chars += '\0';
    }
    return true;
}

void TimeZone::Finish()
{
    m_error.clear();
    m_minOff = m_maxOff = m_types[0].utoff;
    for (const Type& t : m_types) m_minOff = std::min(m_minOff, t.utoff), m_maxOff = std::max(m_maxOff, t.utoff);
}

bool TimeZone::LoadData(const void* bytes, size_t size)
{
    TimeZone z;
    std::string why;
    Reader in{static_cast<const uint8_t*>(bytes), size, 0, why};
    Counts c{};
    if (!in.Header(c, true)) return Fail(why);
    if (in.version == 0) {
        // Version 1: the 32-bit data is all there is.
        if (!in.Block(c, 4, z)) return Fail(why);
        if (in.left) return Fail(std::to_string(in.left) + " bytes after the data block");
    } else {
        // The 32-bit data is skipped for the 64-bit copy: its counts need only fit.
        if (!in.Need(Reader::BlockBytes(c, 4), "version 1 data block")) return Fail(why);
        in.Take(Reader::BlockBytes(c, 4));
        if (!in.Header(c, false) || !in.Block(c, 8, z) || !in.Footer(z)) return Fail(why);
        if (in.left) return Fail(std::to_string(in.left) + " bytes after the footer");
    }
    z.Finish();
    *this = std::move(z);
    return true;
}

bool TimeZone::LoadFile(const char* path)
{
    std::string bytes;
    int rv = regular_file_read(path, kMaxFileBytes, bytes);
    std::string name = tz_quoted(path, strlen(path));
    if (rv < 0) return Fail(name + ": " + file_error(rv));
    if (!LoadData(bytes.data(), bytes.size())) return Fail(name + ": " + m_error);
    return true;
}

bool TimeZone::LoadRule(const char* posix)
{
    TimeZone z;
    std::string why;
    if (!z.SetRule(posix, strlen(posix), why)) return Fail("not a POSIX TZ rule: " + why);
    z.Finish();
    *this = std::move(z);
    return true;
}

bool TimeZone::Load(const char* zone)
{
    if (zone[0] == ':') {
        const char* file = zone + 1;
        if (is_path(file)) return LoadFile(file);
        if (is_name(file)) return LoadFile(zone_path(file).c_str());
        return Fail("after \":\" a zone name or a file path is needed");
    }
    if (is_path(zone)) return LoadFile(zone);
    if (!is_name(zone)) return LoadRule(zone);
    std::string path = zone_path(zone);
    struct stat st;
    if (stat(path.c_str(), &st) == 0 || (errno != ENOENT && errno != ENOTDIR)) return LoadFile(path.c_str());
    if (LoadRule(zone)) return true;
    return Fail("no file " + tz_quoted(path.data(), path.size()) + ", and " + m_error);
}

// ---- lookups

int32_t TimeZone::Correction(int64_t t, bool* hit) const
{
    auto after = std::upper_bound(m_leaps.begin(), m_leaps.end(), t, [](int64_t v, const Leap& l) { return v < l.at; });
    if (hit) *hit = false;
    if (after == m_leaps.begin()) return 0;
    const Leap& l = after[-1];
    int32_t before = after - 1 == m_leaps.begin() ? 0 : after[-2].corr;
    if (hit) *hit = t == l.at && l.corr > before;
    return l.corr;
}

int64_t TimeZone::Posix(int64_t t) const { return add_saturated(t, -Correction(t, nullptr)); }

int64_t TimeZone::FromPosix(int64_t posix) const
{
    // at - corr never decreases along the table, so the search is a bisection.
    auto after = std::upper_bound(m_leaps.begin(), m_leaps.end(), posix,
                                  [](int64_t p, const Leap& l) { return p < l.at - l.corr; });
    if (after == m_leaps.begin()) return posix;
    int64_t t = add_saturated(posix, after[-1].corr);
    // An inserted second repeats the POSIX second before it: take the first.
    bool hit = false;
    (void)Correction(t, &hit);
    return hit ? t - 1 : t;
}

const TimeZone::Type& TimeZone::TypeAt(int64_t t) const
{
    if (m_times.empty() || t >= m_times.back()) {
        if (m_hasRule) return m_types[m_ruleTypes + m_rule.IsDst(Posix(t))];
        return m_types[m_times.empty() ? 0 : m_indices.back()];
    }
    if (t < m_times[0]) return m_types[0];
    size_t i = static_cast<size_t>(std::upper_bound(m_times.begin(), m_times.end(), t) - m_times.begin());
    return m_types[m_indices[i - 1]];
}

bool TimeZone::SameType(const Type& a, const Type& b) const
{
    return a.utoff == b.utoff && a.isdst == b.isdst && strcmp(m_chars.c_str() + a.abbr, m_chars.c_str() + b.abbr) == 0;
}

bool TimeZone::ToLocal(int64_t t, LocalTime& local) const
{
    if (t < kFirstInstant - kMargin || t > kEndInstant + kMargin) return false;
    bool hit = false;
    int64_t posix = t - Correction(t, &hit);
    const Type& type = TypeAt(t);
    int64_t wall = posix + type.utoff;
    if (!in_years(posix) || !in_years(wall)) return false;
    int64_t days = wall / kSecondsPerDay - (wall % kSecondsPerDay < 0), second = wall - days * kSecondsPerDay;
    int64_t year;
    tz_civil_from_days(days, year, local.month, local.day);
    local.year = static_cast<int>(year);
    local.hour = static_cast<int>(second / 3600);
    local.minute = static_cast<int>(second / 60 % 60);
    local.second = static_cast<int>(second % 60) + hit;
    local.utoff = type.utoff;
    local.isdst = type.isdst;
    local.abbr = m_chars.c_str() + type.abbr;
    return true;
}

bool TimeZone::NextChange(int64_t t, int64_t limit, int64_t* next) const
{
    const Type* current = &TypeAt(t);
    size_t i = static_cast<size_t>(std::upper_bound(m_times.begin(), m_times.end(), t) - m_times.begin());
    for (; i < m_times.size() && m_times[i] < limit; i++) {
        const Type& type = m_types[m_indices[i]];
        if (!SameType(type, *current)) {
            *next = m_times[i];
            return true;
        }
        current = &type;
    }
    if (i < m_times.size() || !m_hasRule) return false;
    // The rule agrees with the last transition, so each of its changes is one.
    int64_t from = m_times.empty() ? t : std::max(t, m_times.back()), change = 0;
    if (!m_rule.NextChange(Posix(from), Posix(limit), &change)) return false;
    int64_t at = FromPosix(change);
    if (at >= limit) return false;
    *next = at;
    return true;
}

bool TimeZone::NextTransition(int64_t t, int64_t* next) const { return NextChange(t, FromPosix(kEndInstant), next); }

int TimeZone::FromLocal(const LocalTime& wall, int64_t out[2], LocalKind* kind) const
{
    *kind = LocalKind::OutOfRange;
    if (wall.year < 1 || wall.year > 9999 || wall.month < 1 || wall.month > 12 || wall.day < 1 ||
        wall.day > tz_month_length(wall.year, wall.month) || wall.hour < 0 || wall.hour > 23 || wall.minute < 0 ||
        wall.minute > 59 || wall.second < 0 || wall.second > 59)
        return 0;
    int64_t local = tz_days_from_civil(wall.year, wall.month, wall.day) * kSecondsPerDay + wall.hour * 3600 +
                    wall.minute * 60 + wall.second;
    // Every instant showing `local` lies in [lo, hi]; walk its changes.
    int64_t lo = FromPosix(local - m_maxOff) - 1, hi = FromPosix(local - m_minOff) + 1;
    int64_t found[2] = {0, 0}, gap[2] = {0, 0}, start = lo, next = 0;
    int count = 0;
    bool inGap = false;
    const Type* type = &TypeAt(lo);
    for (;;) {
        bool more = NextChange(start, hi + 1, &next);
        int64_t at = FromPosix(local - type->utoff);
        if (at >= start && (!more || at < next)) found[count == 2 ? 1 : count++] = at;
        if (!more) break;
        const Type& after = TypeAt(next);
        int64_t change = Posix(next);
        if (!inGap && change + type->utoff <= local && local < change + after.utoff) {
            gap[0] = FromPosix(local - after.utoff), gap[1] = FromPosix(local - type->utoff);
            inGap = true;
        }
        start = next, type = &after;
    }
    const int64_t* result = count ? found : gap;
    int n = count ? count : inGap ? 2 : 0;
    for (int i = 0; i < n; i++)
        if (!in_years(Posix(result[i]))) return 0;
    for (int i = 0; i < n; i++) out[i] = result[i];
    if (n == 0) return 0;
    *kind = count == 1 ? LocalKind::Unique : count == 2 ? LocalKind::Fold : LocalKind::Gap;
    return n;
}
