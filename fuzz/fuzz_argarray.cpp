#include <cstdint>
#include <cstring>
#include <string>

#include "ArgArray.h"

// Any line splits into at most the capacity of words, each a piece of the
// line, into a terminated vector that copies alike.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string line(reinterpret_cast<const char*>(data), size);
    int capacity = size ? data[0] % 8 : 0;
    ArgArray a(line.c_str(), capacity);
    if (a.Argc() < 0 || a.Argc() > capacity || a.Argv()[a.Argc()] != nullptr) __builtin_trap();
    ArgArray copy(a);
    for (int i = 0; i < a.Argc(); i++) {
        if (!strstr(line.c_str(), a.Argv()[i])) __builtin_trap();
        if (strcmp(copy.Argv()[i], a.Argv()[i]) != 0) __builtin_trap();
    }
    return 0;
}
