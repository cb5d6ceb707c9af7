#include <gtest/gtest.h>

#include "fixed_paths.h"
#include "sql_params.h"

namespace {

enum Form { FIRST, STRING, ALL_BARE, ALL_QUOTED };

bool Replace(Form form, std::string& query, const std::string& name, const std::string& value)
{
    if (form == FIRST) return sql_param_replace(query, name, value);
    if (form == STRING) return sql_param_replace_str(query, name, value);
    return sql_param_replace_all(query, name, value, form == ALL_QUOTED);
}

// Plain substring replacement: a prefix of a longer name matches, quotes in the statement mean nothing.
TEST(SqlParams, ReplacesReferencesInEachForm)
{
    const struct {
        Form form;
        const char *query, *name, *value;
        bool replaced;
        const char* result;
    } cases[] = {
        {FIRST, "a=:Hw OR b=:Hw;", "Hw", "7", true, "a=7 OR b=:Hw;"}, {FIRST, "a=:Hw;", "Usr", "7", false, "a=:Hw;"},
        {FIRST, "y=:EvntData;", "Evnt", "1", true, "y=1Data;"}, {FIRST, "'a:b';", "b", "2", true, "'a2';"},
        {STRING, "v=:S;", "S", "12\"x'\\\t", true, "v=\"12\"\"x'\\\t\";"},
        {ALL_BARE, "a=:Hw OR b=:Hw;", "Hw", "7", true, "a=7 OR b=7;"}, {ALL_BARE, "a=1;", "Hw", "7", false, "a=1;"},
        {ALL_QUOTED, ":v,:v", "v", "x\"y", true, "\"x\"y\",\"x\"y\""},
        {ALL_BARE, "a=:v;", "v", "(:v)", false, "a=:v;"},  // would never end: refused, logged
    };
    StderrCapture err;
    for (const auto& c : cases) {
        std::string query = c.query;
        EXPECT_EQ(Replace(c.form, query, c.name, c.value), c.replaced) << c.query << " " << c.name;
        EXPECT_EQ(query, c.result) << c.query << " " << c.name;
    }
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> Value of \":v\" holds its own reference.\n");
}

}  // namespace
