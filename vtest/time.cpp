#include "commands.h"

int main_time(int argc, char** argv)
{
    (void)argc;
    return command_unavailable(argv[1]);
}
