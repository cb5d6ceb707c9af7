#include "commands.h"

int main_mail(int argc, char** argv)
{
    (void)argc;
    return command_unavailable(argv[1]);
}
