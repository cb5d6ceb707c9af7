#include "sql_params.h"

#include <new>

#include "debugger.h"

namespace {

std::string sql_param_reference(const std::string& name) { return ":" + name; }

}  // namespace

bool sql_param_replace(std::string& query, const std::string& name, const std::string& value)
{
    const std::string reference = sql_param_reference(name);
    size_t at = query.find(reference);
    if (at == std::string::npos) return false;
    query.replace(at, reference.size(), value);
    return true;
}

bool sql_param_replace_str(std::string& query, const std::string& name, const std::string& value)
{
    std::string quoted;
    try {
        quoted.reserve(value.size() + 2);
        quoted += '"';
        for (char c : value) {
            if (c == '"') quoted += '"';
            quoted += c;
        }
        quoted += '"';
    } catch (const std::bad_alloc&) {
        syslog_safe(4, "<SqlWrapper> ReplaceParamWithStrValue try error");
        return false;
    }
    return sql_param_replace(query, name, quoted);
}

bool sql_param_replace_all(std::string& query, const std::string& name, const std::string& value,
                           bool parenthesis)
{
    // The flag's name is historical: it adds double quotes, never doubled.
    const std::string replacement = parenthesis ? "\"" + value + "\"" : value;
    const std::string reference = sql_param_reference(name);
    if (query.find(reference) == std::string::npos) return false;
    if (replacement.find(reference) != std::string::npos) {
        syslog_safe(4, "<SqlWrapper> Value of \"%s\" holds its own reference.", reference.c_str());
        return false;
    }
    // Every search restarts at the beginning of the changed text.
    while (sql_param_replace(query, name, replacement)) {
    }
    return true;
}
