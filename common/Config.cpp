#include "Config.h"

#include <algorithm>
#include <cstring>

#include "debugger.h"
#include "utils.h"

namespace {

// A read returns at most 1022 characters; a longer line comes in parts,
// each counted as a line of its own.
const int kLineBuffer = 1023;

std::list<std::string> config_valid_list(const char* const* valid)
{
    std::list<std::string> keys;
    for (; valid && *valid && **valid; valid++) keys.emplace_back(*valid);
    return keys;
}

bool config_is_blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

Config::Config(const char* file, const DefaultEntry* defaults, const std::list<std::string>& valid)
    : Bbs("Config"), m_cfg_file(file ? safe_mem_strdup(file, __FILE__, __LINE__) : nullptr), m_valid(valid)
{
    safe_mem_object(__FILE__, __LINE__, "Config", this);
    Defaults(defaults);
    (void)Reload();
}

Config::Config(const char* file, const DefaultEntry* defaults, const char* const* valid)
    : Config(file, defaults, config_valid_list(valid))
{
}

Config::~Config()
{
    safe_mem_free(m_cfg_file, __FILE__, __LINE__);
    safe_mem_object(__FILE__, __LINE__, "~Config", this);
}

void Config::Defaults(const DefaultEntry* defaults)
{
    std::map<std::string, std::string> table;
    for (; defaults && defaults->entry; defaults++) table[defaults->entry] = defaults->value ? defaults->value : "";
    MUTEX_GUARD(m_lock);
    m_cfgDefaults.swap(table);
}

void Config::UseDefaults()
{
    MUTEX_GUARD(m_lock);
    m_contents = m_cfgDefaults;
}

bool Config::Reload()
{
    if (!m_cfg_file) {
        syslog_safe(6, "No configuration file, using defaults.");
        UseDefaults();
        return true;
    }
    // Read-write on purpose: a file this process may not write counts as missing.
    FILE* file = fopen(m_cfg_file, "r+");
    if (!file) {
        syslog_safe(6, "No configuration file \"%s\", using defaults.", m_cfg_file);
        UseDefaults();
        return true;
    }
    MUTEX_GUARD(m_lock);
    m_contents = m_cfgDefaults;
    bool ok = ReadLines(file);
    fclose(file);
    return ok;
}

bool Config::ReadLines(FILE* file)
{
    char line[kLineBuffer];
    for (long number = 1; fgets(line, sizeof line, file); number++) {
        size_t length = strlen(line);
        if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
        if (!ReadLine(line, number)) return false;
    }
    return true;
}

bool Config::ReadLine(char* line, long number)
{
    char* key = line;
    while (config_is_blank(*key)) key++;
    if (*key == '\0') return true;
    // The first character belongs to the key whatever it is, so "=a b" has the key "=a".
    char* end = key + 1 + strcspn(key + 1, "= \t");
    char* value = end + strspn(end, "= \t");
    if (*end == '\0' || *value == '\0') {
        syslog_safe(6, "Ignoring %s:%ld.", m_cfg_file, number);
        return true;
    }
    *end = '\0';
    if (!m_valid.empty() && std::find(m_valid.begin(), m_valid.end(), key) == m_valid.end()) {
        syslog_safe(3, "%s:%ld: Unknown \"%s\".", m_cfg_file, number, key);
        return false;
    }
    m_contents[key] = value;
    return true;
}
