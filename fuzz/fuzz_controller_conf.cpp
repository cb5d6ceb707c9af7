#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "ControllerConf.h"

// The bytes are the controller settings file, read from an in-memory file
// through the path-taking reader (the fixed file is never touched). Keys
// and values come from reads of at most 198 characters.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int fd = memfd_create("quill.conf", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    std::map<std::string, std::string> cfg;
    if (!controller_conf_read_file(path.c_str(), cfg)) __builtin_trap();
    for (const auto& pair : cfg)
        if (pair.first.empty() || pair.first[0] == '#' || pair.first.size() > 198 || pair.second.size() > 197)
            __builtin_trap();
    return 0;
}
