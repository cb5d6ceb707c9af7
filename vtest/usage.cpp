#include <cstdio>
#include <cstring>

#include "commands.h"

namespace {

// True when `entry` ("%s <word> ...") is the usage entry of `word`.
bool usage_entry_of(const char* entry, const char* word)
{
    size_t len = strlen(word);
    return strncmp(entry + 3, word, len) == 0 && (entry[3 + len] == ' ' || entry[3 + len] == '\n');
}

}  // namespace

int usage(const char* program, const char* word)
{
    static const char* const kEntries[] = {
        "%s [--server=<server>]\n\tRun basic tests.\n",
        "%s backlog\n\tCheck vantor backlogs.\n",
        "%s discover [full] [tree]\n\tDiscover neighbor vantors.\n",
        "%s ipconfig <addrType> <addr> <ipv4Address> <ipv4Mask> <ipv4Gateway> <dnsList> [temporary]\n"
        "\tSet IPv4 network parameters of remote host.\n",
        "%s sql [--pairs] [--server=<server>] [--stdin] (<SQL statement>)+\n\tExecute SQL statement(s).\n",
        "%s sql_file [--pairs] [--server=<server>] <file>\n\tExecute SQL statements from file.\n",
        "%s monitor [--server=<server>] <table> [insert] [update] [delete]\n"
        "\tStart monitoring any combination of listed commands.\n",
        "%s elf\n\tPrint ELF file information.\n",
        "%s exec [--server=<server>] (<command>)+ | --stdin | --file <file>\n\tExecute one or more commands.\n",
        "%s mail <smtpServer> [--user=<user> [--password=<pwd>]] [--debug] <from> <recipient> <subject> <file>\n"
        "\tSend test mail to recipient. File can be -- for stdin.\n",
        "%s time --tz=<timezone> <time>\n\tConvert time.\n",
        "%s sec-exec <params>\n\tSecure exec (same as from daemon).\n",
        "%s usb reset <hub>\n\tReset USB hub.\n",
    };
    for (const char* entry : kEntries)
        if (!word || usage_entry_of(entry, word)) fprintf(stderr, entry, program);
    return -1;
}

