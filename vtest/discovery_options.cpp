#include "discovery_options.h"

#include <net/if.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Discover.h"
#include "NetUtils.h"
#include "exit_status.h"
#include "timeout_option.h"

namespace {

const char kTimeout[] = "--timeout=";
const char kInterface[] = "--interface=";

bool has_prefix(const char* text, const char* prefix) { return strncmp(text, prefix, strlen(prefix)) == 0; }

}  // namespace

int discovery_option(const char* command, const char* arg, DiscoveryOptions& options)
{
    if (has_prefix(arg, kTimeout)) {
        if (parse_decimal_seconds(arg + strlen(kTimeout), kDiscoverMinSeconds, kDiscoverMaxSeconds, options.timeout))
            return 1;
        fprintf(stderr, "%s: invalid time-out '%s' (seconds, %g to %g).\n", command, arg + strlen(kTimeout),
                kDiscoverMinSeconds, kDiscoverMaxSeconds);
        return -1;
    }
    if (!has_prefix(arg, kInterface)) return 0;
    const char* name = arg + strlen(kInterface);
    if (*name && strlen(name) < IFNAMSIZ) {
        options.interface = name;
        return 1;
    }
    fprintf(stderr, "%s: invalid interface name '%s' (1 to %d characters).\n", command, name, IFNAMSIZ - 1);
    return -1;
}

int discovery_send_failed(const char* command, const Discover& discovery, const DiscoveryOptions& options)
{
    const char* named = options.interface.empty() ? kBroadcastInterface : options.interface.c_str();
    int error = -discovery.LastError();
    fprintf(stderr, "%s: cannot send: ", command);
    if (error == EPERM)
        fprintf(stderr, "no route for the broadcast, and its hand-built frame needs CAP_NET_RAW.\n");
    else if (error == ENODEV && options.interface.empty())
        fprintf(stderr, "no route for the broadcast, and no interface \"%s\" for its hand-built frame "
                        "(--interface=NAME names another).\n", named);
    else if (error == ENODEV)
        fprintf(stderr, "no interface \"%s\".\n", named);
    else if (error == ENETDOWN)
        fprintf(stderr, "interface \"%s\" is down.\n", named);
    else if (error == ENOENT)
        fprintf(stderr, "no route for the broadcast, and no interface with an IPv4 address for its hand-built frame.\n");
    else
        fprintf(stderr, "%s.\n", strerror(error));
    return kExitCannotConnect;
}
