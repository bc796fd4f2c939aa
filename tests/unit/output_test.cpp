// Text of others on a terminal.
#include "tools/common/output.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

TEST(Output, NothingThatATerminalActsOnGetsThrough) {
    const std::tuple<const char*, std::string, const char*> rows[] = {
        {"plain", "Release 5.3.0 ~", "Release 5.3.0 ~"},
        {"escape sequence", "\x1B[2J", "\\x1B[2J"},
        {"line ends and tab", "a\r\nb\tc", "a\\x0D\\x0Ab\\x09c"},
        {"NUL and DEL", std::string("\0\x7F", 2), "\\x00\\x7F"},
        {"CSI as one byte", "\x9Bm", "\\x9Bm"},
        {"CSI in UTF-8", "\xC2\x9Bm", "\\xC2\\x9Bm"},
        {"first after the controls", "\xC2\xA0", "\xC2\xA0"},
        {"slash in two bytes", "\xC0\xAF", "\\xC0\\xAF"},
        {"escape in three bytes", "\xE0\x80\x9B", "\\xE0\\x80\\x9B"},
        {"half of a pair", "\xED\xA0\x80", "\\xED\\xA0\\x80"},
        {"past the last character", "\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
        {"cut at the end", "a\xE2\x82", "a\\xE2\\x82"},
        {"cut by another", "\xE2\x82z", "\\xE2\\x82z"},
        {"umlaut, euro, emoji", "\u00E4\u20AC\U0001F600", "\u00E4\u20AC\U0001F600"},
        {"what looks escaped", "\\x1B", "\\\\x1B"},
    };
    for (const auto& [name, text, expected] : rows) EXPECT_EQ(escaped(text), expected) << name;
    const char field[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(field_text(field), "abcd");
}

TEST(Output, TablesLineUpByCharacters) {
    output_table table = {{"ID", "NAME", "NOTE"}, {}};
    table.rows = {{"1", "\u00E4\u00F6", "x"}, {"22", "a\nb", ""}, {"3", std::string(60, 'n'), "y"}};
    char text[512] = {};
    FILE* const stream = fmemopen(text, sizeof text, "w");
    print_table(stream, table);
    fclose(stream);
    const std::string gap(36, ' ');
    EXPECT_EQ(text, "ID  NAME  " + gap + "NOTE\n1   \u00E4\u00F6    " + gap + "x\n22  a\\x0Ab" + gap +
                        "-\n3   " + std::string(60, 'n') + "  y\n");
}

}  // namespace
