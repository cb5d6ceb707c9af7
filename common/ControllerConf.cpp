#include "ControllerConf.h"

#include <cstdio>
#include <cstring>

#include "debugger.h"

const char quillConfigFile[] = "/var/local/quill.conf";

namespace {

// A read returns at most 198 characters; the rest of a longer line comes
// with the next read as a line of its own.
const int kLineBuffer = 199;

// Splits one line in place. The key ends before the run of spaces directly in
// front of the first "=", unless that "=" is among the first two characters;
// with no space there the whole line is the key. This matches the writer,
// which always puts a space before the "=", and is kept for old files.
void controller_conf_parse_line(char* line, std::map<std::string, std::string>& cfg)
{
    char* equals = strchr(line, '=');
    if (line[0] == '#' || !equals) return;
    size_t at = static_cast<size_t>(equals - line);
    if (at >= 2)
        while (at > 0 && line[at - 1] == ' ') line[--at] = '\0';
    char* value = equals + 1;
    value += strspn(value, " ");
    size_t length = strlen(value);
    if (length > 0 && value[length - 1] == '\n') value[length - 1] = '\0';
    if (line[0] != '\0') cfg[line] = value;
}

}  // namespace

// The map is cleared even when the file cannot be opened: callers take an
// empty map as "no controller settings".
bool controller_conf_read_file(const char* path, std::map<std::string, std::string>& cfg)
{
    cfg.clear();
    FILE* file = fopen(path, "r");
    if (!file) return false;
    char line[kLineBuffer];
    while (fgets(line, sizeof line, file)) controller_conf_parse_line(line, cfg);
    fclose(file);
    return true;
}

bool controller_conf_write_file(const char* path, const std::map<std::string, std::string>& cfg)
{
    const std::string backup = std::string(path) + ".old";
    (void)remove(backup.c_str());
    (void)rename(path, backup.c_str());
    FILE* file = fopen(path, "w+");
    bool ok = file != nullptr;
    for (auto it = cfg.begin(); ok && it != cfg.end(); ++it)
        ok = fprintf(file, "%s = %s\n", it->first.c_str(), it->second.c_str()) >= 0;
    if (file && fclose(file) != 0) ok = false;
    if (!ok) {
        syslog_safe(4, "Failed to update %s.", path);
        return false;
    }
    syslog_safe(6, "Updated %s.", path);
    return true;
}

bool ControllerConfRead(std::map<std::string, std::string>& cfg)
{
    return controller_conf_read_file(quillConfigFile, cfg);
}

bool ControllerConfWrite(const std::map<std::string, std::string>& cfg)
{
    return controller_conf_write_file(quillConfigFile, cfg);
}
