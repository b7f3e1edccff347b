// tests/xml/edit_test.cpp - editing the document tree: new documents, children
// placed by text offset in both linked orders, moving and cutting subtrees,
// texts and attributes with their ownership, and freeing. The suite runs under
// AddressSanitizer and valgrind, so every ownership hand-over here is also a
// leak and double-free check.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <utility>
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

private:
    std::vector<char> buf_;
    ezxml_node *root_ = nullptr;
};

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

char *dup(const char *text) {
    return strdup(text);
}

constexpr size_t kMaxWalk = 1000;  // longer chains than any test builds mean a cycle

// The children of `parent` in document order, by name ("a b a").
std::string ordered_names(const ezxml_node *parent) {
    std::string out;
    size_t n = 0;
    for (const ezxml_node *c = parent->child; c != nullptr && n < kMaxWalk; c = c->ordered, ++n)
        out += (out.empty() ? "" : " ") + std::string(c->name);
    return out;
}

// The name groups of `parent`, each as its members' names, sorted ("a a|b|c").
std::string groups(const ezxml_node *parent) {
    std::vector<std::string> all;
    size_t n = 0;
    for (const ezxml_node *g = parent->child; g != nullptr && n < kMaxWalk; g = g->sibling) {
        std::string group;
        for (const ezxml_node *m = g; m != nullptr && n < kMaxWalk; m = m->next, ++n)
            group += (group.empty() ? "" : " ") + std::string(m->name);
        all.push_back(group);
    }
    std::sort(all.begin(), all.end());
    std::string out;
    for (const std::string &g : all)
        out += (out.empty() ? "" : "|") + g;
    return out;
}

// Both orders hold the same children: the document order starts at `child`;
// every child is in exactly one name group of its own name, one group per name,
// members in document order; each child points back to the parent.
void expect_consistent_links(const ezxml_node *parent) {
    std::vector<const ezxml_node *> ordered;
    for (const ezxml_node *c = parent->child; c != nullptr && ordered.size() < kMaxWalk;
         c = c->ordered)
        ordered.push_back(c);
    std::set<std::string> names;
    size_t grouped = 0;
    for (const ezxml_node *g = parent->child; g != nullptr && grouped < kMaxWalk; g = g->sibling) {
        EXPECT_TRUE(names.insert(g->name).second) << "two groups named " << g->name;
        ptrdiff_t last = -1;
        for (const ezxml_node *m = g; m != nullptr && grouped < kMaxWalk; m = m->next, ++grouped) {
            EXPECT_STREQ(m->name, g->name);
            const auto at = std::find(ordered.begin(), ordered.end(), m);
            EXPECT_NE(at, ordered.end()) << m->name << " is not in document order";
            EXPECT_GT(at - ordered.begin(), last) << m->name << " is out of order in its group";
            last = at - ordered.begin();
        }
    }
    EXPECT_EQ(grouped, ordered.size());
    for (const ezxml_node *c : ordered)
        EXPECT_EQ(c->parent, parent);
}

using Attrs = std::vector<std::pair<std::string, std::string>>;

// The attribute array: name, value, ..., NULL, ownership string.
void expect_attrs(const ezxml_node *node, const Attrs &expected, std::string_view own) {
    ASSERT_NE(node->attr, EZXML_NIL);
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_NE(node->attr[2 * i], nullptr);
        EXPECT_STREQ(node->attr[2 * i], expected[i].first.c_str());
        EXPECT_STREQ(node->attr[2 * i + 1], expected[i].second.c_str());
    }
    ASSERT_EQ(node->attr[2 * expected.size()], nullptr);
    ASSERT_NE(node->attr[2 * expected.size() + 1], nullptr);
    EXPECT_EQ(std::string_view(node->attr[2 * expected.size() + 1]), own);
}

