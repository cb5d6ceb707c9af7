#include <climits>
#include <cstdint>

#include "TimeZone.h"

// The bytes are a TZif file. A zone that loads answers for any instant, its
// changes move forward, and a local time it shows leads back to its instant.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    TimeZone zone;
    if (!zone.LoadData(data, size)) return 0;
    const int64_t instants[] = {INT64_MIN,  -62135596800, INT32_MIN,    -1,       0,
                                1700000000, 4102444800,   253402300799, INT64_MAX};
    for (int64_t t : instants) {
        int64_t next, out[2];
        if (zone.NextTransition(t, &next) && next <= t) __builtin_trap();
        LocalTime local;
        if (!zone.ToLocal(t, local) || local.second == 60) continue;
        LocalKind kind;
        (void)zone.FromLocal(local, out, &kind);
        if (kind == LocalKind::Gap || (kind == LocalKind::Unique && out[0] != t)) __builtin_trap();
    }
    return 0;
}
