#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "Elf.h"

// The bytes are the file (in memory, opened by its /proc path like any
// other); the report goes to a second in-memory file. Whatever the bytes,
// nothing may be read outside them.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int in = memfd_create("elf", 0);
    static FILE* report = fdopen(memfd_create("report", 0), "w");
    static const std::string path = "/proc/self/fd/" + std::to_string(in);
    if (in < 0 || !report || ftruncate(in, 0) != 0 || pwrite(in, data, size, 0) != static_cast<ssize_t>(size)) return 0;
    Elf elf;
    if (elf.Open(path.c_str())) elf.PrintAll(report);
    rewind(report);
    return 0;
}
