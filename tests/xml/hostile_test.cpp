// tests/xml/hostile_test.cpp - hostile input to the parser. Every input must
// end in an error message or a defined tree, never in a crash, a hang or
// unbounded memory. Buffers are exact-size heap blocks without a terminating
// NUL (Parsed), so that AddressSanitizer and valgrind see any access past
// their end.
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

TEST(XmlHostile, ReferencesAndEntitiesEndInADefinedTreeOrAnError) {
    // Character references with no digits: as written; 31 bits: six bytes; a
    // number past 64 bits: a short text, not a wrapped-around character.
    Parsed refs("<r a=\"&#x;\">&#;&#x7FFFFFFF;|&#18446744073709551681;</r>");
    ASSERT_EQ(refs.error(), "");
    EXPECT_STREQ(ezxml_attr(refs.root(), "a"), "&#x;");
    const std::string txt = refs.root()->txt;
    EXPECT_EQ(txt.substr(0, 10), "&#;\xFD\xBF\xBF\xBF\xBF\xBF|");
    EXPECT_TRUE(txt.size() > 10 && txt.size() <= 10 + 24 && txt[10] != 'A') << txt;

    // Twelve levels of general or parameter entities, each naming the one
    // below sixteen times: 16^13 bytes if expanded in full. The tree, with or
    // without an error, stays far below any text these inputs may fairly
    // produce.
    for (const bool parameter : {false, true}) {
        const std::string decl = parameter ? "<!ENTITY % l" : "<!ENTITY l";
        const std::string ref = parameter ? "%l" : "&l";
        std::string doc = "<!DOCTYPE r [\n" + decl + "0 \"" + std::string(16, 'x') + "\">\n";
        for (int level = 1; level <= 12; ++level) {
            doc += decl + std::to_string(level) + " \"";
            for (int k = 0; k < 16; ++k)
                doc += ref + std::to_string(level - 1) + ";";
            doc += "\">\n";
        }
        Parsed bomb(doc + (parameter ? "<!ENTITY l12 \"%l12;\">\n" : "") +
                    "]>\n<r a=\"&l12;\">&l12;</r>\n");
        EXPECT_LT(xml_of(bomb.root()).size(), 64u << 20) << parameter;
    }
    // General entities that refer back to themselves, directly or through
    // others, are an error (the entity's name may be reported with or
    // without its stored ';'); parameter entities are circular the same way.
    // A reference without its ';' is no reference.
    for (const char *doc : {
             "<!DOCTYPE r [\n<!ENTITY a 'x&a;y'>]><r/>",
             "<!DOCTYPE r [\n<!ENTITY a \"&b;\"><!ENTITY b \"&c;\"><!ENTITY c \"[&a;]\">]>"
             "<r a=\"&a;\">&c;</r>",
             "<!DOCTYPE r [\n<!ENTITY % a \"%b;\"><!ENTITY % b \"x%a;\"><!ENTITY g \"%a;%b;\">]>"
             "<r>&g;</r>",
         })
        EXPECT_EQ(
            Parsed(doc).error().rfind("[error near line 2]: circular entity declaration &", 0), 0u)
            << doc;
    Parsed unfinished("<!DOCTYPE r [<!ENTITY a \"&a\"><!ENTITY b \"&b &b\">]><r>&a;&b;</r>");
    EXPECT_STREQ(unfinished.root()->txt, "&a&b &b");

    // Chains of declarations, referring forwards and backwards: each costs
    // its own allocations (name and value), and the lists grow by doubling.
    // In the long (hashed) list the first declaration of a name still wins,
    // the predefined ones first, and names holding a ';' match where a
    // reference has them.
    constexpr int kCount = 5000;
    std::string doc =
        "<!DOCTYPE r [<!ENTITY lt \"X\"><!ENTITY a;b \"odd\"><!ENTITY % p \"P\">"
        "<!ENTITY b0 \"x\"><!ENTITY b0 \"y\">";
    for (int i = 0; i < kCount; ++i)
        doc += "<!ENTITY e" + std::to_string(i) + " \"&e" + std::to_string(i + 1) +
               ";%p;\"><!ENTITY % q" + std::to_string(i) + " \"%p;\"><!ENTITY b" +
               std::to_string(i + 1) + " \"&b" + std::to_string(i) + ";\">";
    qorcfg::os::count_calls(true);
    Parsed p(doc + "<!ENTITY e5000 \"end\">]><r>&e0;&a;b;&lt;&b5000;</r>");
    const unsigned allocations = qorcfg::os::calls(Call::alloc);
    qorcfg::os::count_calls(false);
    ASSERT_EQ(p.error(), "");
    EXPECT_EQ(p.root()->txt, "end" + std::string(kCount, 'P') + "odd<x");
    EXPECT_LT(allocations, 3u * 3 * kCount);
}

