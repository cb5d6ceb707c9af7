#include "commands.h"

int main_sql(int argc, char** argv)
{
    (void)argc;
    return command_unavailable(argv[1]);
}
