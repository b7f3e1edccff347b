// tests/xml/hostile_test.cpp - hostile input to the parser. Every input must
// end in an error message or a defined tree, never in a crash, a hang or
// unbounded memory. Buffers are exact-size heap blocks without a terminating
// NUL, so that AddressSanitizer and valgrind see any access past their end.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "os/os.h"
#include "qorcfg.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::os::Call;

constexpr size_t kBound = 64u << 20;  // far above any text these inputs may fairly produce

// A heap copy of exactly `size` bytes (one for an empty text), so that the
// sanitizers see any read past the input. Kept out of line: inlined into
// string-building callers, gcc's size analysis reports a false overflow.
[[gnu::noinline]] char *exact_copy(const char *data, size_t size) {
    auto *buf = static_cast<char *>(std::malloc(size == 0 ? 1 : size));
    if (size != 0)
        std::memcpy(buf, data, size);
    return buf;
}

// `text` parsed in place from a heap block of exactly its size.
class ParsedExact {
public:
    explicit ParsedExact(const std::string &text)
        : size_(text.size()), buf_(exact_copy(text.data(), text.size())) {
        root_ = ezxml_parse_str(buf_, size_);
    }
    ~ParsedExact() {
        ezxml_free(root_);
        std::free(buf_);
    }
    ParsedExact(const ParsedExact &) = delete;
    ParsedExact &operator=(const ParsedExact &) = delete;

    ezxml_node *root() const { return root_; }
    std::string error() const { return ezxml_error(root_); }
    char *buffer() const { return buf_; }

private:
    size_t size_;
    char *buf_;
    ezxml_node *root_ = nullptr;
};

std::string utf16le(std::u16string_view text) {
    std::string out = "\xFF\xFE";
    for (char16_t unit : text) {
        out += static_cast<char>(unit & 0xFF);
        out += static_cast<char>(unit >> 8);
    }
    return out;
}

TEST(XmlHostile, ZeroValuedCharacterReferencesStayAsWritten) {
    for (const char *ref : {"&#0;", "&#x0;", "&#00;", "&#x00;", "&#;", "&#x;", "&#0"}) {
        SCOPED_TRACE(ref);
        ParsedExact p("<r a=\"" + std::string(ref) + "\">" + ref + "</r>");
        ASSERT_NE(p.root(), nullptr);
        ASSERT_EQ(p.error(), "");
        EXPECT_STREQ(p.root()->txt, ref);
        EXPECT_STREQ(ezxml_attr(p.root(), "a"), ref);
    }
}

TEST(XmlHostile, HugeCodePointsGiveADefinedTree) {
    ParsedExact max("<r>&#x7FFFFFFF;</r>");
    ASSERT_EQ(max.error(), "");
    EXPECT_STREQ(max.root()->txt, "\xFD\xBF\xBF\xBF\xBF\xBF");  // six bytes from 31 bits

    for (const char *ref : {"&#99999999999;", "&#xFFFFFFFFFFFFFFFF;", "&#18446744073709551616;",
                            "&#-1;", "&#x-41;", "&#x110000;", "&#xD800;", "&#xDFFF;"}) {
        SCOPED_TRACE(ref);
        ParsedExact p("<r a=\"" + std::string(ref) + "\">" + ref + "</r>");
        ASSERT_NE(p.root(), nullptr);
        EXPECT_EQ(p.error(), "");
        EXPECT_GT(std::strlen(p.root()->txt), 0u);
        EXPECT_LE(std::strlen(p.root()->txt), 32u);
    }
}

TEST(XmlHostile, ByteOrderMarkWithNothingAfterIt) {
    const std::string inputs[] = {
        "\xFF\xFE",
        "\xFE\xFF",
        "\xFF\xFE<",  // an odd byte after the mark
        std::string("\xFE\xFF\x00", 3),
        std::string("\xFF\xFE\x3C\x00\x00\xD8", 6),  // a lone high surrogate at the end
        "\xEF\xBB\xBF",                              // a UTF-8 mark is text, not markup
        "\xFF",
        "\xFE",
    };
    for (const std::string &input : inputs) {
        SCOPED_TRACE(testing::PrintToString(input));
        ParsedExact p(input);
        ASSERT_NE(p.root(), nullptr);
        EXPECT_NE(p.error(), "");
    }
}