TEST(XmlHostile, TruncatedInputEndsInAnError) {
    // A byte order mark with nothing after it (the UTF-8 mark, which is text,
    // not markup, begins the rich document below).
    EXPECT_NE(Parsed("\xFE\xFF").error(), "");
    // Nothing at all: an error, and nothing before or at the start is written.
    char byte = '<';
    EXPECT_STREQ(ezxml_error(own(ezxml_parse_str(&byte, 0)).get()),
                 "[error near line 1]: root tag missing");
    EXPECT_EQ(byte, '<');

    // Every truncation of a rich document ends in an error, the whole in
    // none; in UTF-16 too (a cut inside the surrogate pair leaves half a
    // character).
    std::string rich =
        "\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!DOCTYPE r [<!ENTITY a;b \"odd\">"
        "<!ENTITY % p \"P\"><!ENTITY e \"long &#x20AC; value\"><!ENTITY f \"%p;&e;\">"
        "<!ATTLIST r t NMTOKENS #IMPLIED d CDATA 'v&lt;'>";
    for (int i = 0; i < 12; ++i)  // enough names for the entity lists to grow
        rich += "<!ENTITY e" + std::to_string(i) + " \"&e" + std::to_string(i + 1) +
                ";%p;\"><!ENTITY % q" + std::to_string(i) + " \"%p;\">";
    rich +=
        "<!ENTITY e12 \"end\">]>\n<?pi before?><!-- n -->\n"
        "<r t=' a  b ' q=\"&lt;&e;&#65;\">text &amp; &f; &#x1F600;<![CDATA[<raw>]]>"
        "<c k='1'/>\r\n<c>x</c>&e0;&a;b;<?pi in?></r>";
    for (size_t n = 0; n <= rich.size(); ++n)
        EXPECT_EQ(Parsed(rich.substr(0, n)).error().empty(), n == rich.size()) << n;
    std::string wide = "\xFF\xFE";  // UTF-16, little-endian
    for (char16_t unit : std::u16string_view(
             u"<!DOCTYPE r [<!ENTITY e \"longer\">]><r a=\"\u00E9\">&e;x\U0001F600<c/>&#65;</r>"))
        wide += std::string{static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
    for (size_t n = 0; n + 1 < wide.size(); ++n)  // (a final odd byte is ignored)
        EXPECT_NE(Parsed(wide.substr(0, n)).error(), "") << n;
    EXPECT_EQ(Parsed(wide).error(), "");

    // Allocation failures end in NULL or an error.
    for (const std::string &doc : {rich, wide})
        EXPECT_GT(sweep_allocations([&] {
                      Parsed p(doc);
                      return p.root() && p.error().empty();
                  }),
                  3u);
}

TEST(XmlHostile, DeepNestingAndThousandsOfChildren) {
    constexpr size_t kDepth = 100000;
    std::string open, close;
    for (size_t i = 0; i < kDepth; ++i)
        open += "<a>", close += "</a>";
    const std::string deep = open + "x" + close;
    // The tree written back is the input: every level and the innermost text.
    Parsed p(deep + "\n");
    ASSERT_EQ(p.error(), "");
    EXPECT_TRUE(xml_of(p.root()) == deep);
    EXPECT_EQ(Parsed(open + "x").error(), "[error near line 1]: unclosed tag <a>");

    constexpr int kChildren = 5000;
    std::string doc = "<r>";
    for (int i = 0; i < kChildren; ++i)
        doc += (i % 2 == 0 ? "<a>" : "<b>") + std::to_string(i) + (i % 2 == 0 ? "</a>" : "</b>");
    Parsed children((doc += "</r>") + "\n");
    ASSERT_EQ(children.error(), "");
    ezxml_node *a = ezxml_child(children.root(), "a");
    EXPECT_EQ(std::string(ezxml_idx(a, kChildren / 2 - 1)->txt), std::to_string(kChildren - 2));
    EXPECT_EQ(ezxml_idx(a, kChildren / 2), nullptr);
    EXPECT_TRUE(xml_of(children.root()) == doc);
}

}  // namespace
