// tests/xml/write_test.cpp - writing the document tree back as XML text: the
// escaping rules of texts and attribute values, default attributes and
// processing instructions, texts around children at their offsets, inner
// elements written alone, and round trips through the parser.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "qorcfg.h"

namespace {

// A document parsed in place from an exact-size copy of `text`; the copy lives
// as long as the tree.
class Parsed {
public:
    explicit Parsed(std::string_view text) : buf_(text.begin(), text.end()) {
        root_ = ezxml_parse_str(buf_.data(), buf_.size());
    }
    ~Parsed() { ezxml_free(root_); }
    Parsed(const Parsed &) = delete;
    Parsed &operator=(const Parsed &) = delete;

    ezxml_node *root() const { return root_; }
    std::string error() const { return ezxml_error(root_); }

private:
    std::vector<char> buf_;
    ezxml_node *root_ = nullptr;
};

// The serialised text of `node`, with the allocation given back.
std::string xml_of(ezxml_node *node) {
    char *text = ezxml_toxml(node);
    if (text == nullptr) {
        ADD_FAILURE() << "ezxml_toxml returned null";
        return "(null)";
    }
    std::string out = text;
    std::free(text);
    return out;
}

// Everything a caller can read from a subtree: names, attributes in order,
// texts, offsets and the children in document order.
std::string describe(const ezxml_node *node) {
    std::string out = node->name;
    out += '[';
    for (char **a = node->attr; *a != nullptr; a += 2)
        out += std::string(a[0]) + "=" + a[1] + ";";
    out += "]{" + std::string(node->txt) + "}@" + std::to_string(node->off) + "(";
    for (const ezxml_node *c = node->child; c != nullptr; c = c->ordered)
        out += describe(c);
    return out + ")";
}

TEST(XmlWrite, EscapesTextsAndAttributeValuesDifferently) {
    ezxml_node *r = ezxml_new("r");
    ASSERT_NE(r, nullptr);
    const char *raw = "q\"\n\t&<>\r'\xC3\xA9";
    ezxml_set_attr(r, "a", raw);
    ezxml_set_txt(r, raw);
    EXPECT_EQ(xml_of(r),
              "<r a=\"q&quot;&#xA;&#x9;&amp;&lt;&gt;&#xD;'\xC3\xA9\">"
              "q\"\n\t&amp;&lt;&gt;&#xD;'\xC3\xA9</r>");
    ezxml_free(r);
}

TEST(XmlWrite, AmpencodeAppendsEscapedTextAndGrowsTheBuffer) {
    const struct {
        std::string in;
        size_t len;
        short attr;
        std::string out;
    } cases[] = {
        {"a&<>\r\"\n\t'z", SIZE_MAX, 0, "a&amp;&lt;&gt;&#xD;\"\n\t'z"},
        {"a&<>\r\"\n\t'z", SIZE_MAX, 1, "a&amp;&lt;&gt;&#xD;&quot;&#xA;&#x9;'z"},
        {"a<b<c", 3, 0, "a&lt;b"},                              // stops at the length
        {std::string("a<\0b<", 5), 5, 1, "a&lt;"},              // or at a NUL
        {"\xC3\xA9\x01\x7F", SIZE_MAX, 1, "\xC3\xA9\x01\x7F"},  // other bytes are copied
        {"", SIZE_MAX, 0, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.out);
        size_t size = 4, used = 3;
        char *dst = static_cast<char *>(std::malloc(size));
        ASSERT_NE(dst, nullptr);
        std::memcpy(dst, "pre", 3);
        char *ret = ezxml_ampencode(c.in.data(), c.len, &dst, &used, &size, c.attr);
        EXPECT_EQ(ret, dst);
        EXPECT_EQ(std::string(dst, used), "pre" + c.out);
        EXPECT_GE(size, used);
        EXPECT_EQ((size - 4) % EZXML_BUFSIZE, 0u);  // grown in 1024-byte steps
        std::free(dst);
    }

    // Many steps of growth; the earlier content is kept.
    size_t size = 16, used = 0;
    char *dst = static_cast<char *>(std::malloc(size));
    ASSERT_NE(dst, nullptr);
    const std::string many(3000, '<');
    ezxml_ampencode(many.c_str(), SIZE_MAX, &dst, &used, &size, 0);
    ezxml_ampencode("&", SIZE_MAX, &dst, &used, &size, 1);
    ASSERT_EQ(used, 3000u * 4 + 5);
    EXPECT_GE(size, used);
    EXPECT_EQ((size - 16) % EZXML_BUFSIZE, 0u);
    std::string expected;
    for (int i = 0; i < 3000; ++i)
        expected += "&lt;";
    EXPECT_EQ(std::string(dst, used), expected + "&amp;");
    std::free(dst);
}

constexpr char kDocument[] =
    "<?xml version=\"1.0\"?>\n"
    "<!DOCTYPE r [\n"
    "<!ENTITY co \"Qor &amp; Co\">\n"
    "<!ATTLIST r ver CDATA \"1\" tok NMTOKEN #IMPLIED>\n"
    "<!ATTLIST b k CDATA \"kv\">\n"
    "]>\n"
    "<?first one?>\n"
    "<!-- dropped -->\n"
    "<r id=\"x&lt;y\"><!-- c -->t0<a/>t1<b>&co;</b>t2<a n='\"q\"'>in</a><b k=\"own\"/>t3</r>\n"
    "<?last two?>\n"
    "<?last?>\n";

// Declaration, DOCTYPE and comments dropped, references decoded and escaped
// again, defaults written out, instructions before and after the root.
// The line ends between the prologue's parts are the root's text.
constexpr char kSerialised[] =
    "<?first one?>\n"
    "<r id=\"x&lt;y\" ver=\"1\">\n\n\n\nt0<a></a>t1<b k=\"kv\">Qor &amp; Co</b>"
    "t2<a n=\"&quot;q&quot;\">in</a><b k=\"own\"></b>t3</r>"
    "\n<?last two?>"
    "\n<?last?>";

TEST(XmlWrite, WritesAParsedDocumentWithDefaultsAndInstructions) {
    Parsed p(kDocument);
    ASSERT_EQ(p.error(), "");
    EXPECT_EQ(xml_of(p.root()), kSerialised);

    // An inner element is written alone: no texts around it, no siblings, no
    // instructions; its own defaults still come from the document.
    ezxml_node *b = ezxml_child(p.root(), "b");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(xml_of(b), "<b k=\"kv\">Qor &amp; Co</b>");
    ezxml_node *a2 = ezxml_idx(ezxml_child(p.root(), "a"), 1);
    ASSERT_NE(a2, nullptr);
    EXPECT_EQ(xml_of(a2), "<a n=\"&quot;q&quot;\">in</a>");

    // The tree is left as it was.
    EXPECT_EQ(b->parent, p.root());
    EXPECT_EQ(b->ordered, a2);
    EXPECT_EQ(a2->parent, p.root());
    EXPECT_NE(a2->ordered, nullptr);
    EXPECT_EQ(xml_of(p.root()), kSerialised);
}

TEST(XmlWrite, PlacesChildrenAtTheirTextOffsets) {
    ezxml_node *r = ezxml_new("r");
    ASSERT_NE(r, nullptr);
    ezxml_set_txt(r, "hello world");
    ezxml_add_child(r, "b", 6);
    EXPECT_EQ(xml_of(r), "<r>hello <b></b>world</r>");
    ezxml_node *i = ezxml_add_child(r, "i", 0);
    ezxml_set_txt(i, "<1>");
    ezxml_add_child(r, "e", 11);
    EXPECT_EQ(xml_of(r), "<r><i>&lt;1&gt;</i>hello <b></b>world<e></e></r>");
    ezxml_free(r);

    // Interleaved names are written in document order, not grouped by name.
    Parsed p("<r>0<a>x</a>1<b/>2<a/>3<b>y</b>4</r>");
    ASSERT_EQ(p.error(), "");
    EXPECT_EQ(xml_of(p.root()), "<r>0<a>x</a>1<b></b>2<a></a>3<b>y</b>4</r>");
}

TEST(XmlWrite, NullOrNamelessNodeGivesAnEmptyText) {
    char *text = ezxml_toxml(nullptr);
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "");
    std::free(text);

