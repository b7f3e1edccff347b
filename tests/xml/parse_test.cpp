// tests/xml/parse_test.cpp - reading XML text into the document tree: the node
// and root records as callers read them, navigation, reference decoding,
// attribute normalisation, the internal DTD subset, processing instructions,
// UTF-16 input, the exact error messages and the file and stream entry points.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "os/os.h"
#include "qorcfg.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::os::Call;

ezxml_root *root_of(ezxml_node *node) {
    return reinterpret_cast<ezxml_root *>(node);
}

// A document parsed in place from an exact-size copy of `text`. The tree points
// into the copy, so the copy is released only after the tree.
class Parsed {
public:
    explicit Parsed(std::string_view text) : buf_(text.begin(), text.end()) {
        root_ = ezxml_parse_str(buf_.data(), buf_.size());
    }
    ~Parsed() { ezxml_free(root_); }
    Parsed(const Parsed &) = delete;
    Parsed &operator=(const Parsed &) = delete;

    ezxml_node *root() const { return root_; }
    ezxml_root *doc() const { return root_of(root_); }
    std::string error() const { return ezxml_error(root_); }
    const char *buffer() const { return buf_.data(); }
    bool in_buffer(const char *p) const {
        return std::greater_equal<const char *>()(p, buf_.data()) &&
               std::less<const char *>()(p, buf_.data() + buf_.size());
    }

private:
    std::vector<char> buf_;
    ezxml_node *root_ = nullptr;
};

std::string err_at(int line, std::string_view message) {
    return "[error near line " + std::to_string(line) + "]: " + std::string(message);
}

std::vector<std::string> texts(char **list) {
    std::vector<std::string> out;
    for (; list != nullptr && *list != nullptr; ++list)
        out.emplace_back(*list);
    return out;
}

// The position characters stored after the instruction texts of `target`.
std::string positions(ezxml_root *doc, const char *target) {
    for (char ***list = doc->pi; *list != nullptr; ++list) {
        if (std::strcmp((*list)[0], target) != 0)
            continue;
        size_t i = 1;
        while ((*list)[i] != nullptr)
            ++i;
        return (*list)[i + 1];
    }
    return "(no list)";
}

