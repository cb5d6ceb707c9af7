// POSIX TZ rules ("CET-1CEST,M3.5.0,M10.5.0/3") with the extensions of
// TZif version 3 footers, evaluated as the tz reference code does, and the
// proleptic Gregorian calendar arithmetic the time-zone code shares.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

const int64_t kSecondsPerDay = 86400;

// Days since 1970-01-01 of a proleptic Gregorian date (month 1..12, day
// 1..31); exact for |year| below 10^12.
int64_t tz_days_from_civil(int64_t year, int month, int day);
// The date of a day count since 1970-01-01, inverse of the above.
void tz_civil_from_days(int64_t days, int64_t& year, int& month, int& day);
int tz_month_length(int64_t year, int month);

class TzRule {
public:
    // Longest rule accepted, in bytes.
    static const size_t kMaxLength = 255;

    // Parses `len` bytes of `text` (no NUL needed): true, or false with the
    // reason in `why` and the rule unchanged.
    bool Parse(const char* text, size_t len, std::string& why);

    // Standard and daylight-saving names ("" when the rule has no DST),
    // offsets in seconds east of UTC.
    const std::string& Name(bool dst) const { return dst ? m_dstName : m_stdName; }
    int32_t Offset(bool dst) const { return dst ? m_dstOff : m_stdOff; }
    bool HasDst() const { return m_hasDst; }

    // Uses what TZif version 3 added: a rule time outside 0..24 hours, or
    // daylight-saving time all year.
    bool NeedsVersion3() const { return m_extendedHours || m_allYearSomewhere; }

    // Whether DST is in effect at `u` (seconds since the epoch, UT).
    bool IsDst(int64_t u) const;
    // The first instant after `u` where DST begins or ends, before `limit`:
    // true and *next, or false when there is none.
    bool NextChange(int64_t u, int64_t limit, int64_t* next) const;

private:
    enum DateKind { kJulian, kZeroBased, kMonthWeekDay };
    struct Change {
        DateKind kind = kMonthWeekDay;
        int day = 0;              // Jn: 1..365, n: 0..365, M: weekday 0..6 (Sunday 0)
        int month = 0;            // M form: 1..12
        int week = 0;             // M form: 1..5, 5 the last
        int32_t time = 2 * 3600;  // local seconds after midnight, ±167 h
    };
    struct Parser;

    // Seconds from 00:00 on 1 January of `year` to the change's day.
    static int64_t DayStart(int64_t year, const Change& c);
    // The year's changes in time order as the reference's tzparse finds
    // them: 2 (at[], dst[] filled) or 0 (none that year).
    int YearChanges(int64_t year, int64_t at[2], bool dst[2]) const;
    // The latest change at or before u among the years [from, to].
    bool LatestIn(int64_t from, int64_t to, int64_t u, int64_t& at, bool& dst) const;
    void Classify();

    std::string m_stdName, m_dstName;
    int32_t m_stdOff = 0, m_dstOff = 0;
    bool m_hasDst = false;
    Change m_start, m_end;
    bool m_extendedHours = false;
    bool m_neverChanges = false;      // no year has changes: DST for ever
    bool m_allYearSomewhere = false;  // some year keeps DST from end to end
};
