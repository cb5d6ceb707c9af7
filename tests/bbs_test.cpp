#include <gtest/gtest.h>

#include "Bbs.h"

namespace {

// A null text means the key is absent.
void Store(Bbs& board, const char* key, const char* text)
{
    if (text) board.Set(key, text);
    else board.Remove(key);
}

// "<int> <short> <bool>" as read from "k": "-" a refusal (value untouched); the defaulting getters agree.
std::string Read(const Bbs& board)
{
    int i = 9999;
    short s = 999;
    bool b = true;
    std::string asInt = board.Get("k", i) ? std::to_string(i) : i == 9999 ? "-" : "changed";
    std::string asShort = board.Get("k", s) ? std::to_string(s) : s == 999 ? "-" : "changed";
    std::string asBool = board.Get("k", b) ? (b ? "true" : "false") : b ? "-" : "changed";
    EXPECT_EQ(std::make_tuple(board.GetInt("k", 9999), board.GetShort("k", 999), board.GetBool("k", true),
                              board.GetBool("k", false)), std::make_tuple(i, s, b, asBool == "true"));
    return asInt + " " + asShort + " " + asBool;
}

// Numbers scan like scanf's "%10d" and "%5d" (the sign counts, a short narrowed to 16 bits); words are exact.
TEST(Bbs, TypedGettersReadTheseValues)
{
    const std::pair<const char*, const char*> cases[] = {
        {"12abc", "12 12 -"}, {"  \t-42", "-42 -42 -"}, {"+7", "7 7 -"}, {"0x10", "0 0 -"}, {"01", "1 1 -"},
        {"123456", "123456 12345 -"}, {"99999", "99999 -31073 -"}, {"-2147483648", "-214748364 -2147 -"},
        {"12345678901", "1234567890 12345 -"}, {"4294967295", "- -22587 -"}, {"- 1", "- - -"}, {"+-1", "- - -"},
        {nullptr, "- - -"}, {"0", "0 0 false"}, {"no", "- - false"}, {"false", "- - false"}, {"off", "- - false"},
        {"1", "1 1 true"}, {"yes", "- - true"}, {"true", "- - true"}, {"on", "- - true"}, {"TRUE", "- - -"},
        {"", "- - -"}, {" on", "- - -"},
    };
    Bbs board("typed");
    for (auto [text, values] : cases) {
        Store(board, "k", text);
        EXPECT_EQ(Read(board), values) << (text ? text : "(absent)");
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
        Store(board, "l", c.text);
        std::list<std::string> pieces{"old"};
        EXPECT_EQ(board.Get("l", pieces, c.separator), c.text != nullptr) << (c.text ? c.text : "(absent)");
        EXPECT_EQ(pieces, c.pieces) << (c.text ? c.text : "(absent)");
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
