#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "Version.h"

// The bytes are a version file (an in-memory file, so nothing on disk is
// touched) and, up to a NUL, a text for Parse. A parsed number prints back
// as the same text; the file reads as a number exactly when its text without
// one LF or CR LF parses, and a refused one leaves the value alone.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int fd = memfd_create("vantor.ver", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    std::string text(reinterpret_cast<const char*>(data), size);
    Version parsed(7);
    if (parsed.Parse(text.c_str()) && parsed.Str() != text.c_str()) __builtin_trap();
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    std::string body = text;
    if (!body.empty() && body.back() == '\n') {
        body.pop_back();
        if (!body.empty() && body.back() == '\r') body.pop_back();
    }
    Version expected, read(7);
    bool ok = size <= Version::kMaxFileBytes && body.find('\0') == std::string::npos && expected.Parse(body.c_str());
    int rv = read.ReadFile(path.c_str());
    if ((rv == 0) != ok || (ok && read != expected) || (!ok && (rv != -EBADMSG || read != Version(7)))) __builtin_trap();
    return 0;
}
