#include "zandor/performance/terminal_text.hpp"

#include <gtest/gtest.h>

namespace instrument::detail {
namespace {

TEST(TerminalText, KeepsWhatIsOnlyShown) {
    for (const char* text :
         {"", "solve", "größe [n=3]", "\u65e5\u672c", "\u00a0", "\u2029", "\u2065"})
        EXPECT_EQ(withoutControls(text), text);
}

TEST(TerminalText, ReplacesWhatATerminalObeys) {
    EXPECT_EQ(withoutControls("a\x1b[2Jb\ac\x7f"), "a?[2Jb?c?");
    EXPECT_EQ(withoutControls(std::string_view("\0\n", 2)), "??");
    EXPECT_EQ(withoutControls("\u0080\u009b\u009f"), "???");
    EXPECT_EQ(withoutControls("\u202a\u202e\u2066\u2069"), "????");
}

TEST(TerminalText, TakesTextsThatEndInTheMiddleOfACharacter) {
    EXPECT_EQ(withoutControls("a\xc2"), "a\xc2");
    EXPECT_EQ(withoutControls("\xe2\x80"), "\xe2\x80");
}

}  // namespace
}  // namespace instrument::detail
