#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "ScriptReader.h"

// Any bytes as a script with a cap of 1..128: every line handed out is
// non-empty, within the cap, cut at both ends, no comment, and holds no
// line end or NUL; refusals give one of the three reasons; numbers grow.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    int fd = memfd_create("script", MFD_CLOEXEC);
    if (fd < 0 || write(fd, data + 1, size - 1) != static_cast<ssize_t>(size - 1) || lseek(fd, 0, SEEK_SET) != 0)
        __builtin_trap();
    const size_t cap = 1 + data[0] % 128;
    ScriptReader reader(fd, cap);
    int last = 0;
    for (ScriptReader::Result r; (r = reader.Next()) == ScriptReader::kLine || r == ScriptReader::kRefused;) {
        const std::string& t = reader.Text();
        if (reader.Number() <= last || reader.Number() > static_cast<int>(size)) __builtin_trap();
        last = reader.Number();
        bool badLine = t.empty() || t.size() > cap || t[0] == '#' || strchr(" \t", t.front()) || strchr(" \t", t.back()) ||
                       t.find_first_of(std::string("\r\n\0", 3)) != std::string::npos;
        bool badReason = reader.Reason() != "line holds a NUL byte" && reader.Reason() != "line holds a lone carriage return" &&
                         reader.Reason() != "line longer than " + std::to_string(cap) + " bytes";
        if (r == ScriptReader::kLine ? badLine : badReason) __builtin_trap();
    }
    close(fd);
    return 0;
}
