// ipconfig: tells one unit to take new IPv4 settings ("SetIPv4"), then
// discovers once a second until it answers from its new address.
#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "Discover.h"
#include "TimeSpan.h"
#include "commands.h"
#include "discovery_options.h"
#include "exit_status.h"
#include "unit_listing.h"
#include "utils.h"

namespace {

const double kDefaultConfirmSeconds = 10;
const double kPassSeconds = 1;  // one discovery pass a second while confirming
const char kTemporary[] = "temporary";
const char* const kWordNames[] = {"addrType", "addr", "ipv4Address", "ipv4Mask", "ipv4Gateway", "dnsList"};
const size_t kRequiredWords = sizeof kWordNames / sizeof kWordNames[0];

struct IpconfigArgs {
    SockAddr target;
    std::vector<const char*> words;  // as given: type, address, the three quads, dnsList[, temporary]
    bool confirm = true;
    DiscoveryOptions net = {kDefaultConfirmSeconds, ""};

    const char* Address() const { return words[2]; }
    // "-" or an empty argument: no DNS servers.
    const char* Dns() const { return strcmp(words[5], "-") == 0 || !*words[5] ? nullptr : words[5]; }
    bool Permanent() const { return words.size() == kRequiredWords; }
};

int ipconfig_usage(const char* program)
{
    fprintf(stderr,
            "Usage: %s ipconfig <addrType> <addr> <ipv4Address> <ipv4Mask> <ipv4Gateway> <dnsList> [temporary]"
            " [--no-confirm] [--timeout=<seconds>] [--interface=<name>]\n",
            program);
    return -1;
}

bool dotted_quad(const char* text)
{
    in_addr address;
    return inet_pton(AF_INET, text, &address) == 1;
}

// The words after the options are taken out; false after printing why.
bool ipconfig_words(IpconfigArgs& args)
{
    const std::vector<const char*>& w = args.words;
    if (w.size() < kRequiredWords) {
        fprintf(stderr, "ipconfig: missing parameter: %s.\n", kWordNames[w.size()]);
        return false;
    }
    // Only "temporary" may follow, once.
    size_t bad = w.size() > kRequiredWords && strcmp(w[kRequiredWords], kTemporary) == 0 ? kRequiredWords + 1
                                                                                      : kRequiredWords;
    if (bad < w.size()) {
        fprintf(stderr, "ipconfig: unexpected argument '%s'.\n", w[bad]);
        return false;
    }
    sa_family_t family = SockAddr::Type(w[0]);
    if (family == AF_UNSPEC) {
        fprintf(stderr, "ipconfig: unknown address type '%s'.\n", w[0]);
        return false;
    }
    if (!args.target.Parse(family, w[1])) {
        fprintf(stderr, "ipconfig: invalid %s address '%s'.\n", w[0], w[1]);
        return false;
    }
    for (size_t i = 2; i < 5; i++) {
        if (dotted_quad(w[i])) continue;
        fprintf(stderr, "ipconfig: %s must be a dotted quad, not '%s'.\n", kWordNames[i], w[i]);
        return false;
    }
    return true;
}

bool ipconfig_parse(int argc, char** argv, IpconfigArgs& args)
{
    for (int i = 2; i < argc; i++) {
        int taken = discovery_option("ipconfig", argv[i], args.net);
        if (taken < 0) return false;
        if (taken > 0) continue;
        if (strcmp(argv[i], "--no-confirm") == 0) args.confirm = false;
        else if (strncmp(argv[i], "--", 2) == 0) {
            fprintf(stderr, "ipconfig: unknown option '%s'.\n", argv[i]);
            return false;
        } else
            args.words.push_back(argv[i]);
    }
    return ipconfig_words(args);
}

// The unit a record stands for: with a MAC target the record with that
// "mac"; with any other target every record may be it.
bool is_target(const DiscoverRecord& record, const SockAddr& target)
{
    if (target.GetAF() != AF_MAC) return true;
    char mac[SockAddr::m_strLen];
    auto it = record.find("mac");
    return it != record.end() && strcasecmp(it->second.c_str(), SockAddr::MAC(target.Get().mac.mac, mac)) == 0;
}

// Passes until the target answers from `address` or `seconds` run out.
// 1 confirmed (record set), 0 not, -1 a pass could not be sent.
int ipconfig_confirm(Discover& discovery, const IpconfigArgs& args, DiscoverRecord& record, std::string& lastFrom)
{
    TimeSpan started;
    for (;;) {
        double left = args.net.timeout - started.DurationNs() / static_cast<double>(TimeSpan::m_sToNs);
        if (left <= 0) return 0;
        discovery.SetWait(std::min(kPassSeconds, left));
        std::list<DiscoverRecord> units;
        if (!discovery.Find(units)) return -1;
        for (const DiscoverRecord& unit : units) {
            if (!is_target(unit, args.target)) continue;
            std::string from = record_address(unit);
            if (from == args.Address()) {
                record = unit;
                return 1;
            }
            if (args.target.GetAF() == AF_MAC) lastFrom = from;
        }
    }
}

}  // namespace

int main_ipconfig(int argc, char** argv)
{
    IpconfigArgs args;
    if (!ipconfig_parse(argc, argv, args)) return ipconfig_usage(argv[0]);
    const std::vector<const char*>& w = args.words;
    Discover discovery(kServicePort);
    discovery.SetInterface(args.net.interface.c_str());
    if (!discovery.SetIPv4(args.target, w[2], w[3], w[4], args.Dns(), args.Permanent(), nullptr))
        return discovery_send_failed("ipconfig", discovery, args.net);
    if (!args.confirm) return kExitOk;
    DiscoverRecord record;
    std::string lastFrom;
    int confirmed = ipconfig_confirm(discovery, args, record, lastFrom);
    if (confirmed < 0) return discovery_send_failed("ipconfig", discovery, args.net);
    if (confirmed > 0) {
        std::string line = printNode(record, false, 0);
        fwrite(line.data(), 1, line.size(), stdout);
        return kExitOk;
    }
    char target[SockAddr::m_strLen];
    fprintf(stderr, "ipconfig: %s %s did not answer from %s within %g s (%s%s).\n", w[0], args.target.Str(target),
            args.Address(), args.net.timeout, lastFrom.empty() ? "no answer from it" : "last answered from ",
            lastFrom.c_str());
    return kExitRefused;
}
