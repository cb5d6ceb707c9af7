// discover: one "Hello" on the service port, and every unit that answers
// within the time-out, in MAC order.
#include <cstdio>
#include <cstring>
#include <list>
#include <string>

#include "Discover.h"
#include "commands.h"
#include "discovery_options.h"
#include "exit_status.h"
#include "unit_listing.h"
#include "utils.h"

namespace {

struct DiscoverArgs {
    bool full = false;
    bool tree = false;
    bool json = false;
    DiscoveryOptions net = {1.0, ""};
};

int discover_usage(const char* program)
{
    fprintf(stderr, "Usage: %s discover [full] [tree] [--json] [--timeout=<seconds>] [--interface=<name>]\n", program);
    return -1;
}

// Words and options in any order; false after printing why.
bool discover_parse(int argc, char** argv, DiscoverArgs& args)
{
    for (int i = 2; i < argc; i++) {
        const char* arg = argv[i];
        int taken = discovery_option("discover", arg, args.net);
        if (taken < 0) return false;
        if (taken > 0) continue;
        if (strcmp(arg, "full") == 0) args.full = true;
        else if (strcmp(arg, "tree") == 0) args.tree = true;
        else if (strcmp(arg, "--json") == 0) args.json = true;
        else {
            fprintf(stderr, "discover: unknown argument '%s'.\n", arg);
            return false;
        }
    }
    if (args.tree && args.json) fprintf(stderr, "discover: tree and --json do not go together.\n");
    return !(args.tree && args.json);
}

std::string discover_layout(const std::list<DiscoverRecord>& units, const DiscoverArgs& args)
{
    if (args.json) return listing_json(units);
    return args.tree ? listing_tree(units, args.full) : listing_flat(units, args.full);
}

}  // namespace

int main_discover(int argc, char** argv)
{
    DiscoverArgs args;
    if (!discover_parse(argc, argv, args)) return discover_usage(argv[0]);
    Discover discovery(kServicePort);
    discovery.SetInterface(args.net.interface.c_str());
    discovery.SetWait(args.net.timeout);
    std::list<DiscoverRecord> units;
    if (!discovery.Find(units)) return discovery_send_failed("discover", discovery, args.net);
    std::string text = discover_layout(units, args);
    fwrite(text.data(), 1, text.size(), stdout);
    if (!units.empty()) return kExitOk;
    fprintf(stderr, "No unit answered within %g s.\n", args.net.timeout);
    return kExitRefused;
}