TEST(XmlParse, LinksChildrenByNameGroupAndDocumentOrder) {
    Parsed p("<r>t0<a i=\"1\"/>t1<b/>t2<a i=\"2\">in</a>t3<c/><b/></r>");
    ASSERT_EQ(p.error(), "");
    ezxml_node *r = p.root();
    ASSERT_STREQ(r->name, "r");
    EXPECT_EQ(r->parent, nullptr);
    EXPECT_EQ(r->ordered, nullptr);
    EXPECT_STREQ(r->txt, "t0t1t2t3");
    EXPECT_NE(r->flags & EZXML_TXT_OWNED, 0);  // the pieces were joined into an allocated text

    std::vector<ezxml_node *> order;  // children in document order
    for (ezxml_node *n = r->child; n != nullptr && order.size() < 10; n = n->ordered)
        order.push_back(n);
    ASSERT_EQ(order.size(), 5u);
    ezxml_node *a1 = order[0], *b1 = order[1], *a2 = order[2], *c = order[3], *b2 = order[4];

    const struct {
        ezxml_node *node;
        const char *name;
        size_t off;
        ezxml_node *next, *sibling;
    } expected[] = {
        {a1, "a", 2, a2, b1},           {b1, "b", 4, b2, c},
        {a2, "a", 6, nullptr, nullptr}, {c, "c", 8, nullptr, nullptr},
        {b2, "b", 8, nullptr, nullptr},
    };
    for (const auto &e : expected) {
        SCOPED_TRACE(e.name + std::string(" at ") + std::to_string(e.off));
        EXPECT_STREQ(e.node->name, e.name);
        EXPECT_TRUE(p.in_buffer(e.node->name));
        EXPECT_EQ(e.node->off, e.off);
        EXPECT_EQ(e.node->next, e.next);
        EXPECT_EQ(e.node->sibling, e.sibling);
        EXPECT_EQ(e.node->parent, r);
        EXPECT_EQ(e.node->child, nullptr);
    }
    EXPECT_STREQ(ezxml_attr(a1, "i"), "1");
    EXPECT_STREQ(ezxml_attr(a2, "i"), "2");
    EXPECT_STREQ(a2->txt, "in");
    EXPECT_TRUE(p.in_buffer(a2->txt));  // a single undecoded piece stays in the buffer
    EXPECT_EQ(a2->flags, 0);
    EXPECT_STREQ(b1->txt, "");
    EXPECT_EQ(b1->attr, EZXML_NIL);
    EXPECT_EQ(ezxml_child(r, "b"), b1);
    EXPECT_EQ(ezxml_idx(b1, 1), b2);

    // Text between the prologue's parts is the root's text: it counts for
    // the children's offsets and is written back inside the root.
    Parsed pro("<?xml version=\"1.0\"?>\n<!-- c -->\n<q>x<k/></q>");
    ASSERT_EQ(pro.error(), "");
    EXPECT_STREQ(pro.root()->txt, "\n\nx");
    EXPECT_NE(pro.root()->flags & EZXML_TXT_OWNED, 0);
    EXPECT_EQ(ezxml_child(pro.root(), "k")->off, 3u);
    Parsed one("<?p?> <q/>");
    ASSERT_EQ(one.error(), "");
    EXPECT_STREQ(one.root()->txt, " ");
    EXPECT_TRUE(one.in_buffer(one.root()->txt));
    EXPECT_EQ(one.root()->flags, 0);
    char *xml = ezxml_toxml(one.root());
    EXPECT_STREQ(xml, "<?p?>\n<q> </q>");
    std::free(xml);

    // The root record of an in-place parse.
    EXPECT_EQ(p.doc()->len, 0u);
    EXPECT_EQ(p.doc()->m, p.buffer());
    EXPECT_EQ(p.doc()->u, nullptr);
    EXPECT_EQ(p.doc()->standalone, 0);
    EXPECT_STREQ(p.doc()->err, "");
}

TEST(XmlParse, KeepsAttributesInOrderWithAnOwnershipString) {
    Parsed p("<r a=\"1\" b='say \"hi\"' c e=\"x&lt;y\" f=\"p&amp;q\"><d x=\"1\" x=\"2\"/><n/></r>");
    ASSERT_EQ(p.error(), "");
    ezxml_node *r = p.root();
    const char *names[] = {"a", "b", "c", "e", "f"};
    const char *values[] = {"1", "say \"hi\"", "", "x<y", "p&q"};
    char **attr = r->attr;
    ASSERT_NE(attr, EZXML_NIL);
    const char *own = attr[11];
    ASSERT_EQ(attr[10], nullptr);
    ASSERT_NE(own, nullptr);
    ASSERT_EQ(std::strlen(own), 5u);
    for (size_t i = 0; i < 5; ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_STREQ(attr[2 * i], names[i]);
        EXPECT_STREQ(attr[2 * i + 1], values[i]);
        EXPECT_STREQ(ezxml_attr(r, names[i]), values[i]);
        EXPECT_TRUE(p.in_buffer(attr[2 * i]));
        EXPECT_EQ(static_cast<unsigned char>(own[i]) & EZXML_NAME_OWNED, 0);
        // A value is marked '@' exactly when decoding moved it out of the buffer.
        if (*values[i] != '\0') {
            EXPECT_EQ(own[i], p.in_buffer(attr[2 * i + 1]) ? ' ' : '@');
        }
    }
    EXPECT_EQ(own[0], ' ');
    EXPECT_EQ(own[3], '@');  // "&lt;" is replaced by the longer "&#60;" first
    EXPECT_EQ(ezxml_attr(r, "zz"), nullptr);

    ezxml_node *d = ezxml_child(r, "d");
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(ezxml_attr(d, "x"), "1");  // the first of a duplicated name wins
    ezxml_node *n = ezxml_child(r, "n");
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->attr, EZXML_NIL);
    EXPECT_EQ(EZXML_NIL[0], nullptr);
}

