// JSON text of the commands' --json output.
#pragma once

#include <string>

// A JSON string: '"', '\' and bytes below 0x20 escaped, bytes that are not
// valid UTF-8 as \ufffd (so the output always parses).
std::string json_string(const std::string& text);
