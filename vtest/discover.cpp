#include "commands.h"

int main_discover(int argc, char** argv)
{
    (void)argc;
    return command_unavailable(argv[1]);
}