TEST(XmlParse, NavigatesByNameIndexAndPath) {
    Parsed p("<r><a><b>0</b></a><ab/><a><b>1</b><b>2</b></a><a/></r>");
    ASSERT_EQ(p.error(), "");
    ezxml_node *r = p.root();
    ezxml_node *a = ezxml_child(r, "a");
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a, r->child);
    ezxml_node *ab = ezxml_child(r, "ab");
    ASSERT_NE(ab, nullptr);
    EXPECT_STREQ(ab->name, "ab");
    EXPECT_EQ(ezxml_child(r, "b"), nullptr);  // grandchildren are not children
    EXPECT_EQ(ezxml_child(r, "A"), nullptr);

    EXPECT_EQ(ezxml_idx(a, 0), a);
    ezxml_node *third = ezxml_idx(a, 2);
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(third, a->next->next);
    EXPECT_EQ(third->child, nullptr);
    EXPECT_EQ(ezxml_idx(a, 3), nullptr);

    ezxml_node *b = ezxml_get(r, "a", 1, "b", 1, "");
    ASSERT_NE(b, nullptr);
    EXPECT_STREQ(b->txt, "2");
    EXPECT_EQ(ezxml_get(r, "a", 1, "b", 0, static_cast<const char *>(nullptr)),
              ezxml_child(ezxml_idx(a, 1), "b"));
    EXPECT_EQ(ezxml_get(r, "a", -1, "b", 0, ""), a);  // a negative index stops the walk there
    EXPECT_EQ(ezxml_get(r, "a", 3, ""), nullptr);
    EXPECT_EQ(ezxml_get(r, "x", 0, ""), nullptr);
    EXPECT_EQ(ezxml_get(r, ""), r);

    EXPECT_EQ(ezxml_child(nullptr, "a"), nullptr);
    EXPECT_EQ(ezxml_idx(nullptr, 0), nullptr);
    EXPECT_EQ(ezxml_attr(nullptr, "a"), nullptr);
    EXPECT_EQ(ezxml_get(nullptr, "a", 0, ""), nullptr);
    EXPECT_STREQ(ezxml_error(nullptr), "");
    char **none = ezxml_pi(nullptr, "a");
    EXPECT_TRUE(none == nullptr || none[0] == nullptr);
}

TEST(XmlParse, DecodesReferencesAndLineEndsInText) {
    const struct {
        const char *in, *out;
    } cases[] = {
        {"&#65;&#x41;", "AA"},
        {"&lt;&gt;&amp;&quot;&apos;", "<>&\"'"},
        {"a&amp;lt;b", "a&lt;b"},  // decoded once, not again
        {"&#0;", "&#0;"},
        {"&#65 x", "&#65 x"},
        {"&#65x;", "&#65x;"},
        {"&lt", "&lt"},
        {"&nope; &ltx;", "&nope; &ltx;"},
        {"&#x7F;", "\x7F"},
        {"&#x80;&#233;", "\xC2\x80\xC3\xA9"},
        {"&#x7FF;&#x800;", "\xDF\xBF\xE0\xA0\x80"},
        {"&#xFFFF;&#x10000;", "\xEF\xBF\xBF\xF0\x90\x80\x80"},
        {"&#x1F600;&#x10FFFF;", "\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"},
        {"a\r\nb\rc\n\rd", "a\nb\nc\n\nd"},
        {"<![CDATA[&amp; <x> \r\n]]>", "&amp; <x> \n"},
        {"x<![CDATA[<]]>y", "x<y"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.in);
        Parsed p("<r>" + std::string(c.in) + "</r>");
        ASSERT_EQ(p.error(), "");
        EXPECT_STREQ(p.root()->txt, c.out);
    }
    Parsed attr("<r v=\"&#65;&lt;&nope;&#0;&#x263A;\"/>");
    EXPECT_STREQ(ezxml_attr(attr.root(), "v"), "A<&nope;&#0;\xE2\x98\xBA");
}

