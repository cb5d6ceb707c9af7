#include <gtest/gtest.h>

#include <climits>

#include "Bbs.h"

namespace {

class BbsTest : public ::testing::Test {
protected:
    Bbs m_board{"test"};
};

TEST_F(BbsTest, NumbersScanLikeFixedWidthFields)
{
    struct Case {
        const char* text;
        bool isInt;
        int asInt;
        bool isShort;
        short asShort;
    } cases[] = {
        {"5", true, 5, true, 5},
        {"12abc", true, 12, true, 12},
        {"  \t-42", true, -42, true, -42},
        {"+7", true, 7, true, 7},
        {"123456", true, 123456, true, 12345},
        {"99999", true, 99999, true, -31073},  // narrowed to 16 bits
        {"-12345", true, -12345, true, -1234},  // the sign counts in the field
        {"2147483647", true, INT_MAX, true, 21474},
        {"-2147483648", true, -214748364, true, -2147},
        {"12345678901", true, 1234567890, true, 12345},
        {"4294967295", false, 0, true, -22587},  // ten characters, but not an int
        {"abc", false, 0, false, 0},
        {"", false, 0, false, 0},
        {"-", false, 0, false, 0},
        {"- 1", false, 0, false, 0},
        {"+-1", false, 0, false, 0},
        {"0x10", true, 0, true, 0},
    };
    for (const Case& c : cases) {
        m_board.Set("n", c.text);
        int i = 9999;
        short s = 999;
        EXPECT_EQ(m_board.Get("n", i), c.isInt) << c.text;
        EXPECT_EQ(i, c.isInt ? c.asInt : 9999) << c.text;
        EXPECT_EQ(m_board.Get("n", s), c.isShort) << c.text;
        EXPECT_EQ(s, c.isShort ? c.asShort : 999) << c.text;
        EXPECT_EQ(m_board.GetInt("n", -1), c.isInt ? c.asInt : -1) << c.text;
        EXPECT_EQ(m_board.GetShort("n", -1), c.isShort ? c.asShort : -1) << c.text;
    }
}

TEST_F(BbsTest, TruthWordsAreExactAndCaseSensitive)
{
    struct Case {
        const char* text;
        int truth;  // -1: not a truth word
    } cases[] = {{"0", 0},      {"no", 0},  {"false", 0}, {"off", 0},  {"1", 1},  {"yes", 1},
                 {"true", 1},   {"on", 1},  {"Off", -1},  {"TRUE", -1}, {"Yes", -1}, {"", -1},
                 {" on", -1},   {"on ", -1}, {"2", -1},   {"01", -1}};
    for (const Case& c : cases) {
        m_board.Set("k", c.text);
        for (bool preset : {false, true}) {
            bool value = preset;
            EXPECT_EQ(m_board.Get("k", value), c.truth >= 0) << c.text;
            EXPECT_EQ(value, c.truth >= 0 ? c.truth == 1 : preset) << c.text;
            EXPECT_EQ(m_board.GetBool("k", preset), c.truth >= 0 ? c.truth == 1 : preset) << c.text;
        }
    }
}

TEST_F(BbsTest, ListSplitAppendsWholeSeparatorPieces)
{
    struct Case {
        const char* text;
        const char* separator;
        std::list<std::string> pieces;  // after the preset "old"
    } cases[] = {
        {"a,,b,", ",", {"old", "a", "", "b"}},
        {"x, y, ", ", ", {"old", "x", "y"}},
        {"x,y, z", ", ", {"old", "x,y", "z"}},
        {"tail", ",", {"old", "tail"}},
        {",", ",", {"old", ""}},
        {",a", ",", {"old", "", "a"}},
        {"", ",", {"old"}},
        {"a::b", "::", {"old", "a", "b"}},
        {"a,b", "", {"old", "a,b"}},
        {"a,b", nullptr, {"old", "a,b"}},
    };
    for (const Case& c : cases) {
        m_board.Set("l", c.text);
        std::list<std::string> pieces{"old"};
        EXPECT_TRUE(m_board.Get("l", pieces, c.separator)) << c.text;
        EXPECT_EQ(pieces, c.pieces) << c.text;
    }
    std::list<std::string> pieces;
    m_board.Set("d", "p,q");
    EXPECT_TRUE(m_board.Get("d", pieces));
    EXPECT_EQ(pieces, (std::list<std::string>{"p", "q"}));
}

TEST_F(BbsTest, AbsentKeysLeaveOutputsAlone)
{
    std::string text = "keep";
    int i = 7;
    short s = 8;
    bool b = true;
    std::list<std::string> pieces{"keep"};
    EXPECT_FALSE(m_board.Get("none"));
    EXPECT_FALSE(m_board.Get("none", text));
    EXPECT_FALSE(m_board.Get("none", i));
    EXPECT_FALSE(m_board.Get("none", s));
    EXPECT_FALSE(m_board.Get("none", b));
    EXPECT_FALSE(m_board.Get("none", pieces, ","));
    EXPECT_EQ(text, "keep");
    EXPECT_EQ(i, 7);
    EXPECT_EQ(s, 8);
    EXPECT_TRUE(b);
    EXPECT_EQ(pieces, std::list<std::string>{"keep"});
    EXPECT_STREQ(m_board.GetStr("none", "dflt"), "dflt");
    EXPECT_EQ(m_board.GetStr("none", nullptr), nullptr);
}

TEST_F(BbsTest, SetReplacesRemoveErasesAndCopyIsWhole)
{
    m_board.Set("a", 5);
    EXPECT_STREQ(m_board.GetStr("a", "x"), "5");
    EXPECT_EQ(m_board.GetInt("a", 0), 5);
    m_board.Set("a", -17);
    m_board.Set("A", "upper");
    m_board.Set("b", "");
    std::string text;
    EXPECT_TRUE(m_board.Get("b", text));
    EXPECT_EQ(text, "");
    m_board.Remove("absent");
    m_board.Remove("b");
    EXPECT_FALSE(m_board.Get("b"));
    std::map<std::string, std::string> all{{"stale", "x"}};
    m_board.Get(all);
    EXPECT_EQ(all, (std::map<std::string, std::string>{{"A", "upper"}, {"a", "-17"}}));
}

TEST(BbsGlobal, IsOneBoardUntilFini)
{
    Bbs* first = Bbs::Global();
    EXPECT_EQ(Bbs::Global(), first);
    EXPECT_STREQ(first->Name(), "bbs");
    first->Set("k", "v");
    Bbs::Fini();
    Bbs::Fini();  // a second Fini finds nothing to delete
    Bbs* second = Bbs::Global();
    EXPECT_FALSE(second->Get("k"));
    Bbs::Fini();
}

TEST(BbsRegistry, BoardsAreListedWhileTheyLive)
{
    size_t before = ListedObj<Bbs>::m_objList.size();
    {
        Bbs board(nullptr);
        EXPECT_STREQ(board.Name(), "bbs");
        EXPECT_EQ(ListedObj<Bbs>::m_objList.size(), before + 1);
        EXPECT_EQ(ListedObj<Bbs>::m_objList.back(), &board);
    }
    EXPECT_EQ(ListedObj<Bbs>::m_objList.size(), before);
}

}  // namespace
