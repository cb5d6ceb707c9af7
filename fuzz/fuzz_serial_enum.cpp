#include <cstdint>
#include <string>
#include <vector>

#include "Discover.h"

// "serial enum" output lines as the daemon (or anything on 127.0.0.1:3543)
// sends them: each line a record of six non-empty words, or skipped.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    for (size_t at = 0; at <= text.size();) {
        size_t end = text.find_first_of(std::string("\n\0", 2), at);
        if (end == std::string::npos) end = text.size();
        std::vector<std::string> words;
        std::string record;
        if (rs485_central_line(text.substr(at, end - at).c_str(), "aa:bb:cc:dd:ee:ff", words, record)) {
            size_t blanks = 0;
            for (size_t i = 0; i < record.size(); i++)
                if (record[i] == ' ' && (++blanks > 5 || i == 0 || record[i - 1] == ' ')) __builtin_trap();
            if (blanks != 5 || record.back() == ' ' || words.empty()) __builtin_trap();
        }
        at = end + 1;
    }
    return 0;
}
