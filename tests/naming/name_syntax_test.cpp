// Parsing and checking name syntaxes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <pxf/err.h>
#include <pxf/pxf.h>

#include "foundation/alloc.h"
#include "support/test_support.h"

namespace {

struct Tok {
    int kind;
    std::string text;
    bool operator==(const Tok &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Tok &t) { return os << t.kind << ":'" << t.text << "'"; }

std::vector<Tok> parse(const char *pattern) {
    PXF_NS_TOKEN *tokens = nullptr;
    std::vector<Tok> out;
    if (!PXF_parse_name_syntax(pattern, &tokens, 0)) return out;
    for (PXF_NS_TOKEN *t = tokens;; ++t) {
        out.push_back({t->kind, t->kind ? std::string(t->syntax_text, t->syntax_length) : ""});
        EXPECT_EQ(t->field, 0);
        EXPECT_EQ(t->matched_text, nullptr);
        if (t->kind == PXF_NS_END) {
            EXPECT_EQ(t->syntax_length, 1);
            break;
        }
    }
    ERR_free(tokens);
    return out;
}

TEST(NameSyntax, ParsesIntoTokensWhateverTheCase) {
    std::vector<Tok> expected{{PXF_NS_NAME, "name"}, {PXF_NS_SEPARATOR, "."}, {PXF_NS_FRAME, "####"},
                              {PXF_NS_SEPARATOR, "."}, {PXF_NS_EXT, "ext"}, {PXF_NS_END, ""}};
    EXPECT_EQ(parse("Name.####.Ext"), expected);
    EXPECT_EQ(parse("name.####.ext"), expected);
    EXPECT_EQ(parse("NameName_-##"), (std::vector<Tok>{{PXF_NS_NAME, "namename"},
                                                       {PXF_NS_SEPARATOR, "_-"},
                                                       {PXF_NS_FRAME, "##"},
                                                       {PXF_NS_END, ""}}));
    EXPECT_EQ(parse("####.ext"), (std::vector<Tok>{{PXF_NS_FRAME, "####"}, {PXF_NS_SEPARATOR, "."},
                                                   {PXF_NS_EXT, "ext"}, {PXF_NS_END, ""}}));
}

TEST(NameSyntax, MalformedPatternsAreRefused) {
    for (const char *bad : {"name.##.##", "name/####.ext", "name.ext.ext", "name.0000.ext", ".ext", "",
                            "name .ext", "name.\xc3\xa9xt", "nam.####", "frame.####"}) {
        pxf__err = 0;
        EXPECT_TRUE(parse(bad).empty()) << bad;
        EXPECT_EQ(pxf__err, -11) << bad;
        EXPECT_EQ(PXF_name_syntax_verify(bad), 0) << bad;
        EXPECT_EQ(pxf__err, *bad ? -11 : -13) << bad;
    }
    EXPECT_EQ(PXF_name_syntax_verify(nullptr), 0);
    EXPECT_EQ(pxf__err, -13);
}

TEST(NameSyntax, VerifyAndPredicates) {
    for (const char *good : {"Name.####.Ext", "####.ext", "name", "NAME_##", "name.ext"})
        EXPECT_EQ(PXF_name_syntax_verify(good), 1) << good;
    EXPECT_EQ(PXF_name_syntax_has_ext("Name.####.Ext"), 1);
    EXPECT_EQ(PXF_name_syntax_has_ext("Name.####"), 0);
    pxf__err = 0;
    EXPECT_EQ(PXF_name_syntax_has_ext(nullptr), 0);
    EXPECT_EQ(pxf__err, 0);
    EXPECT_EQ(PXF_name_syntax_has_ext(""), 0);
    EXPECT_EQ(pxf__err, -13);
    EXPECT_EQ(PXF_name_syntax_has_ext("name.#.#.ext"), 0);
    EXPECT_EQ(pxf__err, -11);

    EXPECT_EQ(PXF_name_syntax_ends_ext("name.####.EXT"), 1);
    EXPECT_EQ(PXF_name_syntax_ends_ext("ext.####.name"), 0);
    EXPECT_EQ(PXF_name_syntax_ends_ext("xt"), 0);
    EXPECT_EQ(PXF_name_syntax_ends_ext(nullptr), 0);
    EXPECT_EQ(PXF_name_syntax_has_frame("name.#.ext"), 1);
    EXPECT_EQ(PXF_name_syntax_has_frame("name.ext"), 0);
    EXPECT_STREQ(PXF_name_syntax_name(), "name");
}

TEST(NameSyntax, ScratchBufferGrowsForLongPatternsAndSurvivesFailure) {
    std::string longer = "name";
    for (int i = 0; i < 200; ++i) longer += "-name";
    std::vector<Tok> tokens = parse(longer.c_str());
    ASSERT_EQ(tokens.size(), 402u);
    EXPECT_EQ(tokens[400], (Tok{PXF_NS_NAME, "name"}));

    std::string huge = "name.####.ext" + std::string(5000, '_') + "name";
    pxf::fault::arm(1);
    PXF_NS_TOKEN *t = nullptr;
    EXPECT_EQ(PXF_parse_name_syntax(huge.c_str(), &t, 0), 0);
    pxf::fault::disarm();
    EXPECT_EQ(pxf__err, -10);
    EXPECT_EQ(parse("Name.####.Ext").size(), 6u);  // the old buffer is still usable

    pxf::test::for_each_allocation_failure([&] {
        PXF_NS_TOKEN *tokens = nullptr;
        if (!PXF_parse_name_syntax(huge.c_str(), &tokens, 0)) {
            EXPECT_EQ(pxf__err, -10);
            return false;
        }
        ERR_free(tokens);
        return true;
    });
}

}  // namespace
