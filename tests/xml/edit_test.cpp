// tests/xml/edit_test.cpp - editing the document tree and writing it back:
// new documents, children placed by text offset in both linked orders,
// moving and cutting subtrees, texts and attributes with their ownership,
// freeing element records in any order, the escaping rules, defaults and
// processing instructions written out, and round trips through the parser.
// The suite runs under AddressSanitizer and valgrind, so every ownership
// hand-over here is also a leak and double-free check.
#include <algorithm>
#include <thread>

#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

char *dup(const char *text) {
    return strdup(text);
}

// The children of `parent` in document order ("a b a"), after checking that
// both orders hold the same children: every child is in exactly one name
// group of its own name, one group per name, members in document order.
std::string ordered(const ezxml_node *parent) {
    std::vector<const ezxml_node *> order;
    std::string names;
    for (const ezxml_node *c = parent->child; c != nullptr && order.size() < 1000; c = c->ordered) {
        order.push_back(c);
        names += (names.empty() ? "" : " ") + std::string(c->name);
        EXPECT_EQ(c->parent, parent);
    }
    size_t grouped = 0;
    std::vector<std::string> seen;
    for (const ezxml_node *g = parent->child; g != nullptr && grouped < 1000; g = g->sibling) {
        EXPECT_EQ(std::count(seen.begin(), seen.end(), g->name), 0) << "two groups " << g->name;
        seen.emplace_back(g->name);
        ptrdiff_t last = -1;
        for (const ezxml_node *m = g; m != nullptr && grouped < 1000; m = m->next, ++grouped) {
            const ptrdiff_t at = std::find(order.begin(), order.end(), m) - order.begin();
            EXPECT_STREQ(m->name, g->name);
            EXPECT_GT(at, last) << m->name << " out of order in its group";
            EXPECT_LT(at, static_cast<ptrdiff_t>(order.size())) << m->name << " not in order";
            last = at;
        }
    }
    EXPECT_EQ(grouped, order.size());
    return names;
}

// The attribute array: "name=value;..." then the ownership string after NULL.
std::string attr_array(const ezxml_node *node) {
    EXPECT_NE(node->attr, EZXML_NIL);
    size_t n = 0;
    while (node->attr[2 * n] != nullptr)
        ++n;
    return attributes(node) + "|" + node->attr[2 * n + 1];
}

TEST(XmlEdit, NewDocumentIsAnEmptyRoot) {
    static const char name[] = "cfg";
    ezxml_node *r = ezxml_new(name);
    ezxml_root *doc = reinterpret_cast<ezxml_root *>(r);
    EXPECT_EQ(r->name, name);  // not copied
    EXPECT_EQ(r->attr, EZXML_NIL);
    EXPECT_STREQ(r->txt, "");
    EXPECT_EQ(r->child, nullptr);
    EXPECT_EQ(r->flags, 0);
    EXPECT_EQ(doc->cur, r);
    EXPECT_EQ(doc->m, nullptr);
    EXPECT_STREQ(doc->err, "");
    EXPECT_EQ(static_cast<void *>(doc->pi), static_cast<void *>(EZXML_NIL));
    const char *predefined[] = {"lt;",   "&#60;", "gt;",  "&#62;", "quot;", "&#34;",
                                "apos;", "&#39;", "amp;", "&#38;", nullptr};
    for (size_t i = 0; i < 11; ++i)
        EXPECT_STREQ(doc->ent[i], predefined[i]);
    EXPECT_EQ(ezxml_pi(r, "x")[0], nullptr);
    EXPECT_EQ(xml_of(r), "<cfg></cfg>");
    ezxml_free(r);
}

