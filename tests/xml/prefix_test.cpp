// tests/xml/prefix_test.cpp - parsing only the element at a dotted group path
// out of a whole configuration stream, by plain text search, and reading a
// whole stream without a path.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "os/os.h"
#include "qorcfg.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::os::Call;
using Tree = std::unique_ptr<ezxml_node, decltype(&ezxml_free)>;

// Runs the prefix parser over `file` from a memory stream, and checks that the
// stream was read to its end and left open.
Tree parse_prefix(const std::string &file, const char *prefix) {
    std::string data = file;
    FILE *fp = fmemopen(data.data(), data.size(), "r");
    if (fp == nullptr) {
        ADD_FAILURE() << "fmemopen failed";
        return Tree(nullptr, &ezxml_free);
    }
    Tree tree(ezxml_parse_fp_by_prefix(fp, prefix), &ezxml_free);
    EXPECT_EQ(std::fgetc(fp), EOF);
    EXPECT_EQ(std::fclose(fp), 0);
    return tree;
}

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

// A whole-document parse of `text` from an exact-size copy, serialised.
std::string whole_parse(const std::string &text) {
    std::vector<char> buf(text.begin(), text.end());
    ezxml_node *root = ezxml_parse_str(buf.data(), buf.size());
    EXPECT_STREQ(ezxml_error(root), "");
    std::string out = xml_of(root);
    ezxml_free(root);
    return out;
}

constexpr char kConfig[] =
    "<qorconfig>\n"
    "<sys><name>ap</name></sys>\n"
    "<wlan>\n"
    "<radio id=\"0\"><vap>a</vap><vap>b</vap></radio>\n"
    "<radio id=\"1\"><vap>c</vap></radio>\n"
    "</wlan>\n"
    "</qorconfig>\n";

constexpr char kRadio0[] = "<radio id=\"0\"><vap>a</vap><vap>b</vap></radio>";
constexpr char kRadio1[] = "<radio id=\"1\"><vap>c</vap></radio>";

TEST(XmlPrefix, ReturnsTheElementAtADottedPath) {
    const struct {
        const char *prefix, *xml;
    } cases[] = {
        {"qorconfig.sys", "<sys><name>ap</name></sys>"},
        {"qorconfig.wlan.radio", kRadio0},
        {"qorconfig.wlan.radio:0", kRadio0},
        {"qorconfig.wlan.radio:1", kRadio1},
        {"qorconfig.wlan.radio:01", kRadio1},
        {"qorconfig.radio:1", kRadio1},  // a step need not be a direct child
        {"qorconfig.wlan.radio:1.vap", "<vap>c</vap>"},
        {"qorconfig.wlan.radio.vap:1", "<vap>b</vap>"},
        // Occurrences are counted through the rest of the file, not only
        // among the children of the element found so far.
        {"qorconfig.wlan.radio.vap:2", "<vap>c</vap>"},
        {"qorconfig.wlan.radio:0.vap:2", "<vap>c</vap>"},
        {"qorconfig", nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.prefix);
        Tree tree = parse_prefix(kConfig, c.prefix);
        ASSERT_NE(tree, nullptr);
        EXPECT_STREQ(ezxml_error(tree.get()), "");
        EXPECT_EQ(tree->parent, nullptr);  // the element is the root; its ancestors are not read
        EXPECT_EQ(reinterpret_cast<ezxml_root *>(tree.get())->len, SIZE_MAX);
        EXPECT_EQ(xml_of(tree.get()), c.xml != nullptr ? c.xml : whole_parse(kConfig));
    }
}

TEST(XmlPrefix, NullWhenThePathIsNotFoundOrMalformed) {
    const char *const prefixes[] = {
        "nosuch",
        "qorconfig.nosuch",
        "qorconfig.sys.nosuch",
        "qorconfig:0",  // the first name is used as written
        "qorconfig.wlan.radio:2",
        "qorconfig.wlan.radio.vap:3",
        "qorconfig.wlan.radio:x",
        "qorconfig.wlan.radio:1x",
        "qorconfig.wlan.radio:-1",
        "qorconfig.wlan.radio: 1",
        "qorconfig.wlan.radio:0x1",
    };
    for (const char *prefix : prefixes) {
        SCOPED_TRACE(prefix);
        EXPECT_EQ(parse_prefix(kConfig, prefix), nullptr);
    }
    // An element written as a single empty-element tag has no closing tag.
    EXPECT_EQ(parse_prefix("<cfg><flag on=\"1\"/></cfg>\n", "cfg.flag"), nullptr);
    EXPECT_NE(parse_prefix("<cfg><flag on=\"1\"></flag></cfg>\n", "cfg.flag"), nullptr);
}

