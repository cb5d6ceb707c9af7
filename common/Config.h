// A settings file of "key value" lines loaded over built-in defaults into a
// board (named "Config"); readers use the board's getters.
#pragma once

#include <cstdio>
#include <list>
#include <map>
#include <string>

#include "Bbs.h"

class Config : public Bbs {
public:
    // One default; a table ends with an entry whose `entry` is null.
    struct DefaultEntry {
        const char* entry;
        const char* value;
    };

    // `file` and `defaults` may be null; an empty `valid` accepts every key.
    // Loads the file at once (the result of that first Reload is not kept).
    Config(const char* file, const DefaultEntry* defaults, const std::list<std::string>& valid);
    // `valid` (may be null) is read up to its first null or empty string.
    Config(const char* file, const DefaultEntry* defaults, const char* const* valid);
    ~Config() override;
    Config(const Config&) = delete;
    Config& operator=(const Config&) = delete;

    // Replaces the defaults (null, or a table whose first entry is null,
    // empties them); the board changes only at the next Reload.
    void Defaults(const DefaultEntry* defaults);

    // Rebuilds the board from the defaults and the file, holding the board's
    // lock throughout so readers see the old values or the new ones. Returns
    // true, also with no file or one that cannot be opened read-write (then
    // the defaults alone); false when a key is not in the valid-key list (the
    // board then holds the defaults and the lines before that key).
    bool Reload();

private:
    void UseDefaults();
    // Reads the open file into the board; the caller holds m_lock.
    bool ReadLines(FILE* file);
    // One line without its line feed; false for an unknown key.
    bool ReadLine(char* line, long number);

    char* m_cfg_file;
    std::map<std::string, std::string> m_cfgDefaults;
    std::list<std::string> m_valid;
};
