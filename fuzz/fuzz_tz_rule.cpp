#include <cstdint>
#include <string>

#include "TimeZone.h"

// The bytes are a POSIX TZ rule. A rule that loads gives a local time for
// every instant of its first years, each leading back to its instant, and
// its changes move forward.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    TimeZone zone;
    if (!zone.LoadRule(text.c_str())) return 0;
    for (int64_t t = -62135596800 + 86400; t < -62135596800 + 3 * 31556952; t += 86400 * 7 + 3599) {
        int64_t next, out[2];
        if (zone.NextTransition(t, &next) && next <= t) __builtin_trap();
        LocalTime local;
        if (!zone.ToLocal(t, local)) __builtin_trap();
        LocalKind kind;
        (void)zone.FromLocal(local, out, &kind);
        if (kind == LocalKind::Gap || (kind == LocalKind::Unique && out[0] != t)) __builtin_trap();
    }
    return 0;
}
