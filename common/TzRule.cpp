#include "TzRule.h"

#include <algorithm>
#include <climits>

namespace {

const int64_t kDaysPer400Years = 146097;
const int32_t kSecondsPerHour = 3600;
// Rule times reach a week either way: a change of one year may fall a
// little into the next, and transitions are searched over neighbouring years.
const int kMaxRuleHours = 167;
const int kMaxOffsetHours = 24;
// Dates, weekdays and so every rule repeat after 400 years.
const int64_t kCycleYears = 400;
const int64_t kCycleSeconds = kDaysPer400Years * kSecondsPerDay;
// Changes looked at by NextChange before it gives up.
const int kMaxSteps = 1000;

bool is_leap(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int64_t floor_div(int64_t a, int64_t b) { return a / b - (a % b != 0 && (a % b < 0) != (b < 0)); }

int64_t year_of(int64_t u)
{
    int64_t year;
    int month, day;
    tz_civil_from_days(floor_div(u, kSecondsPerDay), year, month, day);
    return year;
}

int64_t jan1(int64_t year) { return tz_days_from_civil(year, 1, 1) * kSecondsPerDay; }

bool is_alpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_quoted_name_char(char c) { return is_alpha(c) || is_digit(c) || c == '+' || c == '-'; }

}  // namespace

int64_t tz_days_from_civil(int64_t year, int month, int day)
{
    year -= month <= 2;
    const int64_t era = floor_div(year, 400);
    const int64_t yoe = year - era * 400;
    const int64_t doy = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * kDaysPer400Years + doe - 719468;
}

void tz_civil_from_days(int64_t days, int64_t& year, int& month, int& day)
{
    days += 719468;
    const int64_t era = floor_div(days, kDaysPer400Years);
    const int64_t doe = days - era * kDaysPer400Years;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    year = yoe + era * 400 + (month <= 2);
}

int tz_month_length(int64_t year, int month)
{
    static const int kLengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return kLengths[month - 1] + (month == 2 && is_leap(year));
}

// ---- parsing

struct TzRule::Parser {
    const char* begin;
    const char* p;
    const char* end;
    std::string& why;

    bool Fail(const char* what)
    {
        why = std::string(what) + " at byte " + std::to_string(p - begin + 1);
        return false;
    }
    bool AtEnd() const { return p == end; }
    bool Accept(char c)
    {
        if (p == end || *p != c) return false;
        p++;
        return true;
    }

    bool Name(std::string& out)
    {
        const char* from = p;
        bool quoted = Accept('<');
        if (quoted) from = p;
        while (p < end && (quoted ? is_quoted_name_char(*p) : is_alpha(*p))) p++;
        if (p - from < 3)
            return Fail(quoted ? "a <name> needs 3 or more of A-Z a-z 0-9 + -" : "a name needs 3 or more letters");
        out.assign(from, static_cast<size_t>(p - from));
        return !quoted || Accept('>') || Fail("a <name> needs its closing >");
    }

    // minDigits to maxDigits digits, value at most maxValue; the caller
    // says what failed.
    bool Number(int minDigits, int maxDigits, int maxValue, int& out)
    {
        int value = 0, digits = 0;
        for (; p < end && is_digit(*p) && digits <= maxDigits; digits++) value = value * 10 + (*p++ - '0');
        if (digits < minDigits || digits > maxDigits || value > maxValue) return false;
        out = value;
        return true;
    }

    // [+-]h[h...][:mm[:ss]] in seconds, sign applied; `hours` gets the hour field.
    bool Clock(int hourDigits, int maxHours, int32_t& seconds, int& hours, const char* what)
    {
        const char* from = p;
        bool negative = Accept('-');
        if (!negative) (void)Accept('+');
        int m = 0, s = 0;
        if (!Number(1, hourDigits, maxHours, hours) ||
            (Accept(':') && (!Number(2, 2, 59, m) || (Accept(':') && !Number(2, 2, 59, s))))) {
            p = from;
            return Fail(what);
        }
        seconds = (negative ? -1 : 1) * (hours * kSecondsPerHour + m * 60 + s);
        return true;
    }

    // POSIX counts west of Greenwich as positive; stored east-positive.
    bool Offset(int32_t& utoff)
    {
        int32_t west = 0;
        int hours = 0;
        if (!Clock(2, kMaxOffsetHours, west, hours, "expected an offset [+-]hh[:mm[:ss]], hours 0-24")) return false;
        utoff = -west;
        return true;
    }