TEST(XmlPrefix, MatchesTagsAsText) {
    // The probe for "ab" stops at the longer name "abc"; the slice then ends
    // at the first "</ab>" and one byte more.
    Tree longer = parse_prefix("<r><abc><ab>in</ab></abc></r>\n", "r.ab");
    ASSERT_NE(longer, nullptr);
    EXPECT_STREQ(longer->name, "abc");
    ASSERT_NE(ezxml_child(longer.get(), "ab"), nullptr);
    EXPECT_STREQ(ezxml_child(longer.get(), "ab")->txt, "in");
    EXPECT_STREQ(ezxml_error(longer.get()), "[error near line 1]: unclosed tag <abc>");

    // An element holding one of its own name is cut at the inner closing tag.
    Tree nested = parse_prefix("<r><g><g>in</g></g></r>\n", "r.g");
    ASSERT_NE(nested, nullptr);
    EXPECT_STREQ(nested->name, "g");
    ASSERT_NE(ezxml_child(nested.get(), "g"), nullptr);
    EXPECT_STREQ(ezxml_child(nested.get(), "g")->txt, "in");
    EXPECT_STREQ(ezxml_error(nested.get()), "[error near line 1]: unclosed tag <g>");

    // Line numbers count from the start of the slice.
    Tree lines = parse_prefix("<r>\n\n<s>\n<t></u>\n</s>\n</r>\n", "r.s");
    ASSERT_NE(lines, nullptr);
    EXPECT_STREQ(ezxml_error(lines.get()), "[error near line 2]: unexpected closing tag </u>");
}

TEST(XmlPrefix, TheLastByteOfTheFileIsNotSearched) {
    const std::string cut = "<r><a>x</a></r>";
    EXPECT_EQ(parse_prefix(cut, "r"), nullptr);
    Tree inner = parse_prefix(cut, "r.a");
    ASSERT_NE(inner, nullptr);
    EXPECT_EQ(xml_of(inner.get()), "<a>x</a>");

    // With a line end after it, the closing root tag is found; the byte
    // after it is the terminating NUL.
    Tree whole = parse_prefix(cut + "\n", "r");
    ASSERT_NE(whole, nullptr);
    EXPECT_STREQ(ezxml_error(whole.get()), "");
    EXPECT_EQ(xml_of(whole.get()), cut);
}

TEST(XmlPrefix, PrefixesOf1024BytesOrMoreAreRejected) {
    auto file_with = [](const std::string &name) {
        return "<r><" + name + ">v</" + name + "></r>\n";
    };
    const std::string n1000(1000, 'n');
    Tree fits = parse_prefix(file_with(n1000), ("r." + n1000).c_str());
    ASSERT_NE(fits, nullptr);
    EXPECT_EQ(fits->name, n1000);
    EXPECT_STREQ(fits->txt, "v");

    const std::string n1022(1022, 'n');  // "r." + name = 1024 bytes
    EXPECT_EQ(parse_prefix(file_with(n1022), ("r." + n1022).c_str()), nullptr);
    const std::string n1024(1024, 'r');
    EXPECT_EQ(parse_prefix("<" + n1024 + ">v</" + n1024 + ">\n", n1024.c_str()), nullptr);
    EXPECT_EQ(parse_prefix(kConfig, std::string(5000, 'q').c_str()), nullptr);

    // Just under the limit the probes are as long as their buffers: the call
    // ends cleanly, with the element or without it.
    const std::string n1021(1021, 'n');
    Tree edge = parse_prefix(file_with(n1021), ("r." + n1021).c_str());
    if (edge != nullptr) {
        EXPECT_EQ(edge->name, n1021);
    }
}

TEST(XmlPrefix, WithoutAPathTheWholeStreamIsParsed) {
    // Sizes around the 1024-byte read steps, each ending in the root's '>'.
    for (size_t size : {64, 1023, 1024, 1025, 2047, 2048, 5000}) {
        SCOPED_TRACE(size);
        const std::string head = "<r a=\"1\">", tail = "<c>&lt;</c></r>";
        const std::string doc = head + std::string(size - head.size() - tail.size(), 'x') + tail;
        ASSERT_EQ(doc.size(), size);
        const std::string expected = whole_parse(doc);
        for (bool by_prefix : {false, true}) {
            std::string data = doc;
            FILE *fp = fmemopen(data.data(), data.size(), "r");
            ASSERT_NE(fp, nullptr);
            Tree tree(by_prefix ? ezxml_parse_fp_by_prefix(fp, nullptr) : ezxml_parse_fp(fp),
                      &ezxml_free);
            EXPECT_EQ(std::fgetc(fp), EOF);
            EXPECT_EQ(std::fclose(fp), 0);
            ASSERT_NE(tree, nullptr);
            EXPECT_STREQ(ezxml_error(tree.get()), "");
            EXPECT_EQ(reinterpret_cast<ezxml_root *>(tree.get())->len, SIZE_MAX);
            EXPECT_EQ(xml_of(tree.get()), expected);
        }
    }
}

TEST(XmlPrefix, AllocationFailuresGiveNullOrAnError) {
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);  // the read buffer
    EXPECT_EQ(parse_prefix(kConfig, nullptr), nullptr);
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(parse_prefix(kConfig, "qorconfig.wlan.radio:1"), nullptr);

    // Every later allocation in turn, until one run no longer reaches the fault.
    for (unsigned n = 2;; ++n) {
        ASSERT_LT(n, 10000u) << "the parse never stops allocating";
        SCOPED_TRACE(n);
        qorcfg::os::reset_faults();
        qorcfg::os::count_calls(true);
        qorcfg::os::fail_nth(Call::alloc, n, ENOMEM);
        Tree tree = parse_prefix(kConfig, "qorconfig.wlan.radio:1");
        const bool reached = qorcfg::os::calls(Call::alloc) >= n;
        qorcfg::os::reset_faults();
        if (!reached) {
            ASSERT_NE(tree, nullptr);
            EXPECT_EQ(xml_of(tree.get()), kRadio1);
            break;
        }
        if (tree != nullptr) {
            EXPECT_STRNE(ezxml_error(tree.get()), "");
        }
    }
    qorcfg::os::count_calls(false);
}

}  // namespace