TEST(XmlEdit, NewDocumentIsAnEmptyRoot) {
    static const char name[] = "cfg";
    ezxml_node *r = ezxml_new(name);
    ASSERT_NE(r, nullptr);
    ezxml_root *doc = reinterpret_cast<ezxml_root *>(r);
    EXPECT_EQ(r->name, name);  // not copied
    EXPECT_EQ(r->attr, EZXML_NIL);
    EXPECT_STREQ(r->txt, "");
    EXPECT_EQ(r->off, 0u);
    EXPECT_EQ(r->child, nullptr);
    EXPECT_EQ(r->parent, nullptr);
    EXPECT_EQ(r->flags, 0);
    EXPECT_EQ(doc->cur, r);
    EXPECT_EQ(doc->m, nullptr);
    EXPECT_EQ(doc->len, 0u);
    EXPECT_EQ(doc->u, nullptr);
    EXPECT_EQ(doc->standalone, 0);
    EXPECT_STREQ(doc->err, "");
    EXPECT_EQ(static_cast<void *>(doc->attr), static_cast<void *>(EZXML_NIL));
    EXPECT_EQ(static_cast<void *>(doc->pi), static_cast<void *>(EZXML_NIL));
    const char *predefined[] = {"lt;",   "&#60;", "gt;",   "&#62;", "quot;",
                                "&#34;", "apos;", "&#39;", "amp;",  "&#38;"};
    ASSERT_NE(doc->ent, nullptr);
    for (size_t i = 0; i < 10; ++i)
        EXPECT_STREQ(doc->ent[i], predefined[i]);
    EXPECT_EQ(doc->ent[10], nullptr);
    EXPECT_STREQ(ezxml_error(r), "");
    EXPECT_EQ(ezxml_pi(r, "x")[0], nullptr);
    EXPECT_EQ(xml_of(r), "<cfg></cfg>");
    ezxml_free(r);
}

TEST(XmlEdit, AddChildPlacesByOffsetInBothOrders) {
    ezxml_node *r = ezxml_new("r");
    ASSERT_NE(r, nullptr);
    ezxml_set_txt(r, "0123456789");
    ezxml_node *b1 = ezxml_add_child(r, "b", 5);
    ezxml_node *a1 = ezxml_add_child(r, "a", 3);  // before b1 in both orders
    ezxml_node *b2 = ezxml_add_child(r, "b", 3);  // after a1 (equal offset); first of its group
    ezxml_node *a2 = ezxml_add_child(r, "a", 5);  // after b1 (equal offset); last of its group
    ezxml_node *c = ezxml_add_child(r, "c", 0);   // a new first child
    for (ezxml_node *n : {a1, a2, b1, b2, c}) {
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(n->parent, r);
        EXPECT_EQ(n->attr, EZXML_NIL);
        EXPECT_STREQ(n->txt, "");
        EXPECT_EQ(n->child, nullptr);
    }
    EXPECT_STREQ(a1->name, "a");
    EXPECT_EQ(a1->off, 3u);
    EXPECT_EQ(b2->off, 3u);
    EXPECT_EQ(b1->off, 5u);

    EXPECT_EQ(r->child, c);
    EXPECT_EQ(c->ordered, a1);
    EXPECT_EQ(a1->ordered, b2);
    EXPECT_EQ(b2->ordered, b1);
    EXPECT_EQ(b1->ordered, a2);
    EXPECT_EQ(a2->ordered, nullptr);

    EXPECT_EQ(c->sibling, a1);  // groups in the order of their first member's offset
    EXPECT_EQ(a1->sibling, b2);
    EXPECT_EQ(b2->sibling, nullptr);
    EXPECT_EQ(c->next, nullptr);
    EXPECT_EQ(a1->next, a2);
    EXPECT_EQ(a2->next, nullptr);
    EXPECT_EQ(b2->next, b1);
    EXPECT_EQ(b1->next, nullptr);
    EXPECT_EQ(ezxml_child(r, "b"), b2);
    EXPECT_EQ(ezxml_idx(ezxml_child(r, "b"), 1), b1);
    expect_consistent_links(r);
    EXPECT_EQ(xml_of(r), "<r><c></c>012<a></a><b></b>34<b></b><a></a>56789</r>");

    // Equal offsets under one parent keep the order of the calls.
    ezxml_node *x = ezxml_add_child(r, "x", 10);
    ezxml_node *d1 = ezxml_add_child(x, "d", 0);
    ezxml_node *d2 = ezxml_add_child(x, "d", 0);
    ezxml_node *e = ezxml_add_child(x, "e", 0);
    EXPECT_EQ(x->child, d1);
    EXPECT_EQ(d1->ordered, d2);
    EXPECT_EQ(d2->ordered, e);
    EXPECT_EQ(d1->next, d2);
    EXPECT_EQ(d1->sibling, e);
    EXPECT_EQ(a2->ordered, x);
    expect_consistent_links(x);

    EXPECT_EQ(ezxml_add_child(nullptr, "y", 0), nullptr);
    ezxml_free(r);
}