    bool Date(Change& c, bool& extended)
    {
        if (Accept('J')) {
            c.kind = kJulian;
            if (!Number(1, 3, 365, c.day) || c.day < 1) return Fail("Jn needs n from 1 to 365");
        } else if (Accept('M')) {
            c.kind = kMonthWeekDay;
            if (!Number(1, 2, 12, c.month) || c.month < 1 || !Accept('.') || !Number(1, 1, 5, c.week) || c.week < 1 ||
                !Accept('.') || !Number(1, 1, 6, c.day))
                return Fail("Mm.w.d needs m 1-12, w 1-5, d 0-6");
        } else {
            c.kind = kZeroBased;
            if (!Number(1, 3, 365, c.day)) return Fail("a date is Jn, n or Mm.w.d");
        }
        int hours = 2;
        if (Accept('/') &&
            !Clock(3, kMaxRuleHours, c.time, hours, "expected a time [+-]hhh[:mm[:ss]], hours up to 167"))
            return false;
        if (c.time < 0 || hours > 24) extended = true;
        return true;
    }
};

bool TzRule::Parse(const char* text, size_t len, std::string& why)
{
    if (len > kMaxLength) {
        why = "longer than " + std::to_string(kMaxLength) + " bytes";
        return false;
    }
    Parser in{text, text, text + len, why};
    TzRule r;
    if (!in.Name(r.m_stdName) || !in.Offset(r.m_stdOff)) return false;
    if (!in.AtEnd()) {
        r.m_hasDst = true;
        if (!in.Name(r.m_dstName)) return false;
        r.m_dstOff = r.m_stdOff + kSecondsPerHour;
        if (!in.AtEnd() && *in.p != ',' && !in.Offset(r.m_dstOff)) return false;
        if (in.AtEnd()) {
            // No rule given: the United States' since 2007.
            r.m_start.month = 3, r.m_start.week = 2;
            r.m_end.month = 11, r.m_end.week = 1;
        } else {
            if (!in.Accept(',')) return in.Fail("expected ,start[/time],end[/time]");
            if (!in.Date(r.m_start, r.m_extendedHours)) return false;
            if (!in.Accept(',')) return in.Fail("expected ,end[/time]");
            if (!in.Date(r.m_end, r.m_extendedHours)) return false;
        }
    }
    if (!in.AtEnd()) return in.Fail("unexpected text");
    r.Classify();
    *this = r;
    return true;
}

// ---- evaluation

int64_t TzRule::DayStart(int64_t year, const Change& c)
{
    switch (c.kind) {
    case kJulian:
        return (c.day - 1 + (is_leap(year) && c.day >= 60)) * kSecondsPerDay;
    case kZeroBased:
        return c.day * kSecondsPerDay;
    case kMonthWeekDay:
        break;
    }
    int64_t first = tz_days_from_civil(year, c.month, 1);
    int weekday = static_cast<int>(((first + 4) % 7 + 7) % 7);  // 1970-01-01 was a Thursday
    int day = (c.day - weekday + 7) % 7;
    for (int w = 1; w < c.week && day + 7 < tz_month_length(year, c.month); w++) day += 7;
    return (first - tz_days_from_civil(year, 1, 1) + day) * kSecondsPerDay;
}

int TzRule::YearChanges(int64_t year, int64_t at[2], bool dst[2]) const
{
    // Each change is given in the local time in force before it.
    int64_t start = jan1(year) + DayStart(year, m_start) + m_start.time - m_stdOff;
    int64_t end = jan1(year) + DayStart(year, m_end) + m_end.time - m_dstOff;
    bool reversed = end < start;  // southern hemisphere: DST spans New Year
    if (reversed) std::swap(start, end);
    // A year whose DST period lasts the whole year has no changes.
    if (!reversed && !(start < end && end - start < (365 + is_leap(year)) * kSecondsPerDay)) return 0;
    at[0] = start, at[1] = end;
    dst[0] = !reversed, dst[1] = reversed;
    return 2;
}

void TzRule::Classify()
{
    if (!m_hasDst) return;
    bool any = false;
    for (int64_t year = 2000; year < 2000 + kCycleYears; year++) {
        int64_t at[2];
        bool dst[2];
        if (YearChanges(year, at, dst)) {
            any = true;
            continue;
        }
        int64_t start = jan1(year) + DayStart(year, m_start) + m_start.time - m_stdOff;
        int64_t end = jan1(year) + DayStart(year, m_end) + m_end.time - m_dstOff;
        if (start < end) m_allYearSomewhere = true;
    }
    // As the reference: a rule that never changes keeps DST.
    m_neverChanges = !any;
    if (m_neverChanges) m_allYearSomewhere = true;
}

bool TzRule::LatestIn(int64_t from, int64_t to, int64_t u, int64_t& at, bool& dst) const
{
    bool found = false;
    for (int64_t year = from; year <= to; year++) {
        int64_t when[2];
        bool on[2];
        for (int i = 0, n = YearChanges(year, when, on); i < n; i++) {
            if (when[i] <= u && (!found || when[i] > at)) at = when[i], dst = on[i], found = true;
        }
    }
    return found;
}

bool TzRule::IsDst(int64_t u) const
{
    if (!m_hasDst) return false;
    if (m_neverChanges) return true;
    u -= floor_div(u, kCycleSeconds) * kCycleSeconds;
    // A year's changes stay within about a week of it.
    int64_t year = year_of(u), at = 0;
    bool dst = false;
    if (LatestIn(year - 2, year + 1, u, at, dst)) return dst;
    // Years without changes keep the state of the last one that had some.
    for (int64_t y = year - 3; y > year - 3 - kCycleYears; y--)
        if (LatestIn(y - 2, y, u, at, dst)) return dst;
    return false;
}

bool TzRule::NextChange(int64_t u, int64_t limit, int64_t* next) const
{
    if (!m_hasDst || m_neverChanges) return false;
    // Searched in the first cycle after the epoch, so no year overflows.
    int64_t shift = floor_div(u, kCycleSeconds) * kCycleSeconds;
    int64_t cur = u - shift;
    limit = shift < 0 && limit > INT64_MAX + shift ? INT64_MAX : limit - shift;
    for (int step = 0; step < kMaxSteps && cur < limit; step++) {
        int64_t year = year_of(cur), best = INT64_MAX;
        for (int64_t y = year - 1; y <= year + 2; y++) {
            int64_t when[2];
            bool on[2];
            for (int i = 0, n = YearChanges(y, when, on); i < n; i++)
                if (when[i] > cur) best = std::min(best, when[i]);
        }
        if (best == INT64_MAX) {
            cur = jan1(year + 2);  // later years' changes all lie beyond
            continue;
        }
        if (best >= limit) return false;
        if (IsDst(best) != IsDst(best - 1)) {
            *next = best + shift;
            return true;
        }
        cur = best;
    }
    return false;
}