TEST(XmlParse, NormalisesAttributesByTheirDeclaredType) {
    Parsed p(
        "<!DOCTYPE r [\n"
        "<!ATTLIST r tok NMTOKENS #IMPLIED cd CDATA #IMPLIED en (x|y) \"  y  \"\n"
        "            mode CDATA \"auto\" ver CDATA #FIXED \"2\" amp CDATA \"a&amp;b\"\n"
        "            opt CDATA #IMPLIED>\n"
        "<!ATTLIST q k CDATA 'v'>\n"
        "]>\n"
        "<r tok=\"  a \t b\n\n c  \" cd=\"  a \t b\r\n c  \" free=\"  a   b  \" mode=\"manual\">"
        "<s tok=\"  a   b  \"/><q/></r>");
    ASSERT_EQ(p.error(), "");
    ezxml_node *r = p.root();
    EXPECT_STREQ(ezxml_attr(r, "tok"), "a b c");        // non-CDATA: squeezed and trimmed
    EXPECT_STREQ(ezxml_attr(r, "cd"), "  a   b  c  ");  // CDATA: each white space a space
    EXPECT_STREQ(ezxml_attr(r, "free"), "  a   b  ");   // undeclared: unchanged
    EXPECT_STREQ(ezxml_attr(r, "mode"), "manual");      // own value over the default
    EXPECT_STREQ(ezxml_attr(r, "en"), "y");             // default decoded with its type
    EXPECT_STREQ(ezxml_attr(r, "ver"), "2");
    EXPECT_STREQ(ezxml_attr(r, "amp"), "a&b");
    EXPECT_EQ(ezxml_attr(r, "opt"), nullptr);
    EXPECT_EQ(r->attr[8], nullptr);  // defaults are not copied into the own list

    ezxml_node *s = ezxml_child(r, "s");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(ezxml_attr(s, "tok"), "  a   b  ");  // declared for another tag only
    ezxml_node *q = ezxml_child(r, "q");
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(q->attr, EZXML_NIL);
    EXPECT_STREQ(ezxml_attr(q, "k"), "v");
}

TEST(XmlParse, ReadsEntitiesFromTheInternalSubset) {
    const struct {
        const char *doc, *txt;
        short standalone;
    } cases[] = {
        {"<!DOCTYPE r [<!ENTITY e \"v\">]><r>[&e;]</r>", "[v]", 0},
        {"<!DOCTYPE r [<!ENTITY a \"A\"><!ENTITY b \"[&a;]\">]><r>&b;</r>", "[A]", 0},
        {"<!DOCTYPE r [<!ENTITY lt \"X\"><!ENTITY e \"1\"><!ENTITY e \"2\">]><r>&lt;&e;</r>", "<1",
         0},
        {"<!DOCTYPE r [<!ENTITY % p \"xy\"><!ENTITY g \"a%p;b\">]><r>&g;%p;&p;</r>", "axyb%p;&p;",
         0},
        {"<!DOCTYPE r [<!ENTITY ext SYSTEM \"x.ent\"><!ENTITY in \"i\">]><r>&ext;&in;</r>",
         "&ext;i", 0},
        {"<!DOCTYPE r [<!ELEMENT r (#PCDATA)><!-- note --><!ENTITY y \"yes\">]>"
         "<r>&x;&y;</r>",
         "&x;yes", 0},
        {"<!DOCTYPE r [<!ENTITY c \"&#65;&#x42;\"><!ENTITY m \"<b>x</b>\">]><r>&c;&m;</r>",
         "AB<b>x</b>", 0},
        // A parameter-entity reference outside a declaration ends the subset ...
        {"<!DOCTYPE r [<!ENTITY a \"1\"> %pe; <!ENTITY b \"2\">]><r>&a;&b;</r>", "1&b;", 0},
        // ... unless the document is declared standalone.
        {"<?xml version=\"1.0\" standalone=\"yes\"?>"
         "<!DOCTYPE r [<!ENTITY a \"1\"> %pe; <!ENTITY b \"2\">]><r>&a;&b;</r>",
         "12", 1},
        {"<?xml version='1.0' standalone='yes'?><r/>", "", 1},
        {"<?xml version=\"1.0\" standalone=\"no\"?><r/>", "", 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.doc);
        Parsed p(c.doc);
        ASSERT_EQ(p.error(), "");
        EXPECT_STREQ(p.root()->txt, c.txt);
        EXPECT_EQ(p.doc()->standalone, c.standalone);
    }

    // Many declarations: the first of a name wins (the predefined ones
    // first), names holding a ';' match where a reference has them, and
    // chains resolve in either direction.
    std::string doc = "<!DOCTYPE r [<!ENTITY lt \"X\"><!ENTITY a;b \"odd\">";
    for (int i = 0; i < 300; ++i) {
        doc += "<!ENTITY f" + std::to_string(i) + " \"&f" + std::to_string(i + 1) + ";\">";
        doc += "<!ENTITY b" + std::to_string(i) + " \"" +
               (i == 0 ? std::string("base") : "&b" + std::to_string(i - 1) + ";") + "\">";
        doc += "<!ENTITY d \"" + std::to_string(i) + "\">";
    }
    doc += "<!ENTITY f300 \"end\">]><r>&lt;&a;b;&a;&d;&f0;&b299;</r>";
    Parsed many(doc);
    ASSERT_EQ(many.error(), "");
    EXPECT_STREQ(many.root()->txt, "<odd&a;0endbase");

    // A replacement longer than its reference moves the text out of the buffer,
    // and the tree owns it.
    Parsed p("<!DOCTYPE r [<!ENTITY e \"a much longer replacement\">]><r a=\"&e;\">&e;</r>");
    ASSERT_EQ(p.error(), "");
    ezxml_node *r = p.root();
    EXPECT_STREQ(r->txt, "a much longer replacement");
    EXPECT_FALSE(p.in_buffer(r->txt));
    EXPECT_NE(r->flags & EZXML_TXT_OWNED, 0);
    EXPECT_STREQ(ezxml_attr(r, "a"), "a much longer replacement");
    EXPECT_STREQ(r->attr[3], "@");
}