TEST(XmlEdit, InsertLinksACutSubtreeUnderAnotherParent) {
    Parsed src("<s><m k=\"v\"><n>deep</n></m><o/></s>");
    ezxml_node *m = ezxml_child(src.root(), "m");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(ezxml_cut(m), m);
    EXPECT_EQ(xml_of(src.root()), "<s><o></o></s>");

    ezxml_node *r = ezxml_new("r");
    ASSERT_NE(r, nullptr);
    ezxml_set_txt(r, "abcd");
    ezxml_node *x1 = ezxml_add_child(r, "x", 1);
    ezxml_node *x2 = ezxml_add_child(r, "x", 3);
    EXPECT_EQ(ezxml_insert(m, r, 2), m);
    EXPECT_EQ(m->parent, r);
    EXPECT_EQ(m->off, 2u);
    EXPECT_EQ(x1->ordered, m);
    EXPECT_EQ(m->ordered, x2);
    EXPECT_EQ(x1->next, x2);
    EXPECT_EQ(x1->sibling, m);
    EXPECT_EQ(m->sibling, nullptr);
    EXPECT_EQ(m->next, nullptr);
    EXPECT_EQ(ezxml_child(r, "m"), m);
    expect_consistent_links(r);
    EXPECT_EQ(xml_of(r), "<r>a<x></x>b<m k=\"v\"><n>deep</n></m>c<x></x>d</r>");
    ezxml_free(r);  // m and its subtree now belong to r
}

TEST(XmlEdit, SetTxtReplacesTheTextAndFreesAnOwnedOne) {
    Parsed p("<r>a<b/>c</r>");
    ezxml_node *r = p.root();
    ASSERT_NE(r->flags & EZXML_TXT_OWNED, 0);  // joined from two pieces
    static const char fresh[] = "new";
    EXPECT_EQ(ezxml_set_txt(r, fresh), r);
    EXPECT_EQ(r->txt, fresh);  // not copied, not owned
    EXPECT_EQ(r->flags & EZXML_TXT_OWNED, 0);

    // A caller hands a copy over by marking it owned afterwards.
    ezxml_set_txt(r, dup("one"));
    EXPECT_EQ(ezxml_set_flag(r, EZXML_TXT_OWNED), r);
    ezxml_set_txt(r, dup("two"));  // frees "one"
    ezxml_set_flag(r, EZXML_TXT_OWNED);
    EXPECT_STREQ(r->txt, "two");
    EXPECT_EQ(xml_of(r), "<r>t<b></b>wo</r>");  // b stays at offset 1

    EXPECT_EQ(ezxml_set_txt(nullptr, "x"), nullptr);
    EXPECT_EQ(ezxml_set_flag(nullptr, EZXML_COPY), nullptr);
}

