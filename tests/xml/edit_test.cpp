// tests/xml/edit_test.cpp - editing the document tree and writing it back:
// new documents, children placed by text offset in both linked orders,
// moving and cutting subtrees, texts and attributes with their ownership,
// freeing element records in any order, the escaping rules, defaults and
// processing instructions written out, and round trips through the parser.
// The suite runs under AddressSanitizer and valgrind, so every ownership
// hand-over here is also a leak and double-free check.
#include <algorithm>
#include <thread>
#include <utility>

#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

// Both orders of `parent`'s children: the names in document order, then
// after "|" each name group, in its order, with its members (name and
// document position) in theirs.
std::string orders(const ezxml_node *parent) {
    std::vector<const ezxml_node *> doc;
    std::string out;
    for (const ezxml_node *c = parent->child; c != nullptr && doc.size() < 1000; c = c->ordered) {
        doc.push_back(c);
        out += std::string(c->name) + (c->parent == parent ? " " : "(elsewhere) ");
    }
    for (const ezxml_node *g = parent->child; g != nullptr && out.size() < 10000; g = g->sibling) {
        out += g == parent->child ? "|" : " ;";
        for (const ezxml_node *m = g; m != nullptr && out.size() < 10000; m = m->next)
            out += " " + std::string(m->name) +
                   std::to_string(std::find(doc.begin(), doc.end(), m) - doc.begin());
    }
    return out;
}

TEST(XmlEdit, NewDocumentsAndChildrenPlacedByOffsetAndCutInBothOrders) {
    static const char name[] = "r";
    ezxml_node *r = ezxml_new(name);
    ezxml_root *doc = reinterpret_cast<ezxml_root *>(r);
    EXPECT_EQ(r->name, name);  // not copied
    EXPECT_TRUE(r->attr == EZXML_NIL && *r->txt == '\0' && r->child == nullptr && r->flags == 0);
    EXPECT_TRUE(doc->cur == r && doc->m == nullptr && doc->err[0] == '\0' &&
                static_cast<void *>(doc->pi) == static_cast<void *>(EZXML_NIL));
    std::string entities;
    for (char **e = doc->ent; *e != nullptr; ++e)
        entities += std::string(*e) + " ";
    EXPECT_EQ(entities, "lt; &#60; gt; &#62; quot; &#34; apos; &#39; amp; &#38; ");

    ezxml_add_child(ezxml_set_txt(r, "0123456789"), "b", 5);
    ezxml_add_child(r, "a", 3);  // before b in both orders
    ezxml_add_child(r, "b", 3);  // after that a (equal offset); first of its group
    ezxml_add_child(r, "a", 5);  // after the first b; last of its group
    ezxml_add_child(r, "b", 5);  // after that a; last of its group
    ezxml_add_child(r, "c", 0);  // a new first child
    // Groups in the order of their first member's offset; equal offsets keep
    // the order of the calls.
    EXPECT_EQ(orders(r), "c a b b a b | c0 ; a1 a4 ; b2 b3 b5");
    EXPECT_EQ(xml_of(r), "<r><c></c>012<a></a><b></b>34<b></b><a></a><b></b>56789</r>");

    // A cut subtree is linked under another parent at its offset, and
    // outlives the records of its source document.
    std::string buf = "<s><m k=\"v\"><n>deep</n></m><o/></s>";
    ezxml_node *src = ezxml_parse_str(buf.data(), buf.size());
    ezxml_node *m = ezxml_child(src, "m");
    ezxml_node *t = ezxml_set_txt(ezxml_new("t"), "abcd");
    ezxml_add_child(t, "x", 1), ezxml_add_child(t, "x", 3);
    EXPECT_EQ(ezxml_insert(ezxml_cut(m), t, 2), m);
    ezxml_free(src);  // its buffer, which the moved elements point into, lives on
    EXPECT_TRUE(m->off == 2 && m->parent == t);
    EXPECT_EQ(orders(t), "x m x | x0 x2 ; m1");
    EXPECT_EQ(xml_of(t), "<t>a<x></x>b<m k=\"v\"><n>deep</n></m>c<x></x>d</t>");
    ezxml_free(t);  // m and its subtree now belong to t
    ezxml_free(r);

    // Cutting unlinks from both orders. Groups stay in the order of their
    // first members: cutting a group's first member moves the group to its
    // next member's place.
    const std::tuple<const char *, int, const char *, const char *> cases[] = {
        {"a", 1, "a b c b | a0 ; b1 b3 ; c2", "<r>0<a></a>1<b></b>23<c></c>4<b></b>5</r>"},
        {"b", 0, "a a c b | a0 a1 ; c2 ; b3", "<r>0<a></a>12<a></a>3<c></c>4<b></b>5</r>"},
        {"c", 0, "a b a b | a0 a2 ; b1 b3", "<r>0<a></a>1<b></b>2<a></a>34<b></b>5</r>"},
        // The first child, whose name group goes on after it.
        {"a", 0, "b a c b | b0 b3 ; a1 ; c2", "<r>01<b></b>2<a></a>3<c></c>4<b></b>5</r>"},
    };
    for (const auto &[group, idx, order, xml] : cases) {
        Parsed p("<r>0<a/>1<b/>2<a/>3<c/>4<b/>5</r>");
        ezxml_node *node = ezxml_idx(ezxml_child(p.root(), group), idx);
        // Out of the document order; its parent is kept.
        EXPECT_TRUE(ezxml_cut(node) == node && node->ordered == nullptr &&
                    node->parent == p.root());
        EXPECT_EQ(orders(p.root()), order);
        EXPECT_EQ(xml_of(p.root()), xml);
        ezxml_free(node);  // only the node: its document-order successors stay in r
    }
    // Freeing a child frees its document-order successors with it.
    Parsed p("<r><a><x/></a><b k=\"&lt;\"/>text<c>t</c></r>");
    ezxml_free(std::exchange(p.root()->child, nullptr));
    EXPECT_EQ(xml_of(p.root()), "<r>text</r>");
}