TEST(XmlParse, StoresProcessingInstructionsByTarget) {
    Parsed p(
        "<?xml version=\"1.0\"?>\n<?app one?>\n<?style two?>\n<?app three?>\n"
        "<r><c/><?app four?></r>\n<?app five?>\n<?empty?>\n");
    ASSERT_EQ(p.error(), "");
    ezxml_node *c = ezxml_child(p.root(), "c");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(texts(ezxml_pi(p.root(), "app")),
              (std::vector<std::string>{"one", "three", "four", "five"}));
    EXPECT_EQ(texts(ezxml_pi(c, "app")), texts(ezxml_pi(p.root(), "app")));  // climbs to the root
    EXPECT_EQ(texts(ezxml_pi(p.root(), "style")), std::vector<std::string>{"two"});
    EXPECT_EQ(texts(ezxml_pi(p.root(), "empty")), std::vector<std::string>{""});
    ASSERT_NE(ezxml_pi(p.root(), "xml"), nullptr);
    EXPECT_EQ(ezxml_pi(p.root(), "xml")[0], nullptr);  // the declaration is not stored
    ASSERT_NE(ezxml_pi(p.root(), "none"), nullptr);
    EXPECT_EQ(ezxml_pi(p.root(), "none")[0], nullptr);

    // Targets in first-seen order; '<' before the root element opened, '>' after.
    char ***pi = p.doc()->pi;
    ASSERT_NE(pi[0], nullptr);
    ASSERT_NE(pi[1], nullptr);
    ASSERT_NE(pi[2], nullptr);
    EXPECT_STREQ(pi[0][0], "app");
    EXPECT_STREQ(pi[1][0], "style");
    EXPECT_STREQ(pi[2][0], "empty");
    EXPECT_EQ(pi[3], nullptr);
    EXPECT_EQ(positions(p.doc(), "app"), "<<>>");
    EXPECT_EQ(positions(p.doc(), "style"), "<");
    EXPECT_EQ(positions(p.doc(), "empty"), ">");
}

std::vector<char> utf16(std::u16string_view text, bool big_endian) {
    std::vector<char> out;
    auto put = [&out, big_endian](char16_t unit) {
        const char hi = static_cast<char>(unit >> 8), lo = static_cast<char>(unit & 0xFF);
        out.push_back(big_endian ? hi : lo);
        out.push_back(big_endian ? lo : hi);
    };
    put(0xFEFF);
    for (char16_t unit : text)
        put(unit);
    return out;
}