TEST(XmlEdit, ChildrenArePlacedByOffsetInBothOrders) {
    ezxml_node *r = ezxml_new("r");
    ezxml_set_txt(r, "0123456789");
    ezxml_node *b1 = ezxml_add_child(r, "b", 5);
    ezxml_node *a1 = ezxml_add_child(r, "a", 3);  // before b1 in both orders
    ezxml_node *b2 = ezxml_add_child(r, "b", 3);  // after a1 (equal offset); first of its group
    ezxml_node *a2 = ezxml_add_child(r, "a", 5);  // after b1 (equal offset); last of its group
    ezxml_node *c = ezxml_add_child(r, "c", 0);   // a new first child
    EXPECT_EQ(ordered(r), "c a b b a");
    EXPECT_EQ(r->child, c);
    EXPECT_EQ(c->sibling, a1);  // groups in the order of their first member's offset
    EXPECT_EQ(a1->sibling, b2);
    EXPECT_EQ(a1->next, a2);
    EXPECT_EQ(b2->next, b1);
    EXPECT_EQ(b2->off, 3u);
    EXPECT_STREQ(b2->txt, "");
    EXPECT_EQ(xml_of(r), "<r><c></c>012<a></a><b></b>34<b></b><a></a>56789</r>");
    // Equal offsets under one parent keep the order of the calls.
    ezxml_node *x = ezxml_add_child(r, "x", 10);
    for (const char *name : {"d", "d", "e"})
        ezxml_add_child(x, name, 0);
    EXPECT_EQ(ordered(x), "d d e");
    EXPECT_EQ(a2->ordered, x);
    EXPECT_EQ(ezxml_add_child(nullptr, "y", 0), nullptr);

    // A cut subtree is linked under another parent at its offset.
    Parsed src("<s><m k=\"v\"><n>deep</n></m><o/></s>");
    ezxml_node *m = ezxml_child(src.root(), "m");
    EXPECT_EQ(ezxml_cut(m), m);
    EXPECT_EQ(xml_of(src.root()), "<s><o></o></s>");
    ezxml_node *t = ezxml_new("t");
    ezxml_set_txt(t, "abcd");
    ezxml_add_child(t, "x", 1);
    ezxml_add_child(t, "x", 3);
    EXPECT_EQ(ezxml_insert(m, t, 2), m);
    EXPECT_EQ(m->off, 2u);
    EXPECT_EQ(ordered(t), "x m x");
    EXPECT_EQ(xml_of(t), "<t>a<x></x>b<m k=\"v\"><n>deep</n></m>c<x></x>d</t>");
    ezxml_free(t);  // m and its subtree now belong to t
    ezxml_free(r);
}

