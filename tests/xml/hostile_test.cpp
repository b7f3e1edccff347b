// tests/xml/hostile_test.cpp - hostile input to the parser. Every input must
// end in an error message or a defined tree, never in a crash, a hang or
// unbounded memory. Buffers are exact-size heap blocks without a terminating
// NUL (Parsed), so that AddressSanitizer and valgrind see any access past
// their end.
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

constexpr size_t kBound = 64u << 20;  // far above any text these inputs may fairly produce

std::string utf16le(std::u16string_view text) {
    std::string out = "\xFF\xFE";
    for (char16_t unit : text)
        out += std::string{static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
    return out;
}

TEST(XmlHostile, CharacterReferencesOutOfRangeGiveADefinedTree) {
    // Zero-valued references stay as written.
    for (const char *ref : {"&#0;", "&#x0;", "&#00;", "&#x00;", "&#;", "&#x;", "&#0"}) {
        Parsed p("<r a=\"" + std::string(ref) + "\">" + ref + "</r>");
        ASSERT_EQ(p.error(), "") << ref;
        EXPECT_STREQ(p.root()->txt, ref);
        EXPECT_STREQ(ezxml_attr(p.root(), "a"), ref);
    }
    Parsed max("<r>&#x7FFFFFFF;</r>");
    EXPECT_STREQ(max.root()->txt, "\xFD\xBF\xBF\xBF\xBF\xBF");  // six bytes from 31 bits
    for (const char *ref : {"&#99999999999;", "&#xFFFFFFFFFFFFFFFF;", "&#18446744073709551616;",
                            "&#-1;", "&#x-41;", "&#x110000;", "&#xD800;", "&#xDFFF;"}) {
        Parsed p("<r a=\"" + std::string(ref) + "\">" + ref + "</r>");
        ASSERT_EQ(p.error(), "") << ref;
        EXPECT_GT(std::strlen(p.root()->txt), 0u);
        EXPECT_LE(std::strlen(p.root()->txt), 32u);
    }
}

TEST(XmlHostile, TruncatedInputEndsInAnError) {
    // A byte order mark with nothing (or an odd byte, or a lone surrogate)
    // after it; a UTF-8 mark is text, not markup.
    for (const std::string &input :
         {std::string("\xFF\xFE"), std::string("\xFE\xFF"), std::string("\xFF\xFE<"),
          std::string("\xFE\xFF\x00", 3), std::string("\xFF\xFE\x3C\x00\x00\xD8", 6),
          std::string("\xEF\xBB\xBF"), std::string("\xFF"), std::string("\xFE")})
        EXPECT_NE(Parsed(input).error(), "") << testing::PrintToString(input);
    for (const char *doc :
         {"<!DOCTYPE r [>", "<!DOCTYPE r [<!ENTITY a 'x'>", "<!DOCTYPE r [<!ATTLIST r a CDATA 'x'>",
          "<!DOCTYPE r [<!-- ] -->", "<!DOCTYPE r [<!ENTITY a 'x'>]"})
        EXPECT_EQ(Parsed(doc).error(), "[error near line 1]: unclosed <!DOCTYPE") << doc;
    Parsed empty("");
    EXPECT_EQ(empty.error(), "[error near line 1]: root tag missing");

    // Every truncation of a rich document ends in an error, the whole in none.
    const std::string rich =
        "<?xml version=\"1.0\"?>\n"
        "<!DOCTYPE r [<!ENTITY e \"long &#x20AC; value\"><!ENTITY % p \"pp\"><!ENTITY f "
        "\"%p;&e;\"><!ATTLIST r t NMTOKENS #IMPLIED d CDATA 'v&lt;'>]>\n<?pi before?><!-- n -->\n"
        "<r t=' a  b ' q=\"&lt;&e;&#65;\">text &amp; &f; &#x1F600;<![CDATA[<raw>]]>"
        "<c k='1'/>\r\n<c>x</c><?pi in?></r>";
    for (size_t n = 0; n <= rich.size(); ++n)
        EXPECT_EQ(Parsed(rich.substr(0, n)).error().empty(), n == rich.size()) << n;
    const std::string wide = utf16le(u"<r a=\"\u00E9\">x\U0001F600<c/>&#65;</r>");
    for (size_t n = 0; n <= wide.size(); ++n) {
        Parsed p(wide.substr(0, n));
        if (n + 1 < wide.size() || n == wide.size()) {
            EXPECT_EQ(p.error().empty(), n == wide.size()) << n;
        }
    }

    // Allocation failures end in NULL or an error, for each of these inputs.
    std::string entities = "<!DOCTYPE r [<!ENTITY a;b \"odd\"><!ENTITY % p \"P\">";
    for (int i = 0; i < 12; ++i)
        entities += "<!ENTITY e" + std::to_string(i) + " \"&e" + std::to_string(i + 1) +
                    ";%p;\"><!ENTITY % q" + std::to_string(i) + " \"%p;\">";
    entities += "<!ENTITY e12 \"end\">]><r>&e0;&a;b;</r>";
    for (const std::string &doc : {rich, utf16le(u"<r a=\"&lt;\">x<c/>y</r>\n"), entities})
        EXPECT_GT(sweep_allocations([&] {
                      Parsed p(doc);
                      return p.root() != nullptr && p.error().empty();
                  }),
                  3u);
}

// Twelve levels of entities, each naming the one below sixteen times: 16^13
// bytes if expanded in full.
std::string entity_bomb(bool parameter) {
    const std::string decl = parameter ? "<!ENTITY % l" : "<!ENTITY l";
    const std::string ref = parameter ? "%l" : "&l";
    std::string doc = "<!DOCTYPE r [\n" + decl + "0 \"" + std::string(16, 'x') + "\">\n";
    for (int level = 1; level <= 12; ++level) {
        doc += decl + std::to_string(level) + " \"";
        for (int k = 0; k < 16; ++k)
            doc += ref + std::to_string(level - 1) + ";";
        doc += "\">\n";
    }
    if (parameter)
        doc += "<!ENTITY l12 \"%l12;\">\n";
    return doc + "]>\n<r a=\"&l12;\">&l12;</r>\n";
}

TEST(XmlHostile, EntityExpansionIsBoundedAndCircularEntitiesAreErrors) {
    for (bool parameter : {false, true}) {
        Parsed p(entity_bomb(parameter));
        ASSERT_NE(p.root(), nullptr);
        if (p.error().empty()) {
            EXPECT_LT(std::strlen(p.root()->txt), kBound);
            const char *a = ezxml_attr(p.root(), "a");
            EXPECT_LT(a == nullptr ? 0 : std::strlen(a), kBound);
        }
    }
    // A general entity that refers back to itself is an error; parameter
    // entities are circular the same way.
    for (const char *doc : {
             "<!DOCTYPE r [<!ENTITY a \"x&a;\">]><r>&a;</r>",
             "<!DOCTYPE r [<!ENTITY a \"&b;\"><!ENTITY b \"&a;\">]><r>&a;&b;</r>",
             "<!DOCTYPE r [<!ENTITY a \"&b;\"><!ENTITY b \"&c;\"><!ENTITY c \"[&a;]\">]>"
             "<r a=\"&a;\">&c;</r>",
             "<!DOCTYPE r [<!ENTITY % p \"%p;\"><!ENTITY g \"%p;\">]><r>&g;</r>",
             "<!DOCTYPE r [<!ENTITY % a \"%b;\"><!ENTITY % b \"x%a;\"><!ENTITY g \"%a;%b;\">]>"
             "<r>&g;</r>",
         })
        EXPECT_EQ(
            Parsed(doc).error().rfind("[error near line 1]: circular entity declaration &", 0), 0u)
            << doc;
    Parsed unfinished("<!DOCTYPE r [<!ENTITY a \"&a\"><!ENTITY b \"&b &b\">]><r>&a;&b;</r>");
    EXPECT_LT(std::strlen(unfinished.root()->txt), kBound);

    // Chains of declarations, referring forwards and backwards: each costs
    // its own allocations (name and value), and the lists grow by doubling.
    constexpr int kCount = 5000;
    std::string doc = "<!DOCTYPE r [<!ENTITY a;b \"odd\"><!ENTITY % p \"P\"><!ENTITY b0 \"x\">";
    for (int i = 0; i < kCount; ++i)
        doc += "<!ENTITY e" + std::to_string(i) + " \"&e" + std::to_string(i + 1) +
               ";%p;\"><!ENTITY % q" + std::to_string(i) + " \"%p;\"><!ENTITY b" +
               std::to_string(i + 1) + " \"&b" + std::to_string(i) + ";\">";
    qorcfg::os::count_calls(true);
    Parsed p(doc + "<!ENTITY e5000 \"end\">]><r>&e0;&a;b;</r>");
    const unsigned allocations = qorcfg::os::calls(Call::alloc);
    qorcfg::os::count_calls(false);
    ASSERT_EQ(p.error(), "");
    EXPECT_EQ(p.root()->txt, "end" + std::string(kCount, 'P') + "odd");
    EXPECT_LT(allocations, 3u * 3 * kCount);
}

TEST(XmlHostile, DeepNestingAndThousandsOfChildrenAndAttributes) {
    constexpr size_t kDepth = 100000;
    std::string open, close;
    for (size_t i = 0; i < kDepth; ++i)
        open += "<a>", close += "</a>";
    {
        const std::string doc = open + "x" + close;
        Parsed p(doc + "\n");
        ASSERT_EQ(p.error(), "");
        size_t depth = 1;
        const ezxml_node *n = p.root();
        for (; n->child != nullptr; n = n->child)
            ++depth;
        EXPECT_EQ(depth, kDepth);
        EXPECT_STREQ(n->txt, "x");
        EXPECT_TRUE(xml_of(p.root()) == doc);
    }
    EXPECT_EQ(Parsed(open + "x").error(), "[error near line 1]: unclosed tag <a>");

    constexpr int kChildren = 5000, kAttrs = 2000;
    std::string doc = "<r>", tag = "<r";
    for (int i = 0; i < kChildren; ++i) {
        const std::string name = i % 2 == 0 ? "a" : "b";
        doc += "<" + name + ">" + std::to_string(i) + "</" + name + ">";
    }
    doc += "</r>";
    for (int i = 0; i < kAttrs; ++i)
        tag += " a" + std::to_string(i) + "=\"" + std::to_string(i) + "\"";
    tag += "></r>";
    Parsed children(doc + "\n");
    ASSERT_EQ(children.error(), "");
    ezxml_node *a = ezxml_child(children.root(), "a");
    EXPECT_EQ(std::string(ezxml_idx(a, kChildren / 2 - 1)->txt), std::to_string(kChildren - 2));
    EXPECT_EQ(ezxml_idx(a, kChildren / 2), nullptr);
    EXPECT_TRUE(xml_of(children.root()) == doc);
    Parsed attributes(tag);
    ASSERT_EQ(attributes.error(), "");
    EXPECT_STREQ(ezxml_attr(attributes.root(), "a1999"), "1999");
    EXPECT_EQ(std::strlen(attributes.root()->attr[2 * kAttrs + 1]), static_cast<size_t>(kAttrs));
    EXPECT_TRUE(xml_of(attributes.root()) == tag);
}

class XmlHostileFiles : public SandboxTest {};

TEST_F(XmlHostileFiles, EmptyFilesAndStreams) {
    char byte = '<';
    ezxml_node *root = ezxml_parse_str(&byte, 0);
    EXPECT_STREQ(ezxml_error(root), "[error near line 1]: root tag missing");
    ezxml_free(root);
    EXPECT_EQ(byte, '<');  // nothing before or at the start was written
    sandbox.write("/etc/empty.xml", "");
    const std::string host = sandbox.path("/etc/empty.xml");
    qorcfg::os::set_root("");  // host paths pass the seam unchanged
    ezxml_node *file = ezxml_parse_file(host.c_str());
    EXPECT_TRUE(file == nullptr || ezxml_error(file)[0] != '\0');
    ezxml_free(file);
    FILE *fp = std::fopen(host.c_str(), "r");
    ezxml_node *stream = ezxml_parse_fp(fp);
    EXPECT_STREQ(ezxml_error(stream), "[error near line 1]: root tag missing");
    ezxml_free(stream);
    std::fclose(fp);
}

}  // namespace
