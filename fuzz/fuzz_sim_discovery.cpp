#include <cstdint>
#include <string>
#include <vector>

#include "DiscoveryUnits.h"

// What the simulated units read from outside: "SetIPv4" datagrams from the
// network and units files.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    SetIPv4Request request;
    (void)sim_parse_set_ipv4(text, request);
    std::vector<SimUnit> units;
    std::string error;
    if (sim_units_parse(text, units, error) != error.empty()) __builtin_trap();
    for (const SimUnit& unit : units)
        if (unit.Answer().find("mac=") == std::string::npos) __builtin_trap();
    return 0;
}
