#include "commands.h"

int main_test(int argc, char** argv)
{
    (void)argc;
    (void)argv;
    return command_unavailable("self-test");
}
