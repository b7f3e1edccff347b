// Parsed element records are freed one by one, whatever document they end
// up in and in whatever order. These tests move, cut and free parsed
// elements in the ways callers can; under ASan and valgrind any record
// freed early, twice or never is reported.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qorcfg.h"

namespace {

// A document parsed from its own heap copy; the copy lives as long as the
// tree (the parser works in place).
struct Doc {
    explicit Doc(const std::string &text) : buf(text) {
        root = ezxml_parse_str(buf.data(), buf.size());
    }
    std::string buf;
    ezxml_node *root;
};

std::string xml_of(ezxml_node *node) {
    char *text = ezxml_toxml(node);
    std::string out = text != nullptr ? text : "(null)";
    std::free(text);
    return out;
}

std::string list_of(int n, const char *name) {
    std::string text = "<r>";
    for (int i = 0; i < n; ++i)
        text += "<" + std::string(name) + " i=\"" + std::to_string(i) + "\" v=\"x\"/>";
    return text + "</r>";
}

TEST(XmlPool, AMovedSubtreeOutlivesItsSourceDocument) {
    auto *source = new Doc("<a><keep k=\"1\"><inner x=\"2\">t</inner></keep><drop/></a>");
    ASSERT_STREQ(ezxml_error(source->root), "");
    ezxml_node *keep = ezxml_cut(ezxml_child(source->root, "keep"));
    ezxml_node *target = ezxml_new("b");
    ezxml_insert(keep, target, 0);
    ezxml_free(source->root);  // the source's records, except the moved ones
    // The moved elements still point into the source buffer: keep it.
    EXPECT_EQ(xml_of(target), "<b><keep k=\"1\"><inner x=\"2\">t</inner></keep></b>");
    ezxml_free(target);
    delete source;
}

TEST(XmlPool, ElementsFreedOneByOneInAnyOrder) {
    Doc doc(list_of(500, "e"));
    ASSERT_STREQ(ezxml_error(doc.root), "");
    std::vector<ezxml_node *> items;
    for (ezxml_node *e = ezxml_child(doc.root, "e"); e != nullptr; e = e->next)
        items.push_back(e);
    ASSERT_EQ(items.size(), 500u);
    // Every other one from the back, then the rest from the front.
    for (size_t i = items.size(); i-- > 0;) {
        if (i % 2 == 1)
            ezxml_free(ezxml_cut(items[i]));
    }
    for (size_t i = 0; i < items.size(); i += 2) {
        if (i >= 200)
            break;
        ezxml_free(ezxml_cut(items[i]));
    }
    // What is left is still whole, and goes with the document.
    int left = 0;
    for (ezxml_node *e = ezxml_child(doc.root, "e"); e != nullptr; e = e->next) {
        EXPECT_EQ(std::atoi(ezxml_attr(e, "i")) % 2, 0);
        ++left;
    }
    EXPECT_EQ(left, 150);
    ezxml_free(doc.root);
}

TEST(XmlPool, InterleavedDocumentsAndEditedAttributes) {
    Doc a(list_of(300, "x"));
    Doc b(list_of(300, "y"));
    Doc c(list_of(300, "z"));
    // Attribute lists stored with their elements can still be edited.
    ezxml_node *y = ezxml_idx(ezxml_child(b.root, "y"), 7);
    ASSERT_NE(y, nullptr);
    ezxml_set_attr(y, "v", "changed");
    ezxml_set_attr(y, "new", "added");
    ezxml_set_attr(y, "i", nullptr);
    ezxml_set_flag(y, EZXML_COPY);
    ezxml_set_attr(y, strdup("copied"), strdup("value"));
    EXPECT_EQ(xml_of(y), "<y v=\"changed\" new=\"added\" copied=\"value\"></y>");
    ezxml_free(b.root);
    EXPECT_EQ(xml_of(ezxml_idx(ezxml_child(a.root, "x"), 299)), "<x i=\"299\" v=\"x\"></x>");
    ezxml_free(c.root);
    ezxml_free(a.root);
}

TEST(XmlPool, AnElementLargerThanAChunk) {
    std::string text = "<r><big";
    for (int i = 0; i < 20000; ++i)
        text += " a" + std::to_string(i) + "=\"" + std::to_string(i) + "\"";
    text += "/><small/></r>";
    Doc doc(text);
    ASSERT_STREQ(ezxml_error(doc.root), "");
    ezxml_node *big = ezxml_child(doc.root, "big");
    EXPECT_STREQ(ezxml_attr(big, "a19999"), "19999");
    ezxml_free(ezxml_cut(big));
    EXPECT_NE(ezxml_child(doc.root, "small"), nullptr);
    ezxml_free(doc.root);
}

TEST(XmlPool, DocumentsParsedAndFreedOnSeveralThreads) {
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &failures] {
            for (int round = 0; round < 50; ++round) {
                Doc doc(list_of(200 + t, "e"));
                ezxml_node *last = ezxml_idx(ezxml_child(doc.root, "e"), 199 + t);
                if (last == nullptr || std::strcmp(ezxml_attr(last, "v"), "x") != 0)
                    ++failures[static_cast<size_t>(t)];
                // Move one element into a document of its own, freed later.
                ezxml_node *moved = ezxml_cut(ezxml_child(doc.root, "e"));
                ezxml_node *other = ezxml_new("o");
                ezxml_insert(moved, other, 0);
                ezxml_free(doc.root);
                ezxml_free(other);
            }
        });
    }
    for (std::thread &th : threads)
        th.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
