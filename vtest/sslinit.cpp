#include <syslog.h>

#include "Config.h"
#include "QuillSsl.h"
#include "commands.h"

// Loads the daemon's configuration, lets "-altbase <dir>" override the SSL
// base directory and runs the SSL initialisation; 0 whatever it reported.
int main_init(int argc, char** argv)
{
    openlog("vantor", LOG_PID | LOG_NDELAY, LOG_LOCAL5);
    Config cfg("/etc/vantor.conf", nullptr, static_cast<const char* const*>(nullptr));
    ssl_scan_args(cfg, argc - 2, argv + 2);
    QuillSsl ssl(cfg);
    (void)ssl.Init();
    closelog();
    return 0;
}
