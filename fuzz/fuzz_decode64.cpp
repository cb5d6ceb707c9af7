#include <cstdint>
#include <cstring>
#include <string>

#include "utils.h"

// decode64 must reject or decode any text; what it decodes re-encodes to
// the same text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    std::string decoded;
    if (!decode64(text.c_str(), decoded)) return 0;
    char* again = base64(decoded.data(), decoded.size());
    if (!again || (strlen(text.c_str()) == text.size() && text.find('=') == std::string::npos &&
                   strcmp(again, text.c_str()) != 0))
        __builtin_trap();
    safe_mem_free(again, __FILE__, __LINE__);
    return 0;
}