TEST(XmlEdit, TextsAndAttributesWithTheirOwnership) {
    Parsed p("<r>a<b/>c</r>");
    ezxml_node *r = p.root();
    ASSERT_NE(r->flags & EZXML_TXT_OWNED, 0);  // joined from two pieces
    static const char fresh[] = "new";
    EXPECT_EQ(ezxml_set_txt(r, fresh), r);
    EXPECT_EQ(r->txt, fresh);  // not copied, not owned
    EXPECT_EQ(r->flags & EZXML_TXT_OWNED, 0);
    ezxml_set_txt(r, dup("one"));  // a caller hands a copy over by marking it owned
    EXPECT_EQ(ezxml_set_flag(r, EZXML_TXT_OWNED), r);
    ezxml_set_txt(r, dup("two"));  // frees "one"
    ezxml_set_flag(r, EZXML_TXT_OWNED);
    EXPECT_EQ(xml_of(r), "<r>t<b></b>wo</r>");  // b stays at offset 1
    EXPECT_EQ(ezxml_set_txt(nullptr, "x"), nullptr);
    EXPECT_EQ(ezxml_set_flag(nullptr, EZXML_COPY), nullptr);

    // Plain values are stored, not copied; EZXML_COPY hands name and value
    // copies over (cleared by each call); replacing or removing frees what
    // the tree owns. Ownership: ' ' none, 0x80 name, 0xC0 name and value.
    ezxml_node *n = ezxml_new("n");
    static const char lit[] = "lit";
    const std::function<void()> steps[] = {
        [&] { EXPECT_EQ(ezxml_set_attr(n, "gone", nullptr), n); },
        [&] { ezxml_set_attr(n, "k", "v"); },
        [&] { ezxml_set_attr(n, "k2", "v2"); },
        [&] { ezxml_set_attr(n, "k", lit); },
        [&] { ezxml_set_attr(n, "k", nullptr); },
        [&] { ezxml_set_attr(n, "k2", nullptr); },
        [&] { ezxml_set_flag(n, EZXML_COPY), ezxml_set_attr(n, dup("k"), dup("v")); },
        [&] { ezxml_set_flag(n, EZXML_COPY), ezxml_set_attr(n, dup("k"), dup("v2")); },
        [&] { ezxml_set_attr(n, "k", lit); },
        [&] { ezxml_set_flag(n, EZXML_COPY), ezxml_set_attr(n, dup("a"), dup("1")); },
        [&] { ezxml_set_attr(n, "b", "2"); },
        [&] { ezxml_set_attr(n, "a", nullptr); },
        [&] { ezxml_set_flag(n, EZXML_COPY), ezxml_set_attr(n, dup("k"), nullptr); },
    };
    const char *want[] = {nullptr,
                          "k=v;| ",
                          "k=v;k2=v2;|  ",
                          "k=lit;k2=v2;|  ",
                          "k2=v2;| ",
                          "|",
                          "k=v;|\xC0",
                          "k=v2;|\xC0",
                          "k=lit;|\x80",
                          "k=lit;a=1;|\x80\xC0",
                          "k=lit;a=1;b=2;|\x80\xC0 ",
                          "k=lit;b=2;|\x80 ",
                          "b=2;| "};
    for (size_t i = 0; i < std::size(steps); ++i) {
        steps[i]();
        EXPECT_EQ(n->flags & EZXML_COPY, 0);
        if (want[i] == nullptr) {
            EXPECT_EQ(n->attr, EZXML_NIL);  // removing an absent attribute changes nothing
        } else {
            EXPECT_EQ(attr_array(n), want[i]) << "step " << i;
        }
    }
    EXPECT_EQ(ezxml_set_attr(nullptr, "a", "b"), nullptr);
    // A parsed value that decoding moved out of the buffer is owned too.
    Parsed moved("<p v=\"&lt;&gt;\"/>");
    ezxml_set_attr(moved.root(), "v", "plain");
    EXPECT_STREQ(ezxml_attr(moved.root(), "v"), "plain");
    EXPECT_EQ(static_cast<unsigned char>(moved.root()->attr[3][0]) & EZXML_TXT_OWNED, 0);
    // A subtree built from copies is freed with the root; ezxml_free_attr
    // releases only owned strings (a literal freed would be an invalid free).
    ezxml_node *c = ezxml_add_child(n, dup("child"), 0);
    ezxml_set_flag(c, EZXML_NAME_OWNED);
    for (const char *name : {"x", "y"})
        ezxml_set_flag(c, EZXML_COPY), ezxml_set_attr(c, dup(name), dup(name));
    ezxml_set_txt(c, dup("text"));
    ezxml_set_flag(c, EZXML_TXT_OWNED);
    EXPECT_EQ(xml_of(n), "<n b=\"2\"><child x=\"x\" y=\"y\">text</child></n>");
    char **list = n->attr;
    n->attr = EZXML_NIL;
    ezxml_free_attr(list);
    ezxml_free_attr(EZXML_NIL);
    ezxml_free_attr(nullptr);
    ezxml_free(n);
}

TEST(XmlEdit, CutUnlinksFromBothOrdersAndFreeTakesTheSuccessors) {
    const std::tuple<const char *, int, const char *, const char *> cases[] = {
        {"a", 1, "a b c b", "<r>0<a></a>1<b></b>23<c></c>4<b></b>5</r>"},
        {"b", 0, "a a c b", "<r>0<a></a>12<a></a>3<c></c>4<b></b>5</r>"},
        {"c", 0, "a b a b", "<r>0<a></a>1<b></b>2<a></a>34<b></b>5</r>"},
        // The first child, whose name group goes on after it.
        {"a", 0, "b a c b", "<r>01<b></b>2<a></a>3<c></c>4<b></b>5</r>"},
    };
    for (const auto &[name, idx, order, xml] : cases) {
        Parsed p("<r>0<a/>1<b/>2<a/>3<c/>4<b/>5</r>");
        ezxml_node *node = ezxml_idx(ezxml_child(p.root(), name), idx);
        EXPECT_EQ(ezxml_cut(node), node);
        EXPECT_EQ(node->ordered, nullptr);
        EXPECT_EQ(node->parent, p.root());  // kept
        EXPECT_EQ(ordered(p.root()), order);
        EXPECT_EQ(xml_of(p.root()), xml);
        ezxml_free(node);  // only the node: its document-order successors stay in r
    }
    EXPECT_EQ(ezxml_cut(nullptr), nullptr);
    // Freeing a child frees its document-order successors with it.
    Parsed p("<r><a><x/></a><b k=\"&lt;\"/>text<c>t</c></r>");
    ezxml_node *first = p.root()->child;
    p.root()->child = nullptr;
    ezxml_free(first);
    EXPECT_EQ(xml_of(p.root()), "<r>text</r>");
    ezxml_free(nullptr);
}

