#include <cstdint>
#include <cstring>
#include <string>

#include "Discover.h"

// Discovery answers as any unit (or anything on the LAN) may send them: the
// record parser, the MAC order over a bounded list, and the callback form.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static std::list<DiscoverRecord> records;
    std::string text(reinterpret_cast<const char*>(data), size);
    std::string copy = text;
    DiscoverRecord record;
    Discover::ParseAnswer(&text[0], record);
    for (const auto& [key, value] : record)
        if (key.empty() || key.find_first_of("=\n") != std::string::npos || value.find_first_of("=\n") != std::string::npos)
            __builtin_trap();
    if (records.size() > 64) records.clear();
    Discover::InsertByMac(records, std::move(record));
    (void)Discover::ReportUnits(&copy[0], nullptr, 0);
    return 0;
}
