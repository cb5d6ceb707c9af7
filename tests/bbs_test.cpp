#include <gtest/gtest.h>

#include "Bbs.h"

namespace {

// Numbers scan like scanf's "%10d" and "%5d" (the sign counts, a short narrowed to 16 bits); words are exact. A row
// reads "<int> <short> <bool>": "-" a refusal (the value left alone), a bool as 1 or 0.
TEST(Bbs, TypedGettersReadTheseValues)
{
    const std::pair<const char*, const char*> cases[] = {
        {"12abc", "12 12 -"}, {"  \t-42", "-42 -42 -"}, {"+7", "7 7 -"}, {"0x10", "0 0 -"}, {"01", "1 1 -"},
        {"123456", "123456 12345 -"}, {"99999", "99999 -31073 -"}, {"-2147483648", "-214748364 -2147 -"},
        {"12345678901", "1234567890 12345 -"}, {"4294967295", "- -22587 -"}, {"- 1", "- - -"}, {"+-1", "- - -"},
        {nullptr, "- - -"}, {"0", "0 0 0"}, {"no", "- - 0"}, {"false", "- - 0"}, {"off", "- - 0"}, {"1", "1 1 1"},
        {"yes", "- - 1"}, {"true", "- - 1"}, {"on", "- - 1"}, {"TRUE", "- - -"}, {"", "- - -"}, {" on", "- - -"},
    };
    Bbs board("typed");
    const auto as = [&](auto value) {
        const auto untouched = value;
        return board.Get("k", value) ? std::to_string(value) : value == untouched ? "-" : "changed";
    };
    for (auto [text, values] : cases) {
        text ? board.Set("k", text) : board.Remove("k");
        EXPECT_EQ(as(9999) + " " + as(short(999)) + " " + as(true), values) << (text ? text : "(absent)");
    }
}

TEST(Bbs, ListSplitAppendsWholeSeparatorPieces)
{
    struct Case { const char* text; const char* separator; std::list<std::string> pieces; } cases[] = {
        {"a,,b,", ",", {"old", "a", "", "b"}},  // inner empty parts kept, none after a last separator
        {"x, y, ", ", ", {"old", "x", "y"}}, {"x,y, z", ", ", {"old", "x,y", "z"}}, {",a", ",", {"old", "", "a"}},
        {",", ",", {"old", ""}}, {"", ",", {"old"}}, {"a,b", "", {"old", "a,b"}}, {"a,b", nullptr, {"old", "a,b"}},
        {nullptr, ",", {"old"}},
    };
    Bbs board("lists");
    for (const Case& c : cases) {
        c.text ? board.Set("l", c.text) : board.Remove("l");
        std::list<std::string> pieces{"old"};
        EXPECT_TRUE(board.Get("l", pieces, c.separator) == (c.text != nullptr) && pieces == c.pieces)
            << (c.text ? c.text : "(absent)");
    }
}

TEST(Bbs, SetReplacesRemoveErasesCopyIsWholeAndGlobalIsOneBoardUntilFini)
{
    Bbs& board = *Bbs::Global();
    EXPECT_EQ(Bbs::Global(), &board);
    board.Set("a", 5);
    board.Set("a", -17);
    board.Set("A", "upper");
    board.Set("b", "");
    std::string text = "keep";
    EXPECT_TRUE(!board.Get("none", text) && text == "keep");
    EXPECT_TRUE(board.Get("b", text) && text.empty());
    EXPECT_TRUE(board.GetStr("none", nullptr) == nullptr && std::string(board.GetStr("A", "x")) == "upper");
    EXPECT_TRUE(board.GetInt("a", 0) == -17 && board.GetShort("none", 3) == 3 && board.GetBool("A", true));
    board.Remove("absent");
    board.Remove("b");
    std::map<std::string, std::string> all{{"stale", "x"}};
    board.Get(all);
    EXPECT_EQ(all, (std::map<std::string, std::string>{{"A", "upper"}, {"a", "-17"}}));
    Bbs::Fini();
    Bbs::Fini();  // a second Fini finds nothing to delete
    EXPECT_FALSE(Bbs::Global()->Get("a"));
    Bbs::Fini();
}

}  // namespace
