#include <sched.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "SockAddr.h"

namespace {
bool g_offline = false;
}

// Host names go to the resolver: in a private network namespace (no
// interfaces up) a lookup fails at once and nothing leaves the machine.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    g_offline = unshare(CLONE_NEWNET) == 0;
    return 0;
}

// The first byte picks the family, the rest is the text. Whatever parses
// prints within the 50-byte text buffer.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const sa_family_t families[] = {AF_UNIX, AF_INET, AF_INET6, AF_NAME, AF_MAC, AF_RS485, 0, 36};
    if (size < 1) return 0;
    sa_family_t family = families[data[0] % 8];
    if (!g_offline && (family == AF_INET || family == AF_INET6)) return 0;
    std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    SockAddr a;
    bool ok = a.Parse(family, text.c_str());
    char buf[SockAddr::m_strLen + 1];
    buf[SockAddr::m_strLen] = 'G';
    a.Str(buf, true);
    if (buf[SockAddr::m_strLen] != 'G' || strlen(buf) >= SockAddr::m_strLen || (!ok && a.GetAF() != 0))
        __builtin_trap();
    SockAddr b = a;
    if (ok && !(a == b)) __builtin_trap();
    (void)(a < b);
    return 0;
}