TEST(XmlHostile, UnclosedDoctypeAtTheEndOfTheBuffer) {
    for (const char *doc :
         {"<!DOCTYPE r [>", "<!DOCTYPE r [<!ENTITY a 'x'>", "<!DOCTYPE r [<!ATTLIST r a CDATA 'x'>",
          "<!DOCTYPE r [<!-- ] -->", "<!DOCTYPE r [<!ENTITY a 'x'>]"}) {
        SCOPED_TRACE(doc);
        ParsedExact p(doc);
        ASSERT_NE(p.root(), nullptr);
        EXPECT_EQ(p.error(), "[error near line 1]: unclosed <!DOCTYPE");
    }
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

TEST(XmlHostile, NestedEntityExpansionIsBounded) {
    for (bool parameter : {false, true}) {
        SCOPED_TRACE(parameter ? "parameter entities" : "general entities");
        ParsedExact p(entity_bomb(parameter));
        ASSERT_NE(p.root(), nullptr);
        if (p.error().empty()) {
            EXPECT_LT(std::strlen(p.root()->txt), kBound);
            const char *a = ezxml_attr(p.root(), "a");
            if (a != nullptr) {
                EXPECT_LT(std::strlen(a), kBound);
            }
        }
    }
}

TEST(XmlHostile, CircularEntitiesEndInAnErrorOrABoundedTree) {
    const struct {
        const char *doc;
        bool error;  // a general entity that refers back to itself is an error
    } cases[] = {
        {"<!DOCTYPE r [<!ENTITY a \"x&a;\">]><r>&a;</r>", true},
        {"<!DOCTYPE r [<!ENTITY a \"&b;\"><!ENTITY b \"&a;\">]><r>&a;&b;</r>", true},
        {"<!DOCTYPE r [<!ENTITY a \"&b;\"><!ENTITY b \"&c;\"><!ENTITY c \"[&a;]\">]>"
         "<r a=\"&a;\">&c;</r>",
         true},
        // Parameter entities are circular the same way.
        {"<!DOCTYPE r [<!ENTITY % p \"%p;\"><!ENTITY g \"%p;\">]><r>&g;</r>", true},
        {"<!DOCTYPE r [<!ENTITY % a \"%b;\"><!ENTITY % b \"x%a;\"><!ENTITY g \"%a;%b;\">]>"
         "<r>&g;</r>",
         true},
        {"<!DOCTYPE r [<!ENTITY a \"&a\"><!ENTITY b \"&b &b\">]><r>&a;&b;</r>", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.doc);
        ParsedExact p(c.doc);
        ASSERT_NE(p.root(), nullptr);
        if (c.error) {
            EXPECT_EQ(p.error().rfind("[error near line 1]: circular entity declaration &", 0), 0u)
                << p.error();
        } else if (p.error().empty()) {
            EXPECT_LT(std::strlen(p.root()->txt), kBound);
        }
    }
}

TEST(XmlHostile, DeepNestingNeedsNoDeepStack) {
    constexpr size_t kDepth = 100000;
    std::string open, close;
    for (size_t i = 0; i < kDepth; ++i) {
        open += "<a>";
        close += "</a>";
    }
    {
        const std::string doc = open + "x" + close;
        ParsedExact p(doc + "\n");
        ASSERT_NE(p.root(), nullptr);
        ASSERT_EQ(p.error(), "");
        size_t depth = 1;
        const ezxml_node *n = p.root();
        for (; n->child != nullptr; n = n->child)
            ++depth;
        EXPECT_EQ(depth, kDepth);
        EXPECT_STREQ(n->txt, "x");
        char *text = ezxml_toxml(p.root());
        ASSERT_NE(text, nullptr);
        EXPECT_TRUE(text == doc);
        std::free(text);
    }
    ParsedExact unclosed(open + "x");
    ASSERT_NE(unclosed.root(), nullptr);
    EXPECT_EQ(unclosed.error(), "[error near line 1]: unclosed tag <a>");
}

TEST(XmlHostile, ThousandsOfChildrenAndAttributes) {
    constexpr int kChildren = 5000;
    std::string doc = "<r>";
    for (int i = 0; i < kChildren; ++i) {
        const char *name = i % 2 == 0 ? "a" : "b";
        doc += std::string("<") + name + ">" + std::to_string(i) + "</" + name + ">";
    }
    doc += "</r>";
    {
        ParsedExact p(doc + "\n");
        ASSERT_EQ(p.error(), "");
        ezxml_node *last_a = ezxml_idx(ezxml_child(p.root(), "a"), kChildren / 2 - 1);
        ASSERT_NE(last_a, nullptr);
        EXPECT_EQ(std::string(last_a->txt), std::to_string(kChildren - 2));
        EXPECT_EQ(ezxml_idx(ezxml_child(p.root(), "a"), kChildren / 2), nullptr);
        int count = 0;
        for (const ezxml_node *c = p.root()->child; c != nullptr && count <= kChildren;
             c = c->ordered)
            ++count;
        EXPECT_EQ(count, kChildren);
        char *text = ezxml_toxml(p.root());
        ASSERT_NE(text, nullptr);
        EXPECT_TRUE(text == doc);
        std::free(text);
    }

    constexpr int kAttrs = 2000;
    std::string tag = "<r";
    for (int i = 0; i < kAttrs; ++i)
        tag += " a" + std::to_string(i) + "=\"" + std::to_string(i) + "\"";
    tag += "></r>";
    ParsedExact p(tag);
    ASSERT_EQ(p.error(), "");
    EXPECT_STREQ(ezxml_attr(p.root(), "a1999"), "1999");
    ASSERT_EQ(p.root()->attr[2 * kAttrs], nullptr);
    EXPECT_EQ(std::strlen(p.root()->attr[2 * kAttrs + 1]), static_cast<size_t>(kAttrs));
    char *text = ezxml_toxml(p.root());
    ASSERT_NE(text, nullptr);
    EXPECT_TRUE(text == tag);
    std::free(text);
}

class XmlHostileFiles : public qorcfg::test::SandboxTest {};

TEST_F(XmlHostileFiles, EmptyInputs) {
    char byte = '<';
    ezxml_node *root = ezxml_parse_str(&byte, 0);
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(ezxml_error(root), "[error near line 1]: root tag missing");
    ezxml_free(root);
    EXPECT_EQ(byte, '<');  // nothing before or at the start was written

    sandbox.write("/etc/empty.xml", "");
    const std::string host = sandbox.path("/etc/empty.xml");
    qorcfg::os::set_root("");  // host paths pass the seam unchanged
    ezxml_node *file = ezxml_parse_file(host.c_str());
    if (file != nullptr) {
        EXPECT_STRNE(ezxml_error(file), "");
    }
    ezxml_free(file);

    FILE *fp = std::fopen(host.c_str(), "r");
    ASSERT_NE(fp, nullptr);
    ezxml_node *stream = ezxml_parse_fp(fp);
    ASSERT_NE(stream, nullptr);
    EXPECT_STREQ(ezxml_error(stream), "[error near line 1]: root tag missing");
    ezxml_free(stream);
    std::fclose(fp);
}

constexpr char kRich[] =
    "<?xml version=\"1.0\"?>\n"
    "<!DOCTYPE r [<!ENTITY e \"long &#x20AC; value\"><!ENTITY % p \"pp\"><!ENTITY f \"%p;&e;\">"
    "<!ATTLIST r t NMTOKENS #IMPLIED d CDATA 'v&lt;'>]>\n"
    "<?pi before?><!-- note -->\n"
    "<r t=' a  b ' q=\"&lt;&e;&#65;\">text &amp; &f; &#x1F600;<![CDATA[<raw>]]>"
    "<c k='1'/>\r\n<c>x</c><?pi in?></r>";

TEST(XmlHostile, EveryTruncationEndsInAnErrorOrTheTree) {
    const std::string doc = kRich;
    for (size_t n = 0; n <= doc.size(); ++n) {
        SCOPED_TRACE(doc.substr(0, n));
        ParsedExact p(doc.substr(0, n));
        ASSERT_NE(p.root(), nullptr);
        if (n < doc.size()) {
            EXPECT_NE(p.error(), "");
        } else {
            EXPECT_EQ(p.error(), "");
        }
    }

    const std::string wide = utf16le(u"<r a=\"\u00E9\">x\U0001F600<c/>&#65;</r>");
    for (size_t n = 0; n <= wide.size(); ++n) {
        SCOPED_TRACE(n);
        ParsedExact p(wide.substr(0, n));
        ASSERT_NE(p.root(), nullptr);
        if (n + 1 < wide.size()) {
            EXPECT_NE(p.error(), "");
        }
        if (n == wide.size()) {
            EXPECT_EQ(p.error(), "");
        }
    }
}

// Enough declarations for the entity lists to be indexed.
std::string many_entities(int count) {
    std::string doc = "<!DOCTYPE r [<!ENTITY a;b \"odd\"><!ENTITY % p \"P\">";
    for (int i = 0; i < count; ++i)
        doc += "<!ENTITY e" + std::to_string(i) + " \"&e" + std::to_string(i + 1) + ";%p;\">" +
               "<!ENTITY % q" + std::to_string(i) + " \"%p;\">";
    return doc + "<!ENTITY e" + std::to_string(count) + " \"end\">]><r>&e0;&a;b;</r>";
}

TEST(XmlHostile, ManyDeclarationsCostAConstantEach) {
    // Chains of declarations, referring forwards and backwards: each
    // declaration costs its own allocations (name and value), and the lists
    // grow by doubling, not one entry at a time.
    constexpr int kCount = 5000;
    std::string doc = many_entities(kCount);
    doc.insert(doc.find("]>"), "<!ENTITY b0 \"x\">");
    for (int i = 1; i < kCount; ++i)
        doc.insert(doc.find("]>"),
                   "<!ENTITY b" + std::to_string(i) + " \"&b" + std::to_string(i - 1) + ";\">");
    qorcfg::os::count_calls(true);
    ParsedExact p(doc);
    const unsigned allocations = qorcfg::os::calls(Call::alloc);
    qorcfg::os::count_calls(false);
    ASSERT_EQ(p.error(), "");
    EXPECT_EQ(p.root()->txt, "end" + std::string(kCount, 'P') + "odd");
    EXPECT_LT(allocations, 3u * 3 * kCount);
}

TEST(XmlHostile, AllocationFailuresEndInNullOrAnError) {
    for (const std::string &doc :
         {std::string(kRich), utf16le(u"<r a=\"&lt;\">x<c/>y</r>\n"), many_entities(12)}) {
        for (unsigned n = 1;; ++n) {
            ASSERT_LT(n, 100000u) << "the parse never stops allocating";
            SCOPED_TRACE(n);
            qorcfg::os::reset_faults();
            qorcfg::os::count_calls(true);
            qorcfg::os::fail_nth(Call::alloc, n, ENOMEM);
            ParsedExact p(doc);
            const bool reached = qorcfg::os::calls(Call::alloc) >= n;
            qorcfg::os::reset_faults();
            if (!reached) {
                ASSERT_NE(p.root(), nullptr);
                EXPECT_EQ(p.error(), "");
                break;
            }
            if (p.root() != nullptr) {
                EXPECT_NE(p.error(), "");
            }
        }  // each run's tree is freed as `p` goes out of scope
    }
    qorcfg::os::count_calls(false);
}

}  // namespace