TEST(XmlEdit, TextsAndAttributesWithTheirOwnership) {
    Parsed p("<r>a<b/>c</r>");  // the text joined from two pieces is owned
    ezxml_node *r = p.root();
    static const char fresh[] = "new";
    EXPECT_EQ(ezxml_set_txt(r, fresh), r);
    EXPECT_TRUE(r->txt == fresh && (r->flags & EZXML_TXT_OWNED) == 0);  // not copied, not owned
    // A caller hands a copy over by marking it owned; the next text frees it.
    EXPECT_EQ(ezxml_set_flag(ezxml_set_txt(r, strdup("one")), EZXML_TXT_OWNED), r);
    ezxml_set_flag(ezxml_set_txt(r, strdup("two")), EZXML_TXT_OWNED);
    EXPECT_EQ(xml_of(r), "<r>t<b></b>wo</r>");  // b stays at offset 1
    EXPECT_TRUE(ezxml_set_txt(nullptr, "x") == nullptr && ezxml_set_flag(nullptr, 0) == nullptr &&
                ezxml_set_attr(nullptr, "a", "b") == nullptr && ezxml_cut(nullptr) == nullptr &&
                ezxml_add_child(nullptr, "y", 0) == nullptr);

    // Plain values are stored, not copied; EZXML_COPY hands name and value
    // copies over (cleared by each call); replacing or removing frees what
    // the tree owns. The attribute array, then its ownership string: ' '
    // none, 0x80 name, 0xC0 name and value.
    ezxml_node *n = ezxml_new("n");
    const std::tuple<bool, const char *, const char *, const char *> steps[] = {
        {false, "gone", nullptr, "NIL"},  // removing an absent attribute changes nothing
        {false, "k", "v", "k=v;| "},
        {false, "k", "lit", "k=lit;| "},
        {false, "k", nullptr, "|"},
        {true, "k", "v", "k=v;|\xC0"},
        {true, "k", "v2", "k=v2;|\xC0"},
        {false, "k", "lit", "k=lit;|\x80"},
        {true, "a", "1", "k=lit;a=1;|\x80\xC0"},
        {false, "b", "2", "k=lit;a=1;b=2;|\x80\xC0 "},
        {false, "a", nullptr, "k=lit;b=2;|\x80 "},
        {true, "k", nullptr, "b=2;| "},
    };
    for (const auto &[copy, name, value, want] : steps) {
        ezxml_set_flag(n, copy ? EZXML_COPY : 0);
        const char *v = copy && value != nullptr ? strdup(value) : value;
        EXPECT_TRUE(ezxml_set_attr(n, copy ? strdup(name) : name, v) == n && n->flags == 0);
        const std::string a = attributes(n);
        const auto count = std::count(a.begin(), a.end(), '=');  // one per attribute
        EXPECT_EQ(n->attr == EZXML_NIL ? "NIL" : a + "|" + n->attr[2 * count + 1], want)
            << name << "=" << (value ? value : "-");
    }
    // A parsed value that decoding moved out of the buffer is owned too.
    Parsed moved("<p v=\"&lt;&gt;\"/>");
    ezxml_set_attr(moved.root(), "v", "plain");
    EXPECT_EQ(static_cast<unsigned char>(moved.root()->attr[3][0]) & EZXML_TXT_OWNED, 0);
    // A subtree built from copies is freed with the root; ezxml_free_attr
    // releases only owned strings (a literal freed would be an invalid free).
    ezxml_node *c = ezxml_set_flag(ezxml_add_child(n, strdup("child"), 0), EZXML_NAME_OWNED);
    ezxml_set_flag(c, EZXML_COPY), ezxml_set_attr(c, strdup("x"), strdup("y"));
    ezxml_set_flag(ezxml_set_txt(c, strdup("text")), EZXML_TXT_OWNED);
    EXPECT_EQ(xml_of(n), "<n b=\"2\"><child x=\"y\">text</child></n>");
    ezxml_free_attr(std::exchange(n->attr, EZXML_NIL));
    ezxml_free_attr(EZXML_NIL), ezxml_free_attr(nullptr), ezxml_free(nullptr);  // left alone
    ezxml_free(n);
}

