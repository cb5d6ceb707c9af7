#include "server_option.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

bool parse_server_option(const char* text, SockAddr& addr)
{
    if (!addr.Parse(AF_INET, text)) {
        fflush(stdout);  // an earlier "Connecting" line may wait in the buffer
        fprintf(stderr, "Invalid IPv4 address: \"%s\".\n", text);
        return false;
    }
    if (addr.GetPort() == 0) addr.SetPort(kServicePort);
    char buf[64];
    printf("Connecting to %s...\n", addr.Str(buf, true));
    return true;
}

namespace {

bool server_port(const std::string& text, unsigned short& port)
{
    if (text.empty() || text.size() > 5 || text[0] == '0' || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    long n = strtol(text.c_str(), nullptr, 10);
    if (n > 65535) return false;
    port = static_cast<unsigned short>(n);
    return true;
}

bool server_unix(const char* text, SockAddr& addr, std::string& reason)
{
    sockaddr_un un = {};
    if (strlen(text) >= sizeof un.sun_path) {
        reason = "Unix socket path longer than " + std::to_string(sizeof un.sun_path - 1) + " bytes";
        return false;
    }
    un.sun_family = AF_UNIX;
    strcpy(un.sun_path, text);
    addr = SockAddr(un);
    return true;
}

// Splits `text` into host and port text by the form it has; the family
// the host must be of.
bool server_split(const std::string& text, std::string& host, std::string& port, bool& hasPort, sa_family_t& family,
                  std::string& reason)
{
    size_t split = std::string::npos;
    family = AF_INET6;
    if (text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':')) {
            reason = "expected [IPv6 address]:port";
            return false;
        }
        host = text.substr(1, close - 1);
        if (close + 1 < text.size()) split = close + 1;
    } else if ((split = text.find('|')) != std::string::npos) {
        host = text.substr(0, split);
    } else if (std::count(text.begin(), text.end(), ':') >= 2) {
        host = text;
    } else {
        family = AF_INET;
        split = text.find(':');
        host = text.substr(0, split);
    }
    hasPort = split != std::string::npos;
    if (hasPort) port = text.substr(split + 1);
    return true;
}

}  // namespace

bool parse_server_address(const char* text, SockAddr& addr, std::string& reason)
{
    const std::string value = text ? text : "";
    if (value.empty()) {
        reason = "empty server address";
        return false;
    }
    if (value[0] == '/') return server_unix(text, addr, reason);
    std::string host, portText;
    bool hasPort = false;
    sa_family_t family;
    if (!server_split(value, host, portText, hasPort, family, reason)) return false;
    unsigned short port = kServicePort;
    if (hasPort && !server_port(portText, port)) {
        reason = "bad port '" + portText + "' (1 to 65535)";
        return false;
    }
    // A dotted quad goes to the exact parser: the library's reading would
    // take 10.0.0.256 as 10.0.1.0.
    in_addr quad;
    bool numeric = family == AF_INET && host.find_first_not_of("0123456789.") == std::string::npos;
    SockAddr parsed;
    if (host.empty()) reason = "no host in '" + value + "'";
    else if (numeric && inet_pton(AF_INET, host.c_str(), &quad) != 1) reason = "bad IPv4 address '" + host + "'";
    else if (!parsed.Parse(family, host.c_str()))
        reason = (family == AF_INET ? "cannot resolve '" : "bad IPv6 address '") + host + "'";
    if (!reason.empty()) return false;
    parsed.SetPort(port);
    addr = parsed;
    return true;
}
