// vantor-sim: the simulated unit's database shell server.
#include <cstdio>

#include "SimOptions.h"

int main(int argc, char** argv)
{
    SimOptions options;
    std::string error;
    if (!sim_parse_options(argc, argv, options, error)) {
        fprintf(stderr, "vantor-sim: %s\n%s", error.c_str(), kSimUsage);
        return 2;
    }
    fputs(kSimUsage, stdout);
    return 1;
}