TEST(XmlParse, ConvertsUtf16InBothByteOrders) {
    for (bool big_endian : {false, true}) {
        SCOPED_TRACE(big_endian ? "big-endian" : "little-endian");
        const std::vector<char> input = utf16(u"<r a=\"\u00E9\">x\U0001F600<c/></r>\n", big_endian);
        Parsed p(std::string_view(input.data(), input.size()));
        ASSERT_EQ(p.error(), "");
        ASSERT_STREQ(p.root()->name, "r");
        EXPECT_STREQ(ezxml_attr(p.root(), "a"), "\xC3\xA9");
        EXPECT_STREQ(p.root()->txt, "x\xF0\x9F\x98\x80");  // the surrogate pair is one code point
        ASSERT_NE(ezxml_child(p.root(), "c"), nullptr);
        EXPECT_EQ(ezxml_child(p.root(), "c")->off, 5u);
        EXPECT_NE(p.doc()->u, nullptr);
        EXPECT_EQ(p.doc()->m, p.buffer());
        EXPECT_EQ(p.doc()->len, 0u);
    }
}

TEST(XmlParse, ReportsEachErrorWithItsLine) {
    const struct {
        const char *doc;
        int line;
        const char *message;
    } cases[] = {
        {"hello", 1, "root tag missing"},
        {"<?pi x?>\n<!-- c -->\n", 2, "root tag missing"},
        {"<r/>\n<x/>", 2, "markup outside of root element"},
        {"<r>\n<a x=\"v/></r>", 2, "missing \""},
        {"<r>\n<a x='v/></r>", 2, "missing '"},
        {"<r>\n\n<a/x></a></r>", 3, "missing >"},
        {"<r>x</r", 1, "missing >"},
        {"<r>\n<a>\n</b>\n</r>", 3, "unexpected closing tag </b>"},
        {"<r>\n<!-- a -- b --></r>", 2, "unclosed <!--"},
        {"<r>\n<![CDATA[abc</r>", 2, "unclosed <![CDATA["},
        {"\n\n<!DOCTYPE r [ <r/>", 3, "unclosed <!DOCTYPE"},
        {"<r>\n<?pi x </r>", 2, "unclosed <?"},
        {"<r>\n< a></r>", 2, "unexpected <"},
        {"<r>\n<!x></r>", 2, "unexpected <"},
        {"<r>\n<a>\ntext", 3, "unclosed tag <a>"},
        {"<a><b>", 1, "unclosed tag <b>"},  // the final '>' opens the tag
        {"<a x='1'>", 1, "unclosed tag <a>"},
        {"<r>\n</x>", 2, "unexpected closing tag </x>"},
        {"</x><r/>", 1, "unexpected closing tag </x>"},
        {"<!DOCTYPE r [\n<!ATTLIST ]><r/>", 2, "unclosed <!ATTLIST"},
        {"<!DOCTYPE r [\n<!ATTLIST r a CDATA bogus>]><r/>", 2, "malformed <!ATTLIST"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.doc);
        Parsed p(c.doc);
        ASSERT_NE(p.root(), nullptr);
        EXPECT_EQ(p.error(), err_at(c.line, c.message));
        EXPECT_STREQ(p.doc()->err, ezxml_error(p.root()));
    }

    // The entity's name may be reported with or without its stored ';'.
    Parsed circular("<!DOCTYPE r [\n<!ENTITY a 'x&a;y'>]><r/>");
    const std::string error = circular.error();
    EXPECT_TRUE(error == err_at(2, "circular entity declaration &a") ||
                error == err_at(2, "circular entity declaration &a;"))
        << error;

    Parsed last("<a><b>");
    EXPECT_NE(ezxml_child(last.root(), "b"), nullptr);

    // The parse stops at the error; the partial tree stays reachable.
    Parsed partial("<r>\n<a k=\"v\">t\n</b>\n</r>");
    ASSERT_STREQ(partial.root()->name, "r");
    ezxml_node *a = ezxml_child(partial.root(), "a");
    ASSERT_NE(a, nullptr);
    EXPECT_STREQ(ezxml_attr(a, "k"), "v");
}

