#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "Config.h"

// The bytes are the settings file (an in-memory file, so nothing on disk is
// touched). Every loaded pair must be one a line could give.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int fd = memfd_create("vantor.conf", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    Config cfg(path.c_str(), nullptr, static_cast<const char* const*>(nullptr));
    std::map<std::string, std::string> all;
    cfg.Get(all);
    for (const auto& pair : all) {
        const std::string& key = pair.first;
        if (key.empty() || key.size() > 1022 || key.find_first_of("= \t\n", 1) != std::string::npos ||
            key[0] == ' ' || key[0] == '\t' || key[0] == '\n' || pair.second.empty() ||
            pair.second.find('\n') != std::string::npos)
            __builtin_trap();
    }
    return 0;
}
