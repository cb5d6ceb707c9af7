// Where the system would set up SSL from a configuration. SSL support is
// not built in: Init reports that and lets callers go on without it.
#pragma once

#include "Config.h"
#include "Debuggable.h"

class QuillSsl : public Debuggable {
public:
    // Keeps a reference: the configuration must outlive this object.
    explicit QuillSsl(Config& cfg);

    // Logs (info) "SSL: Support not included." and the passed init check;
    // always true.
    bool Init();
    // The configuration this context was built on.
    Config& Cfg() const { return m_cfg; }

private:
    Config& m_cfg;
};

// Scans `count` arguments: each "-altbase" followed by another argument
// stores that argument under "Ssl.BaseDir" (the last one wins) and skips it;
// a "-altbase" in the last position and all other arguments are ignored.
void ssl_scan_args(Bbs& cfg, int count, char* const* args);