TEST(XmlParse, CutsLongErrorMessagesToTheRecord) {
    const std::string name(300, 'n');
    Parsed p("<r></" + name + ">\n");
    const std::string full = err_at(1, "unexpected closing tag </" + name + ">");
    EXPECT_EQ(p.error(), full.substr(0, EZXML_ERRL - 1));
}

TEST(XmlParse, StopsAtTheGivenLengthAndAcceptsAFinalGreaterThan) {
    const struct {
        const char *doc, *txt;
    } cases[] = {
        {"<r/>", ""},
        {"<r a='1'/>", ""},
        {"<r><a/>x</r>", "x"},
        {"<r>a</r>trailing text\n", "a"},  // text after the root is ignored
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.doc);
        Parsed p(c.doc);
        EXPECT_EQ(p.error(), "");
        ASSERT_STREQ(p.root()->name, "r");
        EXPECT_STREQ(p.root()->txt, c.txt);
    }
    Parsed attr("<r a='1'/>");
    EXPECT_STREQ(ezxml_attr(attr.root(), "a"), "1");

    // Only `len` bytes are read and written; the rest of the buffer is untouched.
    std::string buf = "<r>x</r>tail";
    ezxml_node *r = ezxml_parse_str(buf.data(), 8);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(ezxml_error(r), "");
    EXPECT_STREQ(r->txt, "x");
    ezxml_free(r);
    EXPECT_EQ(buf.substr(8), "tail");
}

class XmlParseFile : public qorcfg::test::SandboxTest {
protected:
    static void expect_tree(ezxml_node *cfg) {
        ASSERT_NE(cfg, nullptr);
        EXPECT_STREQ(ezxml_error(cfg), "");
        ASSERT_STREQ(cfg->name, "cfg");
        ezxml_node *sys = ezxml_child(cfg, "sys");
        ASSERT_NE(sys, nullptr);
        EXPECT_STREQ(ezxml_attr(sys, "name"), "ap&1");
        EXPECT_STREQ(sys->txt, "x");
    }
};

TEST_F(XmlParseFile, MapsFilesAndReadsStreams) {
    const std::string text = "<cfg>\n<sys name=\"ap&amp;1\">x</sys>\n</cfg>\n";
    sandbox.write("/etc/doc.xml", text);
    const std::string host = sandbox.path("/etc/doc.xml");
    // Host paths are passed as they are: with an empty root the seam adds no prefix.
    qorcfg::os::set_root("");
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t mapped = (text.size() + page - 1) / page * page;

    ezxml_node *f = ezxml_parse_file(host.c_str());
    expect_tree(f);
    EXPECT_EQ(root_of(f)->len, mapped);
    ezxml_free(f);
    EXPECT_EQ(ezxml_parse_file(sandbox.path("/etc/missing.xml").c_str()), nullptr);
    EXPECT_EQ(ezxml_parse_fd(-1), nullptr);

    const int fd = ::open(host.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ezxml_node *d = ezxml_parse_fd(fd);
    expect_tree(d);
    EXPECT_EQ(root_of(d)->len, mapped);
    ezxml_free(d);
    // A file that cannot be mapped is read into an allocated buffer.
    ASSERT_EQ(::lseek(fd, 0, SEEK_SET), 0);
    qorcfg::os::fail_nth(Call::mmap, 1, ENOMEM);
    d = ezxml_parse_fd(fd);
    expect_tree(d);
    EXPECT_EQ(root_of(d)->len, SIZE_MAX);
    ezxml_free(d);
    EXPECT_EQ(::close(fd), 0);  // the descriptor stays the caller's

    FILE *fp = std::fopen(host.c_str(), "r");
    ASSERT_NE(fp, nullptr);
    ezxml_node *s = ezxml_parse_fp(fp);
    expect_tree(s);
    EXPECT_EQ(root_of(s)->len, SIZE_MAX);
    ezxml_free(s);
    EXPECT_EQ(std::fgetc(fp), EOF);  // read to its end, left open
    EXPECT_EQ(std::fclose(fp), 0);
}

}  // namespace