TEST(XmlEdit, SetAttrAddsReplacesAndRemoves) {
    ezxml_node *r = ezxml_new("r");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(ezxml_set_attr(r, "gone", nullptr), r);
    EXPECT_EQ(r->attr, EZXML_NIL);  // removing an absent attribute changes nothing

    ezxml_set_attr(r, "k", "v");
    expect_attrs(r, {{"k", "v"}}, " ");
    ezxml_set_attr(r, "k2", "v2");
    expect_attrs(r, {{"k", "v"}, {"k2", "v2"}}, "  ");
    static const char v3[] = "v3";
    ezxml_set_attr(r, "k", v3);
    expect_attrs(r, {{"k", "v3"}, {"k2", "v2"}}, "  ");
    EXPECT_EQ(r->attr[1], v3);  // stored, not copied
    EXPECT_EQ(xml_of(r), "<r k=\"v3\" k2=\"v2\"></r>");

    ezxml_set_attr(r, "k", nullptr);
    expect_attrs(r, {{"k2", "v2"}}, " ");
    ezxml_set_attr(r, "k2", nullptr);
    expect_attrs(r, {}, "");  // an empty list of its own, not EZXML_NIL
    EXPECT_EQ(EZXML_NIL[0], nullptr);
    EXPECT_EQ(xml_of(r), "<r></r>");
    ezxml_set_attr(r, "x", "1");
    expect_attrs(r, {{"x", "1"}}, " ");
    EXPECT_EQ(xml_of(r), "<r x=\"1\"></r>");

    EXPECT_EQ(ezxml_set_attr(nullptr, "a", "b"), nullptr);
    ezxml_free(r);
}

TEST(XmlEdit, CopyFlagHandsStringsToTheTree) {
    ezxml_node *r = ezxml_new("r");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(ezxml_set_flag(r, EZXML_COPY), r);
    EXPECT_NE(r->flags & EZXML_COPY, 0);
    ezxml_set_attr(r, dup("k"), dup("v"));
    EXPECT_EQ(r->flags & EZXML_COPY, 0);  // cleared by each call
    expect_attrs(r, {{"k", "v"}}, "\xC0");

    // Replacing with copies: the passed name copy and the old value are freed.
    ezxml_set_flag(r, EZXML_COPY);
    ezxml_set_attr(r, dup("k"), dup("v2"));
    expect_attrs(r, {{"k", "v2"}}, "\xC0");
    // Replacing plainly: the old value is freed, the new one is not owned.
    static const char lit[] = "lit";
    ezxml_set_attr(r, "k", lit);
    expect_attrs(r, {{"k", "lit"}}, "\x80");
    EXPECT_EQ(r->attr[1], lit);

    ezxml_set_flag(r, EZXML_COPY);
    ezxml_set_attr(r, dup("a"), dup("1"));
    ezxml_set_attr(r, "b", "2");
    expect_attrs(r, {{"k", "lit"}, {"a", "1"}, {"b", "2"}}, "\x80\xC0 ");
    ezxml_set_attr(r, "a", nullptr);  // frees both owned strings
    expect_attrs(r, {{"k", "lit"}, {"b", "2"}}, "\x80 ");
    ezxml_set_flag(r, EZXML_COPY);
    ezxml_set_attr(r, dup("k"), nullptr);  // frees the copy, the owned name
    expect_attrs(r, {{"b", "2"}}, " ");

    // A parsed value that decoding moved out of the buffer is owned too.
    Parsed p("<p v=\"&lt;&gt;\"/>");
    ASSERT_STREQ(p.root()->attr[2 + 1], "@");
    ezxml_set_attr(p.root(), "v", "plain");
    EXPECT_STREQ(ezxml_attr(p.root(), "v"), "plain");
    EXPECT_EQ(static_cast<unsigned char>(p.root()->attr[3][0]) & EZXML_TXT_OWNED, 0);

    // A whole subtree built from copies is freed with the root.
    ezxml_node *c = ezxml_add_child(r, dup("child"), 0);
    ASSERT_NE(c, nullptr);
    ezxml_set_flag(c, EZXML_NAME_OWNED);
    for (const char *name : {"x", "y", "z"}) {
        ezxml_set_flag(c, EZXML_COPY);
        ezxml_set_attr(c, dup(name), dup(name));
    }
    ezxml_set_txt(c, dup("text"));
    ezxml_set_flag(c, EZXML_TXT_OWNED);
    EXPECT_EQ(xml_of(r), "<r b=\"2\"><child x=\"x\" y=\"y\" z=\"z\">text</child></r>");
    ezxml_free(r);
}