// Parsed element records are freed one by one, whatever document they end up
// in and in whatever order; under ASan and valgrind any record freed early,
// twice or never is reported.
std::string list_of(int n, const char *name) {
    std::string text = "<r>";
    for (int i = 0; i < n; ++i)
        text += "<" + std::string(name) + " i=\"" + std::to_string(i) + "\" v=\"x\"/>";
    return text + "</r>";
}

TEST(XmlEdit, ElementRecordsAreFreedOneByOneInAnyOrder) {
    std::string buf = "<a><keep k=\"1\"><inner x=\"2\">t</inner></keep><drop/></a>";
    ezxml_node *source = ezxml_parse_str(buf.data(), buf.size());
    ezxml_node *target = ezxml_new("b");
    ezxml_insert(ezxml_cut(ezxml_child(source, "keep")), target, 0);
    ezxml_free(source);  // the source's records, except the moved ones
    // The moved elements still point into the source buffer, which lives on.
    EXPECT_EQ(xml_of(target), "<b><keep k=\"1\"><inner x=\"2\">t</inner></keep></b>");
    ezxml_free(target);

    Parsed a(list_of(500, "e")), b(list_of(300, "y"));
    std::vector<ezxml_node *> items;
    for (ezxml_node *e = ezxml_child(a.root(), "e"); e != nullptr; e = e->next)
        items.push_back(e);
    for (size_t i = items.size(); i-- > 0;)  // every other one from the back, then the front
        if (i % 2 == 1 || i < 200)
            ezxml_free(ezxml_cut(items[i]));
    int left = 0;
    for (ezxml_node *e = ezxml_child(a.root(), "e"); e != nullptr; e = e->next, ++left)
        EXPECT_EQ(std::atoi(ezxml_attr(e, "i")) % 2, 0);
    EXPECT_EQ(left, 150);
    // Attribute lists stored with their elements can still be edited.
    ezxml_node *y = ezxml_idx(ezxml_child(b.root(), "y"), 7);
    ezxml_set_attr(y, "v", "changed");
    ezxml_set_attr(y, "i", nullptr);
    ezxml_set_flag(y, EZXML_COPY);
    ezxml_set_attr(y, strdup("copied"), strdup("value"));
    EXPECT_EQ(xml_of(y), "<y v=\"changed\" copied=\"value\"></y>");
    // An element larger than a chunk.
    std::string text = "<r><big";
    for (int i = 0; i < 20000; ++i)
        text += " a" + std::to_string(i) + "=\"" + std::to_string(i) + "\"";
    Parsed big(text + "/><small/></r>");
    EXPECT_STREQ(ezxml_attr(ezxml_child(big.root(), "big"), "a19999"), "19999");
    ezxml_free(ezxml_cut(ezxml_child(big.root(), "big")));
    EXPECT_NE(ezxml_child(big.root(), "small"), nullptr);
    // Documents parsed, moved and freed on several threads.
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &failures] {
            for (int round = 0; round < 50; ++round) {
                Parsed doc(list_of(200 + t, "e"));
                ezxml_node *last = ezxml_idx(ezxml_child(doc.root(), "e"), 199 + t);
                failures[static_cast<size_t>(t)] +=
                    last == nullptr || ezxml_attr(last, "v") == nullptr;
                ezxml_node *other = ezxml_new("o");
                ezxml_insert(ezxml_cut(ezxml_child(doc.root(), "e")), other, 0);
                ezxml_free(other);
            }
        });
    for (std::thread &th : threads)
        th.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

// ---- writing ------------------------------------------------------------------------

