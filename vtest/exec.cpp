#include "commands.h"

int main_exec(int argc, char** argv)
{
    (void)argc;
    return command_unavailable(argv[1]);
}
