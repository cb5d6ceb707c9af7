// Running the armhf build's tests under user-mode qemu on the build host.
#include <sstream>

#include "process.h"

std::vector<std::string> TargetArgv(const std::string& binary, const std::vector<std::string>& args)
{
    std::vector<std::string> argv;
#ifdef VTEST_EMULATOR
    std::istringstream words(VTEST_EMULATOR);
    for (std::string word; words >> word;) argv.push_back(word);
#endif
    argv.push_back(binary);
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

std::string EmulationSkipReason(EmulationGap gap)
{
#ifdef VTEST_EMULATOR
    switch (gap) {
    case EmulationGap::Namespaces:
        return "under user-mode emulation: namespaces made from inside the emulated process";
    case EmulationGap::PacketSockets:
        return "under user-mode emulation: AF_PACKET raw frames are not translated";
    case EmulationGap::Ptrace:
        return "under user-mode emulation: ptrace(2) is not emulated";
    }
    return "under user-mode emulation";
#else
    (void)gap;
    return "";
#endif
}
