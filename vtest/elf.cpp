#include <cstring>

#include "Elf.h"
#include "commands.h"

// A bare argv[0] was found through PATH: in the working directory that name
// may be another file (or none), so the tool reads itself through /proc.
int main_elf(int argc, char** argv)
{
    (void)argc;
    const char* self = strchr(argv[0], '/') ? argv[0] : "/proc/self/exe";
    Elf elf;
    if (elf.Open(self)) elf.PrintAll(stdout);
    return 0;
}