// Parsed element records are freed one by one, whatever document they end up
// in and in whatever order; under ASan and valgrind any record freed early,
// twice or never is reported.
std::string list_of(int n) {
    std::string text = "<r>";
    for (int i = 0; i < n; ++i)
        text += "<e i=\"" + std::to_string(i) + "\" v=\"x\"/>";
    return text + "</r>";
}

TEST(XmlEdit, ElementRecordsAreFreedOneByOneInAnyOrder) {
    Parsed a(list_of(500));
    // Attribute lists stored with their elements can still be edited.
    ezxml_node *y = ezxml_idx(ezxml_child(a.root(), "e"), 210);
    ezxml_set_attr(y, "i", "210");
    ezxml_set_attr(y, "v", nullptr);
    ezxml_set_flag(y, EZXML_COPY), ezxml_set_attr(y, strdup("copied"), strdup("value"));
    for (int i = 499; i >= 0; --i)  // every other one from the back, then the front
        if (i % 2 == 1 || i < 200)
            ezxml_free(ezxml_cut(ezxml_idx(ezxml_child(a.root(), "e"), i)));
    int left = 0;
    for (ezxml_node *e = ezxml_child(a.root(), "e"); e != nullptr; e = e->next, ++left)
        EXPECT_EQ(std::atoi(ezxml_attr(e, "i")) % 2, 0);
    EXPECT_EQ(left, 150);
    EXPECT_EQ(xml_of(y), "<e i=\"210\" copied=\"value\"></e>");
    // An element larger than the chunk its document's size suggests: its
    // record holds two pointers per attribute, more than the five bytes of
    // each " a=''".
    std::string text = "<r><big";
    for (int i = 0; i < 20000; ++i)
        text += " a=''";
    Parsed big(text + " z='1'/><small/></r>");
    EXPECT_STREQ(ezxml_attr(ezxml_child(big.root(), "big"), "z"), "1");
    ezxml_free(ezxml_cut(ezxml_child(big.root(), "big")));
    // Documents parsed, moved and freed on several threads.
    // (GoogleTest's assertions may be used on any thread.)
    auto work = [](int t) {
        for (int round = 0; round < 50; ++round) {
            Parsed doc(list_of(200 + t));
            EXPECT_NE(ezxml_attr(ezxml_idx(ezxml_child(doc.root(), "e"), 199 + t), "v"), nullptr);
            const Tree other = own(ezxml_new("o"));
            ezxml_insert(ezxml_cut(ezxml_child(doc.root(), "e")), other.get(), 0);
        }
    };
    std::thread t0(work, 0), t1(work, 1), t2(work, 2), t3(work, 3);
    t0.join(), t1.join(), t2.join(), t3.join();
}

// A subtree as text: names, attributes, texts and offsets.
std::string tree(const ezxml_node *n) {
    std::string out = std::string(n->name) + "[" + attributes(n) + "]{" + n->txt + "}@" +
                      std::to_string(n->off) + "(";
    for (const ezxml_node *c = n->child; c != nullptr; c = c->ordered)
        out += tree(c);
    return out + ")";
}

