#include "QuillSsl.h"

#include <cstring>

#include "debugger.h"

QuillSsl::QuillSsl(Config& cfg) : Debuggable("QuillSsl"), m_cfg(cfg) {}

bool QuillSsl::Init()
{
    syslog_safe(6, "SSL: Support not included.");
    syslog_safe(6, "SSL: #################### Init check passed ####################");
    return true;
}

void ssl_scan_args(Bbs& cfg, int count, char* const* args)
{
    for (int i = 0; i + 1 < count; i++)
        if (strcmp(args[i], "-altbase") == 0) cfg.Set("Ssl.BaseDir", args[++i]);
}
