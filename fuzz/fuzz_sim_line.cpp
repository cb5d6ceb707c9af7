#include <cstdint>
#include <cstring>
#include <string>

#include "MonitorHub.h"
#include "ShellLine.h"

// The simulator's request side: any bytes split into bounded lines without
// line ends, and every line classified into a well-formed command.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* bytes = reinterpret_cast<const char*>(data);
    LineAssembler lines(64);
    ShellCommand command;
    for (size_t at = 0; at < size;) {
        LineAssembler::Result result;
        at += lines.Feed(bytes + at, size - at, result);
        if (result != LineAssembler::kLine) continue;
        const std::string& line = lines.Line();
        if (line.empty() || line.size() > 64 || line.find_first_of("\r\n") != std::string::npos) __builtin_trap();
        shell_parse_command(line, command);
        bool bad = (command.kind == ShellCommand::kShell &&
                    (command.escape == command.separator || command.escape <= ' ' || command.separator <= ' ')) ||
                   (command.kind == ShellCommand::kMonitor && (command.table.empty() || command.ops == 0)) ||
                   (command.kind == ShellCommand::kInvalid && command.error.empty());
        if (bad) __builtin_trap();
    }
    return 0;
}