    Parsed failed("just text, no element");
    ASSERT_NE(failed.error(), "");
    EXPECT_EQ(failed.root()->name, nullptr);
    EXPECT_EQ(xml_of(failed.root()), "");
}

TEST(XmlWrite, RoundTripsKeepTheTreeAndTheText) {
    const char *const docs[] = {
        "<cfg><sys name=\"ap\" desc=\"a &amp; b &lt;c&gt; &quot;d&quot;\">"
        "<ntp on=\"1\">pool.ntp.org</ntp></sys><wlan><radio id=\"0\"><vap ssid=\"x y\"/>"
        "<vap ssid='it&apos;s'/></radio><radio id=\"1\"/></wlan></cfg>",
        "<p>one<b>two</b>three<i>four</i><b>five</b>six</p>",
        "<r><![CDATA[<&>]]> and &amp; &#x20AC; &lt;tag&gt;</r>",
        "<r>\n  <a>1</a>\n  <b>2</b>\n</r>\n",
        "<r a=\"1&#xA;2\" b=\"tab&#9;\" c=\"cr&#xD;\">x&#xD;y\r\nz</r>",
        "<r>\n<?b in?></r>\n<?c y?>\n",
        "<r e=\"\" f>\xC3\xA9\xE2\x82\xAC<n/><n/><m/><n>&#x1F600;</n></r>",
    };
    for (const char *doc : docs) {
        SCOPED_TRACE(doc);
        Parsed first(doc);
        ASSERT_EQ(first.error(), "");
        const std::string text = xml_of(first.root());
        SCOPED_TRACE(text);
        Parsed second(text);
        ASSERT_EQ(second.error(), "");
        EXPECT_EQ(describe(second.root()), describe(first.root()));
        EXPECT_EQ(xml_of(second.root()), text);
    }
}

}  // namespace
