#include "timeout_option.h"

#include <cstdlib>
#include <cstring>

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Digits, then optionally "." and at least one digit; no leading zero
// before another digit.
bool decimal_shape(const char* text, bool fraction)
{
    const char* p = text;
    if (!is_digit(*p) || (p[0] == '0' && is_digit(p[1]))) return false;
    while (is_digit(*p)) p++;
    if (*p == '.' && fraction) {
        p++;
        if (!is_digit(*p)) return false;
        while (is_digit(*p)) p++;
    }
    return *p == '\0' && p - text <= 20;
}

}  // namespace

bool parse_timeout_seconds(const char* text, int& seconds)
{
    if (!text || !decimal_shape(text, false)) return false;
    long value = strtol(text, nullptr, 10);
    if (value < kMinTimeoutSeconds || value > kMaxTimeoutSeconds) return false;
    seconds = static_cast<int>(value);
    return true;
}

bool parse_decimal_seconds(const char* text, double min, double max, double& seconds)
{
    if (!text || !decimal_shape(text, true)) return false;
    double value = strtod(text, nullptr);
    if (!(value >= min && value <= max)) return false;
    seconds = value;
    return true;
}
