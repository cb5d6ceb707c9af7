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

// Splits `text` into host and port text by the form it has.
bool server_split(const std::string& text, std::string& host, std::string& port, bool& hasPort, bool& ipv6,
                  std::string& reason)
{
    size_t split = std::string::npos;
    ipv6 = true;
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
        ipv6 = false;
        split = text.find(':');
        host = text.substr(0, split);
    }
    hasPort = split != std::string::npos;
    if (hasPort) port = text.substr(split + 1);
    return true;
}

}  // namespace

bool split_server_address(const std::string& text, unsigned short defaultPort, std::string& host,
                          unsigned short& port, bool& ipv6, std::string& reason)
{
    if (text.empty()) {
        reason = "empty server address";
        return false;
    }
    std::string portText;
    bool hasPort = false;
    if (!server_split(text, host, portText, hasPort, ipv6, reason)) return false;
    port = defaultPort;
    if (hasPort && !server_port(portText, port)) {
        reason = "bad port '" + portText + "' (1 to 65535)";
        return false;
    }
    if (host.empty()) reason = "no host in '" + text + "'";
    return reason.empty();
}

bool parse_server_address(const char* text, SockAddr& addr, std::string& reason)
{
    const std::string value = text ? text : "";
    if (!value.empty() && value[0] == '/') return server_unix(text, addr, reason);
    std::string host;
    unsigned short port;
    bool ipv6;
    if (!split_server_address(value, kServicePort, host, port, ipv6, reason)) return false;
    // A dotted quad goes to the exact parser: the library's reading would
    // take 10.0.0.256 as 10.0.1.0.
    in_addr quad;
    bool numeric = !ipv6 && host.find_first_not_of("0123456789.") == std::string::npos;
    SockAddr parsed;
    if (numeric && inet_pton(AF_INET, host.c_str(), &quad) != 1) reason = "bad IPv4 address '" + host + "'";
    else if (!parsed.Parse(ipv6 ? AF_INET6 : AF_INET, host.c_str()))
        reason = (ipv6 ? "bad IPv6 address '" : "cannot resolve '") + host + "'";
    if (!reason.empty()) return false;
    parsed.SetPort(port);
    addr = parsed;
    return true;
}
