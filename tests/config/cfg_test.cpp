// The configuration file: where it is looked for, how lines are read and split.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <pxf/cfg.h>

#include "config_env.h"
#include "foundation/alloc.h"

namespace {

using pxf::test::ConfigHome;

std::vector<std::string> lex(std::string text, int max = 14) {
    std::vector<char> line(text.begin(), text.end());
    line.push_back('\0');
    char *tokens[40];
    int n = CFG_lex(max, line.data(), tokens);
    std::vector<std::string> out;
    for (int i = 0; i < n; ++i) out.emplace_back(tokens[i]);
    EXPECT_EQ(tokens[n], nullptr);
    return out;
}

std::vector<std::vector<std::string>> all_lines() {
    std::vector<std::vector<std::string>> out;
    while (CFG_LINE *line = CFG_info()) {
        std::vector<std::string> tokens;
        for (int i = 0; i < line->count; ++i) tokens.emplace_back(line->tokens[i]);
        EXPECT_EQ(line->tokens[line->count], nullptr);
        out.push_back(tokens);
    }
    return out;
}

using Lines = std::vector<std::vector<std::string>>;

TEST(ConfigLexer, WordsAndQuotes) {
    EXPECT_EQ(lex("  alpha\tbeta  "), (std::vector<std::string>{"alpha", "beta"}));
    EXPECT_EQ(lex("key \"two words\" 'single q' \x1b" "esc aped\x1b tail"),
              (std::vector<std::string>{"key", "two words", "single q", "esc aped", "tail"}));
    // Quotes inside a word belong to it; no escapes inside quotes.
    EXPECT_EQ(lex("it's \"a\\\" b"), (std::vector<std::string>{"it's", "a\\", "b"}));
    // An unterminated quote takes the rest of the line.
    EXPECT_EQ(lex("name \"rest of  line"), (std::vector<std::string>{"name", "rest of  line"}));
    EXPECT_EQ(lex("\"\""), (std::vector<std::string>{""}));
    // At most max + 1 tokens.
    EXPECT_EQ(lex("a b c d e f", 2), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(lex("a b", -1), (std::vector<std::string>{}));
}

TEST(ConfigFile, ReadsHomeFileLosingLastCharacterOfEachLine) {
    ConfigHome home("first line\n\n# comment\nlast\"x y\" z");
    ASSERT_EQ(CFG_init(nullptr), 0);
    EXPECT_EQ(std::string(cfg_filename), home.path());
    // The last line has no newline, so it loses the "z".
    EXPECT_EQ(all_lines(), (Lines{{"first", "line"}, {}, {"#", "comment"}, {"last\"x", "y\""}}));
}

TEST(ConfigFile, LongLinesArriveAsSeveralRecordsEachLosingOneCharacter) {
    std::string long_line(300, 'a');
    ConfigHome home(long_line + "\n");
    ASSERT_EQ(CFG_init(nullptr), 0);
    // 254 characters, then 46 and the newline: each record loses its last character.
    EXPECT_EQ(all_lines(), (Lines{{std::string(253, 'a')}, {std::string(46, 'a')}}));
}

TEST(ConfigFile, ManyTokensStayWithinTheRecord) {
    std::string line;
    for (int i = 0; i < 40; ++i) line += "t" + std::to_string(i) + " ";
    ConfigHome home(line + "\nnext\n");
    ASSERT_EQ(CFG_init(nullptr), 0);
    Lines lines = all_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].size(), static_cast<size_t>(CFG_MAX_TOKENS - 1));
    EXPECT_EQ(lines[0].back(), "t14");
    EXPECT_EQ(lines[1], (std::vector<std::string>{"next"}));
}

TEST(ConfigFile, ReadOnceUntilExit) {
    ConfigHome home("one\n");
    ASSERT_EQ(CFG_init(nullptr), 0);
    EXPECT_EQ(all_lines(), (Lines{{"one"}}));
    home.write("two\n");
    ASSERT_EQ(CFG_init(nullptr), 0);  // rewinds only
    EXPECT_EQ(all_lines(), (Lines{{"one"}}));
    EXPECT_EQ(CFG_exit(), 0);
    EXPECT_EQ(cfg_filename, nullptr);
    ASSERT_EQ(CFG_init(nullptr), 0);
    EXPECT_EQ(all_lines(), (Lines{{"two"}}));
}

TEST(ConfigFile, SearchFallsBackToRootThenInstallRoot) {
    pxf::test::TempDir root;
    std::string site = root.file("userconfig");
    ASSERT_EQ(std::system(("mkdir -p " + site).c_str()), 0);
    pxf::test::write_file(site + "/.pxfrc", "site\n");

    ConfigHome home;  // HOME without a file
    setenv("QV_ROOT", root.path().c_str(), 1);
    ASSERT_EQ(CFG_init(nullptr), 0);
    EXPECT_EQ(std::string(cfg_filename), site + "/.pxfrc");
    EXPECT_EQ(all_lines(), (Lines{{"site"}}));
    CFG_exit();

    unsetenv("HOME");
    unsetenv("QV_ROOT");
    EXPECT_EQ(CFG_init(nullptr), -1);
    EXPECT_EQ(std::string(cfg_filename), PXF_INSTALL_ROOT "//userconfig/.pxfrc");
    EXPECT_EQ(CFG_info(), nullptr);
    EXPECT_EQ(CFG_init(nullptr), 0);  // found nothing, but it did look
}

TEST(ConfigFile, OutOfMemoryDiscardsEverything) {
    ConfigHome home("a\nb c\nd\n");
    pxf::test::ReportCapture reports;
    pxf::test::for_each_allocation_failure(
        [] {
            bool ok = CFG_init(nullptr) == 0;
            if (ok) CFG_exit();
            return ok;
        },
        [&](int) {
            EXPECT_TRUE(reports.saw("No more internal memory"));
            EXPECT_EQ(CFG_info(), nullptr);
            reports.clear();
        });
}

}  // namespace