TEST(XmlEdit, CutUnlinksFromBothOrders) {
    constexpr char kDoc[] = "<r>0<a/>1<b/>2<a/>3<c/>4<b/>5</r>";
    const struct {
        const char *name;
        int idx;
        const char *groups, *ordered, *xml;
    } cases[] = {
        {"a", 1, "a|b b|c", "a b c b", "<r>0<a></a>1<b></b>23<c></c>4<b></b>5</r>"},
        {"b", 0, "a a|b|c", "a a c b", "<r>0<a></a>12<a></a>3<c></c>4<b></b>5</r>"},
        {"c", 0, "a a|b b", "a b a b", "<r>0<a></a>1<b></b>2<a></a>34<b></b>5</r>"},
        // The first child, whose name group goes on after it.
        {"a", 0, "a|b b|c", "b a c b", "<r>01<b></b>2<a></a>3<c></c>4<b></b>5</r>"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + ":" + std::to_string(c.idx));
        Parsed p(kDoc);
        ezxml_node *r = p.root();
        ASSERT_EQ(groups(r), "a a|b b|c");
        ezxml_node *node = ezxml_idx(ezxml_child(r, c.name), c.idx);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(ezxml_cut(node), node);
        EXPECT_EQ(node->ordered, nullptr);
        EXPECT_EQ(node->parent, r);  // kept
        EXPECT_EQ(groups(r), c.groups);
        EXPECT_EQ(ordered_names(r), c.ordered);
        expect_consistent_links(r);
        EXPECT_EQ(xml_of(r), c.xml);
        for (const char *name : {"a", "b", "c"}) {
            ezxml_node *first = ezxml_child(r, name);
            if (first != nullptr) {
                EXPECT_EQ(first->parent, r);
            }
            EXPECT_EQ(first != nullptr, std::strstr(c.ordered, name) != nullptr) << name;
        }
        ezxml_free(node);  // only the node: its document-order successors stay in r
    }

    Parsed p("<r><a><x/><y>t</y></a><b/></r>");
    ezxml_node *a = ezxml_child(p.root(), "a");
    ASSERT_NE(a, nullptr);
    ezxml_cut(a);
    EXPECT_EQ(xml_of(p.root()), "<r><b></b></r>");
    EXPECT_EQ(xml_of(a), "<a><x></x><y>t</y></a>");  // the subtree goes with it
    ezxml_free(a);
    EXPECT_EQ(ezxml_cut(nullptr), nullptr);
}

TEST(XmlEdit, FreeTakesTheDocumentOrderSuccessorsAlong) {
    Parsed p("<r><a><x/></a><b k=\"&lt;\"/>text<c>t</c></r>");
    ezxml_node *first = p.root()->child;
    ASSERT_NE(first, nullptr);
    p.root()->child = nullptr;  // detach all children; freeing the first frees them all
    ezxml_free(first);
    EXPECT_EQ(xml_of(p.root()), "<r>text</r>");
    ezxml_free(nullptr);
}

TEST(XmlEdit, FreeAttrReleasesOwnedStringsOnly) {
    ezxml_node *n = ezxml_new("n");
    ASSERT_NE(n, nullptr);
    ezxml_set_attr(n, "plain", "literal");
    ezxml_set_flag(n, EZXML_COPY);
    ezxml_set_attr(n, dup("owned"), dup("copy"));
    ezxml_set_attr(n, "owned", "literal again");  // name stays owned, value now a literal
    ezxml_set_flag(n, EZXML_COPY);
    ezxml_set_attr(n, dup("both"), dup("copy"));
    expect_attrs(n, {{"plain", "literal"}, {"owned", "literal again"}, {"both", "copy"}},
                 " \x80\xC0");
    char **list = n->attr;
    n->attr = EZXML_NIL;
    ezxml_free_attr(list);  // a literal freed here would be an invalid free
    ezxml_free_attr(EZXML_NIL);
    ezxml_free_attr(nullptr);
    EXPECT_EQ(EZXML_NIL[0], nullptr);
    ezxml_free(n);
}

}  // namespace