TEST(XmlWrite, EscapesDefaultsInstructionsAndRoundTrips) {
    const char *raw = "q\"\n\t&<>\r'\xC3\xA9\x01\x7F";
    const Tree r = own(ezxml_set_txt(ezxml_set_attr(ezxml_new("r"), "a", raw), raw));
    ezxml_add_child(r.get(), "b", 3);
    EXPECT_EQ(xml_of(r.get()),
              "<r a=\"q&quot;&#xA;&#x9;&amp;&lt;&gt;&#xD;'\xC3\xA9\x01\x7F\">"
              "q\"\n<b></b>\t&amp;&lt;&gt;&#xD;'\xC3\xA9\x01\x7F</r>");
    // No element: an allocated empty text.
    EXPECT_TRUE(xml_of(nullptr).empty() && xml_of(Parsed("just text").root()).empty());
    // A name given twice is written once, with the value ezxml_attr gives.
    EXPECT_EQ(xml_of(Parsed("<d x=\"1\" y=\"2\" x=\"3\"/>").root()), "<d x=\"1\" y=\"2\"></d>");

    // Appending stops at the length or at a NUL; the buffer grows in
    // 1024-byte steps.
    const std::tuple<std::string, size_t, short, std::string> cases[] = {
        {"a<b<c", 3, 0, "a&lt;b"},
        {std::string("a<\0b<", 5), 5, 1, "a&lt;"},
        {std::string(1100, 'x'), SIZE_MAX, 0, std::string(1100, 'x')},
    };
    for (const auto &[in, len, attr, out] : cases) {
        size_t size = 4, used = 3;
        char *dst = strdup("pre");
        EXPECT_EQ(ezxml_ampencode(in.data(), len, &dst, &used, &size, attr), dst);
        EXPECT_EQ(std::string(dst, used), "pre" + out);
        EXPECT_TRUE(size > used && dst[used] == '\0' && (size - 4) % EZXML_BUFSIZE == 0) << size;
        std::free(dst);
    }

    // Declaration, DOCTYPE and comments dropped, references decoded and
    // escaped again, defaults written out, instructions before and after the
    // root; the line ends between the prologue's parts are the root's text.
    Parsed p(
        "<?xml version=\"1.0\"?>\n<!DOCTYPE r [\n<!ENTITY co \"Qor &amp; Co\">\n"
        "<!ATTLIST r ver CDATA \"1\" tok NMTOKEN #IMPLIED>\n<!ATTLIST b k CDATA \"kv\">\n]>\n"
        "<?first one?>\n<!-- dropped -->\n"
        "<r id=\"x&lt;y\"><!-- c -->t0<a/>t1<b>&co;</b>t2<a n='\"q\"'>in</a><b k=\"own\"/>t3</r>\n"
        "<?last two?>\n<?last?>\n");
    const std::string whole =
        "<?first one?>\n<r id=\"x&lt;y\" ver=\"1\">\n\n\n\nt0<a></a>t1<b k=\"kv\">Qor &amp; Co</b>"
        "t2<a n=\"&quot;q&quot;\">in</a><b k=\"own\"></b>t3</r>\n<?last two?>\n<?last?>";
    EXPECT_EQ(xml_of(p.root()), whole);
    // An inner element is written alone: no texts around it, no siblings, no
    // instructions; its own defaults still come from the document.
    EXPECT_EQ(xml_of(ezxml_child(p.root(), "b")), "<b k=\"kv\">Qor &amp; Co</b>");
    // Out of memory while writing: NULL, never a write through it; the
    // writes leave the tree as it was.
    EXPECT_GT(sweep_allocations([&] { return xml_of(p.root()) == whole; }), 0u);

    // Round trips keep the tree (names, attributes, texts, offsets) and the text.
    for (const char *doc : {
             "<r><![CDATA[<&>]]> and &amp; &#x20AC; &lt;tag&gt;</r>",
             "<r a=\"1&#xA;2\" b=\"tab&#9;\" c=\"cr&#xD;\">x&#xD;y\r\nz</r>",
             "<r e=\"\" f>\xC3\xA9\xE2\x82\xAC<n/><n/><m/><n>&#x1F600;</n></r>",
         }) {
        Parsed first(doc);
        const std::string text = xml_of(first.root());
        Parsed second(text);
        EXPECT_EQ(xml_of(second.root()), text);
        EXPECT_EQ(tree(second.root()), tree(first.root())) << doc;
    }
}

}  // namespace
