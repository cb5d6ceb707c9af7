// vtest exec: daemon commands from the command line, a file or standard
// input, over one command channel connection (docs/commands.md).
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ScriptReader.h"
#include "commands.h"
#include "exec_channel.h"
#include "exit_status.h"
#include "regular_file.h"
#include "server_option.h"
#include "timeout_option.h"

namespace {

// Longest command, in bytes: an argument or a script line.
const size_t kMaxCommand = 4000;
const long kMaxRetries = 86400;
// The status of an unreadable script or a refused script line.
const int kExitScript = 5;

struct ExecRequest {
    ExecOptions options;
    int echo = -1;  // -1: when the run can hold several commands
    bool fromStdin = false;
    const char* file = nullptr;
    std::vector<const char*> commands;
};

// "-1", or plain decimal 0..kMaxRetries.
bool parse_retries(const char* text, long& retries)
{
    if (strcmp(text, "-1") == 0) {
        retries = -1;
        return true;
    }
    size_t len = strlen(text);
    if (len == 0 || len > 5 || (text[0] == '0' && len > 1) || strspn(text, "0123456789") != len) return false;
    long n = strtol(text, nullptr, 10);
    if (n > kMaxRetries) return false;
    retries = n;
    return true;
}

// A value option "--name=VALUE": its value, or null.
const char* option_value(const char* arg, const char* name)
{
    size_t len = strlen(name);
    return strncmp(arg, name, len) == 0 && arg[len] == '=' ? arg + len + 1 : nullptr;
}

// One option at argv[i] (--file may take argv[i + 1]); false with the reason.
bool parse_option(int argc, char** argv, int& i, ExecRequest& r, std::string& reason)
{
    const char* arg = argv[i];
    const char* value = nullptr;
    if (strcmp(arg, "--keep-going") == 0) r.options.keepGoing = true;
    else if (strcmp(arg, "--stdin") == 0) r.fromStdin = true;
    else if (strcmp(arg, "--echo") == 0) r.echo = 1;
    else if (strcmp(arg, "--no-echo") == 0) r.echo = 0;
    else if ((value = option_value(arg, "--server"))) (void)parse_server_address(value, r.options.server, reason);
    else if ((value = option_value(arg, "--error-prefix"))) r.options.errorPrefix = value;
    else if ((value = option_value(arg, "--timeout"))) {
        if (!parse_timeout_seconds(value, r.options.timeout))
            reason = "bad --timeout value '" + std::string(value) + "' (whole seconds, 1 to 3600)";
    } else if ((value = option_value(arg, "--retries"))) {
        if (!parse_retries(value, r.options.retries))
            reason = "bad --retries value '" + std::string(value) + "' (-1, or 0 to " + std::to_string(kMaxRetries) + ")";
    } else if ((value = option_value(arg, "--file")) || strcmp(arg, "--file") == 0) {
        if (!value && i + 1 < argc) value = argv[++i];
        if (value && *value) r.file = value;
        else reason = "--file needs a file name";
    } else {
        reason = "unknown option '" + std::string(arg) + "'";
    }
    return reason.empty();
}

// Why an argument cannot be sent as a command, or empty.
std::string command_fault(const char* command)
{
    size_t len = strlen(command);
    if (len == 0) return "is empty";
    if (len > kMaxCommand) return "is longer than " + std::to_string(kMaxCommand) + " bytes";
    if (strpbrk(command, "\r\n")) return "holds a line break";
    return "";
}

// Options first, "--" ends them; then the commands. False with the reason.
bool parse_request(int argc, char** argv, ExecRequest& r, std::string& reason)
{
    r.options.server = SockAddr(AF_INET, 0x7F000001u, static_cast<int>(kServicePort));
    int i = 2;
    for (; i < argc && strncmp(argv[i], "--", 2) == 0; i++) {
        if (strcmp(argv[i], "--") == 0) {
            i++;
            break;
        }
        if (!parse_option(argc, argv, i, r, reason)) return false;
    }
    r.commands.assign(argv + i, argv + argc);
    if (r.fromStdin && r.file) reason = "--stdin and --file exclude each other";
    else if ((r.fromStdin || r.file) && !r.commands.empty()) reason = "commands come from arguments, --stdin or --file";
    else if (!r.fromStdin && !r.file && r.commands.empty()) reason = "no command";
    for (size_t n = 0; reason.empty() && n < r.commands.size(); n++) {
        std::string fault = command_fault(r.commands[n]);
        if (!fault.empty()) reason = "command " + std::to_string(n + 1) + " " + fault;
    }
    if (!reason.empty()) return false;
    bool several = r.commands.size() > 1 || r.fromStdin || r.file;
    r.options.echo = r.echo == -1 ? several : r.echo == 1;
    return true;
}

int exec_usage(const char* program, const std::string& reason)
{
    fprintf(stderr, "Error: %s.\n", reason.c_str());
    fprintf(stderr, "Usage: %s exec [options] (<command>)+ | --stdin | --file <file>\n", program);
    return -1;
}

// Keeps the first failure; true when the run goes on.
bool exec_record(int rv, int& status, bool keepGoing)
{
    if (rv && !status) status = rv;
    return !rv || keepGoing;
}

int run_arguments(ExecChannel& channel, const ExecRequest& r)
{
    int status = 0;
    for (const char* command : r.commands)
        if (!exec_record(channel.Run(command), status, r.options.keepGoing)) break;
    return status;
}

// Lines are read as they come (standard input is streamed), each sent
// before the next is read.
int run_script(ExecChannel& channel, int fd, const char* name, bool keepGoing)
{
    ScriptReader reader(fd, kMaxCommand);
    int status = 0;
    for (;;) {
        int rv = 0;
        switch (reader.Next()) {
        case ScriptReader::kEnd:
            return status;
        case ScriptReader::kError:
            fprintf(stderr, "Error: cannot read %s: %s.\n", name, strerror(reader.Errno()));
            return status ? status : kExitScript;
        case ScriptReader::kRefused:
            fprintf(stderr, "Error: %s:%d: %s\n", name, reader.Number(), reader.Reason().c_str());
            rv = kExitScript;
            break;
        case ScriptReader::kLine:
            rv = channel.Run(reader.Text());
            break;
        }
        if (!exec_record(rv, status, keepGoing)) return status;
    }
}

int run_file(ExecChannel& channel, const char* path, bool keepGoing)
{
    int fd = regular_file_open(path, nullptr);
    if (fd < 0) {
        fprintf(stderr, "Error: cannot open %s: %s.\n", path, fd == -EINVAL ? "not a regular file" : strerror(-fd));
        return kExitScript;
    }
    int status = run_script(channel, fd, path, keepGoing);
    close(fd);
    return status;
}

}  // namespace

int main_exec(int argc, char** argv)
{
    ExecRequest request;
    std::string reason;
    if (!parse_request(argc, argv, request, reason)) return exec_usage(argv[0], reason);
    ExecChannel channel(request.options);
    if (request.fromStdin) return run_script(channel, STDIN_FILENO, "stdin", request.options.keepGoing);
    if (request.file) return run_file(channel, request.file, request.options.keepGoing);
    return run_arguments(channel, request);
}
