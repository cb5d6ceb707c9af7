// The controller configuration file: "key = value" lines, read into and
// written from a map. Neither function locks; callers serialise them.
#pragma once

#include <map>
#include <string>

// "/var/local/quill.conf"; the writer keeps the previous file as ".old".
extern const char quillConfigFile[];

// Clears `cfg`, then fills it from quillConfigFile. Returns false, cfg
// empty, when the file cannot be opened (no message).
bool ControllerConfRead(std::map<std::string, std::string>& cfg);
// Replaces quillConfigFile by `cfg` as "%s = %s\n" lines in key order,
// keeping the previous file as quillConfigFile".old". Returns false, with a
// warning, when the new file cannot be created or written; the old contents
// then exist only as the backup.
bool ControllerConfWrite(const std::map<std::string, std::string>& cfg);

// The two above on any path; they exist for tests and fuzzing.
bool controller_conf_read_file(const char* path, std::map<std::string, std::string>& cfg);
bool controller_conf_write_file(const char* path, const std::map<std::string, std::string>& cfg);