TEST(XmlWrite, EscapesTextsAndAttributeValuesDifferently) {
    ezxml_node *r = ezxml_new("r");
    const char *raw = "q\"\n\t&<>\r'\xC3\xA9";
    ezxml_set_attr(r, "a", raw);
    ezxml_set_txt(r, raw);
    ezxml_add_child(r, "b", 3);
    EXPECT_EQ(xml_of(r),
              "<r a=\"q&quot;&#xA;&#x9;&amp;&lt;&gt;&#xD;'\xC3\xA9\">"
              "q\"\n<b></b>\t&amp;&lt;&gt;&#xD;'\xC3\xA9</r>");
    ezxml_free(r);
    char *empty = ezxml_toxml(nullptr);
    EXPECT_STREQ(empty, "");
    std::free(empty);
    Parsed failed("just text, no element");
    EXPECT_EQ(xml_of(failed.root()), "");

    const std::tuple<std::string, size_t, short, std::string> cases[] = {
        {"a&<>\r\"\n\t'z", SIZE_MAX, 0, "a&amp;&lt;&gt;&#xD;\"\n\t'z"},
        {"a&<>\r\"\n\t'z", SIZE_MAX, 1, "a&amp;&lt;&gt;&#xD;&quot;&#xA;&#x9;'z"},
        {"a<b<c", 3, 0, "a&lt;b"},                              // stops at the length
        {std::string("a<\0b<", 5), 5, 1, "a&lt;"},              // or at a NUL
        {"\xC3\xA9\x01\x7F", SIZE_MAX, 1, "\xC3\xA9\x01\x7F"},  // other bytes are copied
        {std::string(3000, '<'), SIZE_MAX, 0, ""},
    };
    for (const auto &[in, len, attr, out] : cases) {
        size_t size = 4, used = 3;
        char *dst = static_cast<char *>(std::malloc(size));
        std::memcpy(dst, "pre", 3);
        EXPECT_EQ(ezxml_ampencode(in.data(), len, &dst, &used, &size, attr), dst);
        std::string want = "pre" + out;
        for (size_t i = 0; out.empty() && i < in.size(); ++i)
            want += "&lt;";
        EXPECT_EQ(std::string(dst, used), want);
        EXPECT_GE(size, used);
        EXPECT_EQ((size - 4) % EZXML_BUFSIZE, 0u);  // grown in 1024-byte steps
        std::free(dst);
    }
}

TEST(XmlWrite, ParsedDocumentsAreWrittenWithDefaultsAndInstructions) {
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
    EXPECT_EQ(xml_of(ezxml_idx(ezxml_child(p.root(), "a"), 1)), "<a n=\"&quot;q&quot;\">in</a>");
    EXPECT_EQ(xml_of(p.root()), whole);  // the tree is left as it was
    // Out of memory while writing: NULL, never a write through it.
    EXPECT_GT(sweep_allocations([&] {
                  char *text = ezxml_toxml(p.root());
                  const bool written = text != nullptr && text == whole;
                  std::free(text);
                  return written;
              }),
              0u);

    // Round trips keep the tree (names, attributes, texts, offsets) and the text.
    for (const char *doc : {
             "<cfg><sys name=\"ap\" desc=\"a &amp; b &lt;c&gt; &quot;d&quot;\"><ntp on=\"1\">"
             "pool</ntp></sys><wlan><radio id=\"0\"><vap ssid='it&apos;s'/></radio></wlan></cfg>",
             "<p>one<b>two</b>three<i>four</i><b>five</b>six</p>",
             "<r><![CDATA[<&>]]> and &amp; &#x20AC; &lt;tag&gt;</r>",
             "<r a=\"1&#xA;2\" b=\"tab&#9;\" c=\"cr&#xD;\">x&#xD;y\r\nz</r>",
             "<r>\n<?b in?></r>\n<?c y?>\n",
             "<r e=\"\" f>\xC3\xA9\xE2\x82\xAC<n/><n/><m/><n>&#x1F600;</n></r>",
         }) {
        Parsed first(doc);
        const std::string text = xml_of(first.root());
        Parsed second(text);
        ASSERT_EQ(second.error(), "") << text;
        EXPECT_EQ(xml_of(second.root()), text);
        std::function<std::string(const ezxml_node *)> tree = [&](const ezxml_node *n) {
            std::string out = std::string(n->name) + "[" + attributes(n) + "]{" + n->txt + "}@" +
                              std::to_string(n->off) + "(";
            for (const ezxml_node *c = n->child; c != nullptr; c = c->ordered)
                out += tree(c);
            return out + ")";
        };
        EXPECT_EQ(tree(second.root()), tree(first.root())) << doc;
    }
}

}  // namespace
