// One time zone as an object: a TZif file (RFC 9636, versions 1 to 4) or a
// POSIX TZ rule, evaluated with the tz reference code's algorithms. It never
// touches TZ, tzset, localtime or mktime, so zones are independent of the
// process's own and of each other. Load once; the const calls may then be
// made from any number of threads at the same time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TzRule.h"

// A local date and time with what is in force then.
struct LocalTime {
    int year = 0, month = 0, day = 0;      // 0001..9999, 1..12, 1..31
    int hour = 0, minute = 0, second = 0;  // second 60 only in a leap second
    int32_t utoff = 0;                     // seconds east of UTC
    bool isdst = false;
    const char* abbr = "";  // the zone's own text: valid while the zone lives unreloaded
};

enum class LocalKind {
    Unique,      // the wall time occurs once
    Fold,        // twice: the clock was set back over it
    Gap,         // never: the clock jumped over it
    OutOfRange,  // a field is invalid or a year falls outside 0001..9999
};

class TimeZone {
public:
    // Caps of our own (the RFC sets none): a type index is one byte.
    static const size_t kMaxFileBytes = 1 << 20;
    static const uint32_t kMaxTypes = 256;
    static const uint32_t kMaxTransitions = 50000;
    static const uint32_t kMaxLeaps = 1000;
    static const uint32_t kMaxChars = 4096;

    // Each Load call replaces the zone when it succeeds and leaves it as it
    // was when it fails; Error() then says why in one line.
    //
    // A zone value: starting "/", "./" or "../", a file path; ":X", X a
    // file name or path (never a rule); a name (parts of [A-Za-z0-9._+-]
    // joined by "/", none empty, "." or ".."), the file of that name under
    // $TZDIR or else /usr/share/zoneinfo; a name without such a file, and
    // any other text, a POSIX TZ rule.
    bool Load(const char* zone);
    // A TZif file of at most kMaxFileBytes, never a device or FIFO.
    bool LoadFile(const char* path);
    bool LoadRule(const char* posix);
    bool LoadData(const void* bytes, size_t size);
    const std::string& Error() const { return m_error; }

    // The local time of instant `t` (seconds since the epoch in the zone's
    // time scale: in a zone with leap seconds they count too). False, local
    // untouched, when the UTC or the local year is outside 0001..9999.
    bool ToLocal(int64_t t, LocalTime& local) const;

    // The instants whose local time is `wall` (date and time fields only;
    // seconds 0..59). Returns how many were written and sets *kind:
    // 1, Unique; 2, Fold, earlier first (a wall time that occurs three or
    // more times, only in contrived files, gives its earliest and latest);
    // 2, Gap: out[0] = wall minus the offset after the gap (earlier),
    // out[1] = wall minus the offset before it (later, as mktime gives);
    // 0, OutOfRange (out untouched), also when an instant's year is outside
    // 0001..9999.
    int FromLocal(const LocalTime& wall, int64_t out[2], LocalKind* kind) const;

    // The first instant after `t` where the offset, the DST flag or the
    // abbreviation changes: true and *next, or false when there is none
    // before 10000-01-01T00:00:00Z. Leap seconds are not changes.
    bool NextTransition(int64_t t, int64_t* next) const;

    // The instant of POSIX time `posix` (seconds since the epoch without
    // leap seconds): the same number unless the zone counts leap seconds.
    int64_t FromPosix(int64_t posix) const;

private:
    struct Type {
        int32_t utoff;
        bool isdst;
        uint32_t abbr;  // index into m_chars, NUL-terminated there
    };
    struct Leap {
        int64_t at;
        int32_t corr;  // seconds added to POSIX time from `at` on
    };
    struct Reader;

    const Type& TypeAt(int64_t t) const;
    bool SameType(const Type& a, const Type& b) const;
    // Leap-second correction at t; *hit when t is an inserted second.
    int32_t Correction(int64_t t, bool* hit) const;
    int64_t Posix(int64_t t) const;
    bool NextChange(int64_t t, int64_t limit, int64_t* next) const;
    bool SetRule(const char* text, size_t len, std::string& why);
    void Finish();
    bool Fail(const std::string& why);

    std::vector<int64_t> m_times;    // strictly ascending
    std::vector<uint8_t> m_indices;  // type of each transition
    std::vector<Type> m_types;       // the file's, then the rule's standard and DST types
    std::string m_chars;             // abbreviations, each NUL-terminated
    std::vector<Leap> m_leaps;
    bool m_hasRule = false;  // the rule governs after the last transition
    TzRule m_rule;
    size_t m_ruleTypes = 0;  // index of the rule's standard type in m_types
    int32_t m_minOff = 0, m_maxOff = 0;
    std::string m_error;
};

// Appends `text` to `out`, each byte for which plain() is false as \xNN.
void tz_escape(std::string& out, const char* text, size_t len, bool (*plain)(unsigned char));
// `text` in double quotes, with control bytes, bytes from 0x7f, quotes and
// backslashes as \xNN, so a message can always show it.
std::string tz_quoted(const char* text, size_t len);
