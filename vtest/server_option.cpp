#include "server_option.h"

#include <sys/socket.h>

#include <cstdio>

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
