// Named statement parameters: ":name" references in statement text replaced
// by values. Plain substring search, no SQL parsing: a name that begins a
// longer name used in the same statement must be replaced last. SqlWrapper's
// Replace* members are these functions.
#pragma once

#include <string>

// Replaces the first ":name" by value. False (query unchanged) when there
// is none.
bool sql_param_replace(std::string& query, const std::string& name, const std::string& value);
// As sql_param_replace with value as a double-quoted string, its double
// quotes written twice; nothing else is escaped. False (query unchanged)
// when there is no reference or memory runs out (logged).
bool sql_param_replace_str(std::string& query, const std::string& name, const std::string& value);
// Replaces every ":name" by value, in double quotes when `parenthesis` is set
// (quotes inside value are not doubled). False (query unchanged) when there
// is no reference, or when the replacement holds ":name" itself (logged: it
// would be replaced again without end).
bool sql_param_replace_all(std::string& query, const std::string& name, const std::string& value,
                           bool parenthesis);
