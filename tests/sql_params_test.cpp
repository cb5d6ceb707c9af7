#include <gtest/gtest.h>

#include "fixed_paths.h"
#include "sql_params.h"

namespace {

const char* const kInsert =
    "INSERT INTO Events (EvntDateTime, EvntDscID, UsrID, HwID, EvntData) "
    "VALUES(:EvntDateTime, :EvntDscID, :UsrID, :HwID, :EvntData);";

struct Case {
    const char* label;
    const char* query;
    const char* name;
    const char* value;
    bool replaced;
    const char* result;
};

void ExpectCases(const std::vector<Case>& cases,
                 bool (*replace)(std::string&, const std::string&, const std::string&))
{
    for (const Case& c : cases) {
        std::string query = c.query;
        EXPECT_EQ(replace(query, c.name, c.value), c.replaced) << c.label;
        EXPECT_EQ(query, c.result) << c.label;
    }
}

bool ReplaceAllBare(std::string& q, const std::string& n, const std::string& v)
{
    return sql_param_replace_all(q, n, v, false);
}

bool ReplaceAllQuoted(std::string& q, const std::string& n, const std::string& v)
{
    return sql_param_replace_all(q, n, v, true);
}

TEST(SqlParams, ReplaceFirstOnly)
{
    ExpectCases({{"first of two", "a=:HwID OR b=:HwID;", "HwID", "7", true, "a=7 OR b=:HwID;"},
                 {"absent", "a=:HwID;", "UsrID", "7", false, "a=:HwID;"},
                 {"case matters", "a=:HwID;", "hwid", "7", false, "a=:HwID;"},
                 {"prefix of longer name", "x=:Evnt, y=:EvntData;", "Evnt", "1", true, "x=1, y=:EvntData;"},
                 {"inside longer reference", "y=:EvntData;", "Evnt", "1", true, "y=1Data;"},
                 {"inside a literal", "'a:b';", "b", "2", true, "'a2';"}},
                sql_param_replace);
}

TEST(SqlParams, ReplaceStringQuotesAndDoublesQuotesOnly)
{
    ExpectCases({{"quote doubled", "v=:S;", "S", "12\"x", true, "v=\"12\"\"x\";"},
                 {"empty", "v=:S;", "S", "", true, "v=\"\";"},
                 {"others pass", "v=:S;", "S", "a'b\\c\t", true, "v=\"a'b\\c\t\";"},
                 {"first only", ":S,:S", "S", "q", true, "\"q\",:S"},
                 {"absent", "v=:T;", "S", "q", false, "v=:T;"}},
                sql_param_replace_str);
}

TEST(SqlParams, ReplaceAllWithOrWithoutQuotes)
{
    ExpectCases({{"both", "a=:HwID OR b=:HwID;", "HwID", "7", true, "a=7 OR b=7;"},
                 {"absent", "a=1;", "HwID", "7", false, "a=1;"},
                 {"bare value", ":v", "v", "x\"y", true, "x\"y"}},
                ReplaceAllBare);
    ExpectCases({{"quoted, not doubled", ":v,:v", "v", "x\"y", true, "\"x\"y\",\"x\"y\""},
                 {"empty", ":v", "v", "", true, "\"\""}},
                ReplaceAllQuoted);
}

TEST(SqlParams, ReplaceAllRefusesAValueHoldingItsOwnReference)
{
    StderrCapture err;
    std::string query = "a=:v;";
    EXPECT_FALSE(sql_param_replace_all(query, "v", "(:v)", false));
    EXPECT_EQ(query, "a=:v;");
    EXPECT_EQ(LogLines(err.Take()), "warn <SqlWrapper> Value of \":v\" holds its own reference.\n");
}

TEST(SqlParams, FillsTheSelfTestInsert)
{
    std::string query = kInsert;
    EXPECT_TRUE(sql_param_replace(query, "EvntDateTime", "'2026-01-01 00:00:00'"));
    EXPECT_TRUE(sql_param_replace(query, "EvntDscID", "3"));
    EXPECT_TRUE(sql_param_replace(query, "UsrID", "0"));
    EXPECT_TRUE(sql_param_replace(query, "HwID", "12"));
    EXPECT_TRUE(sql_param_replace_str(query, "EvntData", "vtest \"self\" test"));
    EXPECT_EQ(query,
              "INSERT INTO Events (EvntDateTime, EvntDscID, UsrID, HwID, EvntData) "
              "VALUES('2026-01-01 00:00:00', 3, 0, 12, \"vtest \"\"self\"\" test\");");
}

}  // namespace
