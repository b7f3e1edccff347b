// tests/xml/parse_test.cpp - reading XML text into the document tree: the node
// and root records as callers read them, navigation, reference decoding,
// attribute normalisation, the internal DTD subset, processing instructions,
// UTF-16 input, the exact error messages, the file and stream entry points,
// and parsing only the element at a dotted group path out of a stream.
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

std::vector<std::string> texts(char **list) {
    std::vector<std::string> out;
    for (; list != nullptr && *list != nullptr; ++list)
        out.emplace_back(*list);
    return out;
}

TEST(XmlParse, NodeRecordsLinkNameGroupsAndDocumentOrder) {
    Parsed p("<r>t0<a i=\"1\"/>t1<b/>t2<a i=\"2\">in</a>t3<c/><b/></r>");
    ASSERT_EQ(p.error(), "");
    ezxml_node *r = p.root();
    EXPECT_EQ(r->parent, nullptr);
    EXPECT_EQ(r->ordered, nullptr);
    EXPECT_STREQ(r->txt, "t0t1t2t3");
    EXPECT_NE(r->flags & EZXML_TXT_OWNED, 0);  // the pieces were joined into an allocated text
    std::vector<ezxml_node *> n;               // children in document order
    for (ezxml_node *c = r->child; c != nullptr && n.size() < 10; c = c->ordered)
        n.push_back(c);
    ASSERT_EQ(n.size(), 5u);
    // name, offset, next of the same name, first of the next name group
    const std::tuple<const char *, size_t, ezxml_node *, ezxml_node *> want[] = {
        {"a", 2, n[2], n[1]},
        {"b", 4, n[4], n[3]},
        {"a", 6, nullptr, nullptr},
        {"c", 8, nullptr, nullptr},
        {"b", 8, nullptr, nullptr}};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_STREQ(n[i]->name, std::get<0>(want[i]));
        EXPECT_TRUE(p.in_buffer(n[i]->name));
        EXPECT_EQ(n[i]->off, std::get<1>(want[i]));
        EXPECT_EQ(n[i]->next, std::get<2>(want[i]));
        EXPECT_EQ(n[i]->sibling, std::get<3>(want[i]));
        EXPECT_EQ(n[i]->parent, r);
    }
    EXPECT_STREQ(n[2]->txt, "in");
    EXPECT_TRUE(p.in_buffer(n[2]->txt));  // a single undecoded piece stays in the buffer
    EXPECT_EQ(n[2]->flags, 0);
    EXPECT_EQ(n[1]->attr, EZXML_NIL);
    EXPECT_EQ(EZXML_NIL[0], nullptr);
    EXPECT_EQ(p.doc()->len, 0u);  // the root record of an in-place parse
    EXPECT_EQ(p.doc()->m, p.buffer());
    EXPECT_EQ(p.doc()->u, nullptr);

    // Text between the prologue's parts is the root's text: it counts for
    // the children's offsets and is written back inside the root.
    Parsed pro("<?xml version=\"1.0\"?>\n<!-- c -->\n<q>x<k/></q>");
    EXPECT_STREQ(pro.root()->txt, "\n\nx");
    EXPECT_EQ(ezxml_child(pro.root(), "k")->off, 3u);
    Parsed one("<?p?> <q/>");
    EXPECT_TRUE(one.in_buffer(one.root()->txt));
    EXPECT_EQ(xml_of(one.root()), "<?p?>\n<q> </q>");
}

TEST(XmlParse, AttributesKeepTheirOrderAndAnOwnershipString) {
    Parsed p("<r a=\"1\" b='say \"hi\"' c e=\"x&lt;y\" f=\"p&amp;q\"><d x=\"1\" x=\"2\"/></r>");
    ASSERT_EQ(p.error(), "");
    char **attr = p.root()->attr;
    EXPECT_EQ(attributes(p.root()), "a=1;b=say \"hi\";c=;e=x<y;f=p&q;");
    ASSERT_EQ(attr[10], nullptr);
    // A value is marked '@' exactly when decoding moved it out of the buffer
    // ("&lt;" is replaced by the longer "&#60;" first).
    EXPECT_STREQ(attr[11], "   @ ");
    for (int i : {0, 1, 3, 4})  // (c's empty value aside)
        EXPECT_EQ(p.in_buffer(attr[2 * i + 1]), i != 3) << i;
    EXPECT_EQ(ezxml_attr(p.root(), "zz"), nullptr);
    EXPECT_STREQ(ezxml_attr(ezxml_child(p.root(), "d"), "x"), "1");  // the first one wins
}

TEST(XmlParse, NavigatesByNameIndexAndPath) {
    Parsed p("<r><a><b>0</b></a><ab/><a><b>1</b><b>2</b></a><a/></r>");
    ezxml_node *r = p.root();
    ezxml_node *a = ezxml_child(r, "a");
    EXPECT_EQ(a, r->child);
    EXPECT_STREQ(ezxml_child(r, "ab")->name, "ab");
    EXPECT_EQ(ezxml_child(r, "b"), nullptr);  // grandchildren are not children
    EXPECT_EQ(ezxml_idx(a, 0), a);
    EXPECT_EQ(ezxml_idx(a, 2), a->next->next);
    EXPECT_EQ(ezxml_idx(a, 3), nullptr);
    EXPECT_STREQ(ezxml_get(r, "a", 1, "b", 1, "")->txt, "2");
    EXPECT_EQ(ezxml_get(r, "a", 1, "b", 0, static_cast<const char *>(nullptr)),
              ezxml_child(ezxml_idx(a, 1), "b"));
    EXPECT_EQ(ezxml_get(r, "a", -1, "b", 0, ""), a);  // a negative index stops the walk there
    EXPECT_EQ(ezxml_get(r, "a", 3, ""), nullptr);
    EXPECT_EQ(ezxml_get(r, ""), r);
    EXPECT_EQ(ezxml_child(nullptr, "a"), nullptr);
    EXPECT_EQ(ezxml_idx(nullptr, 0), nullptr);
    EXPECT_EQ(ezxml_attr(nullptr, "a"), nullptr);
    EXPECT_EQ(ezxml_get(nullptr, "a", 0, ""), nullptr);
    EXPECT_STREQ(ezxml_error(nullptr), "");
    char **none = ezxml_pi(nullptr, "a");
    EXPECT_TRUE(none == nullptr || none[0] == nullptr);
}

TEST(XmlParse, DecodesReferencesLineEndsAndDeclaredAttributes) {
    const std::pair<const char *, const char *> cases[] = {
        {"&#65;&#x41;", "AA"},
        {"&lt;&gt;&amp;&quot;&apos;", "<>&\"'"},
        {"a&amp;lt;b", "a&lt;b"},  // decoded once, not again
        {"&#0; &#65 x &#65x; &lt &nope; &ltx;", "&#0; &#65 x &#65x; &lt &nope; &ltx;"},
        {"&#x7F;&#x80;&#233;", "\x7F\xC2\x80\xC3\xA9"},
        {"&#x7FF;&#x800;&#xFFFF;", "\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
        {"&#x10000;&#x10FFFF;", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {"a\r\nb\rc\n\rd", "a\nb\nc\n\nd"},
        {"<![CDATA[&amp; <x> \r\n]]>", "&amp; <x> \n"},
        {"x<![CDATA[<]]>y", "x<y"},
    };
    for (const auto &[in, out] : cases) {
        Parsed p("<r>" + std::string(in) + "</r>");
        EXPECT_STREQ(p.root()->txt, out) << in;
    }
    Parsed attr("<r v=\"&#65;&lt;&nope;&#0;&#x263A;\"/>");
    EXPECT_STREQ(ezxml_attr(attr.root(), "v"), "A<&nope;&#0;\xE2\x98\xBA");

    Parsed p(
        "<!DOCTYPE r [\n<!ATTLIST r tok NMTOKENS #IMPLIED cd CDATA #IMPLIED en (x|y) \"  y  \"\n"
        "  mode CDATA \"auto\" ver CDATA #FIXED \"2\" amp CDATA \"a&amp;b\" opt CDATA #IMPLIED>\n"
        "<!ATTLIST q k CDATA 'v'>\n]>\n"
        "<r tok=\"  a \t b\n\n c  \" cd=\"  a \t b\r\n c  \" free=\"  a   b  \" mode=\"manual\">"
        "<s tok=\"  a   b  \"/><q/></r>");
    ASSERT_EQ(p.error(), "");
    // Non-CDATA squeezed and trimmed, CDATA each white space a space,
    // undeclared unchanged; defaults decoded with their type, not copied.
    EXPECT_EQ(attributes(p.root()), "tok=a b c;cd=  a   b  c  ;free=  a   b  ;mode=manual;");
    const std::pair<const char *, const char *> defaults[] = {
        {"en", "y"}, {"ver", "2"}, {"amp", "a&b"}, {"opt", nullptr}};
    for (const auto &[name, value] : defaults)
        EXPECT_STREQ(ezxml_attr(p.root(), name), value) << name;
    EXPECT_STREQ(ezxml_attr(ezxml_child(p.root(), "s"), "tok"), "  a   b  ");  // other tag
    EXPECT_STREQ(ezxml_attr(ezxml_child(p.root(), "q"), "k"), "v");
}

TEST(XmlParse, ReadsEntitiesFromTheInternalSubset) {
    const std::tuple<const char *, const char *, short> cases[] = {
        {"<!DOCTYPE r [<!ENTITY e \"v\">]><r>[&e;]</r>", "[v]", 0},
        {"<!DOCTYPE r [<!ENTITY a \"A\"><!ENTITY b \"[&a;]\">]><r>&b;</r>", "[A]", 0},
        {"<!DOCTYPE r [<!ENTITY lt \"X\"><!ENTITY e \"1\"><!ENTITY e \"2\">]><r>&lt;&e;</r>", "<1",
         0},
        {"<!DOCTYPE r [<!ENTITY % p \"xy\"><!ENTITY g \"a%p;b\">]><r>&g;%p;&p;</r>", "axyb%p;&p;",
         0},
        {"<!DOCTYPE r [<!ENTITY ext SYSTEM \"x.ent\"><!ENTITY in \"i\">]><r>&ext;&in;</r>",
         "&ext;i", 0},
        {"<!DOCTYPE r [<!ELEMENT r (#PCDATA)><!-- c --><!ENTITY y \"yes\">]><r>&x;&y;</r>",
         "&x;yes", 0},
        {"<!DOCTYPE r [<!ENTITY c \"&#65;&#x42;\"><!ENTITY m \"<b>x</b>\">]><r>&c;&m;</r>",
         "AB<b>x</b>", 0},
        // A parameter-entity reference outside a declaration ends the subset,
        // unless the document is declared standalone.
        {"<!DOCTYPE r [<!ENTITY a \"1\"> %pe; <!ENTITY b \"2\">]><r>&a;&b;</r>", "1&b;", 0},
        {"<?xml version=\"1.0\" standalone=\"yes\"?>"
         "<!DOCTYPE r [<!ENTITY a \"1\"> %pe; <!ENTITY b \"2\">]><r>&a;&b;</r>",
         "12", 1},
        {"<?xml version=\"1.0\" standalone=\"no\"?><r/>", "", 0},
    };
    for (const auto &[doc, txt, standalone] : cases) {
        Parsed p(doc);
        ASSERT_EQ(p.error(), "") << doc;
        EXPECT_STREQ(p.root()->txt, txt) << doc;
        EXPECT_EQ(p.doc()->standalone, standalone) << doc;
    }
    // Many declarations: the first of a name wins (the predefined ones
    // first), names holding a ';' match where a reference has them, and
    // chains resolve in either direction.
    std::string doc = "<!DOCTYPE r [<!ENTITY lt \"X\"><!ENTITY a;b \"odd\">";
    for (int i = 0; i < 300; ++i)
        doc += "<!ENTITY f" + std::to_string(i) + " \"&f" + std::to_string(i + 1) +
               ";\"><!ENTITY b" + std::to_string(i) + " \"" +
               (i == 0 ? "base" : "&b" + std::to_string(i - 1) + ";") + "\"><!ENTITY d \"" +
               std::to_string(i) + "\">";
    Parsed many(doc + "<!ENTITY f300 \"end\">]><r>&lt;&a;b;&a;&d;&f0;&b299;</r>");
    EXPECT_STREQ(many.root()->txt, "<odd&a;0endbase");
    // A replacement longer than its reference moves the text out of the
    // buffer, and the tree owns it.
    Parsed p("<!DOCTYPE r [<!ENTITY e \"a much longer replacement\">]><r a=\"&e;\">&e;</r>");
    EXPECT_STREQ(p.root()->txt, "a much longer replacement");
    EXPECT_FALSE(p.in_buffer(p.root()->txt));
    EXPECT_NE(p.root()->flags & EZXML_TXT_OWNED, 0);
    EXPECT_STREQ(ezxml_attr(p.root(), "a"), "a much longer replacement");
    EXPECT_STREQ(p.root()->attr[3], "@");
}

TEST(XmlParse, StoresProcessingInstructionsByTarget) {
    Parsed p(
        "<?xml version=\"1.0\"?>\n<?app one?>\n<?style two?>\n<?app three?>\n"
        "<r><c/><?app four?></r>\n<?app five?>\n<?empty?>\n");
    ASSERT_EQ(p.error(), "");
    const std::vector<std::string> app = {"one", "three", "four", "five"};
    EXPECT_EQ(texts(ezxml_pi(p.root(), "app")), app);
    EXPECT_EQ(texts(ezxml_pi(ezxml_child(p.root(), "c"), "app")), app);  // climbs to the root
    EXPECT_EQ(texts(ezxml_pi(p.root(), "empty")), std::vector<std::string>{""});
    EXPECT_EQ(ezxml_pi(p.root(), "xml")[0], nullptr);  // the declaration is not stored
    EXPECT_EQ(ezxml_pi(p.root(), "none")[0], nullptr);
    // Targets in first-seen order; after each list's NULL, one position
    // character per text: '<' before the root element opened, '>' after.
    char ***pi = p.doc()->pi;
    const std::pair<const char *, const char *> lists[] = {
        {"app", "<<>>"}, {"style", "<"}, {"empty", ">"}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_STREQ(pi[i][0], lists[i].first);
        const size_t end = texts(pi[i] + 1).size() + 1;
        EXPECT_STREQ(pi[i][end + 1], lists[i].second);
    }
    EXPECT_EQ(pi[3], nullptr);
}

TEST(XmlParse, ConvertsUtf16InBothByteOrders) {
    for (bool big_endian : {false, true}) {
        std::string input;
        for (char16_t unit : std::u16string(u"\uFEFF<r a=\"\u00E9\">x\U0001F600<c/></r>\n")) {
            const char hi = static_cast<char>(unit >> 8), lo = static_cast<char>(unit & 0xFF);
            input += big_endian ? std::string{hi, lo} : std::string{lo, hi};
        }
        Parsed p(input);
        ASSERT_EQ(p.error(), "");
        EXPECT_STREQ(ezxml_attr(p.root(), "a"), "\xC3\xA9");
        EXPECT_STREQ(p.root()->txt, "x\xF0\x9F\x98\x80");  // the surrogate pair is one code point
        EXPECT_EQ(ezxml_child(p.root(), "c")->off, 5u);
        EXPECT_NE(p.doc()->u, nullptr);
    }
}

TEST(XmlParse, ReportsEachErrorWithItsLine) {
    const std::tuple<const char *, int, const char *> cases[] = {
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
        {"</x><r/>", 1, "unexpected closing tag </x>"},
        {"<!DOCTYPE r [\n<!ATTLIST ]><r/>", 2, "unclosed <!ATTLIST"},
        {"<!DOCTYPE r [\n<!ATTLIST r a CDATA bogus>]><r/>", 2, "malformed <!ATTLIST"},
    };
    for (const auto &[doc, line, message] : cases) {
        Parsed p(doc);
        EXPECT_EQ(p.error(), "[error near line " + std::to_string(line) + "]: " + message) << doc;
        EXPECT_STREQ(p.doc()->err, ezxml_error(p.root()));
    }
    // The entity's name may be reported with or without its stored ';'.
    Parsed circular("<!DOCTYPE r [\n<!ENTITY a 'x&a;y'>]><r/>");
    EXPECT_EQ(circular.error().rfind("[error near line 2]: circular entity declaration &a", 0), 0u);
    // The parse stops at the error; the partial tree stays reachable.
    Parsed partial("<r>\n<a k=\"v\">t\n</b>\n</r>");
    EXPECT_STREQ(ezxml_attr(ezxml_child(partial.root(), "a"), "k"), "v");
    // Long messages are cut to the record.
    const std::string name(300, 'n');
    Parsed cut("<r></" + name + ">\n");
    EXPECT_EQ(cut.error(),
              ("[error near line 1]: unexpected closing tag </" + name).substr(0, EZXML_ERRL - 1));
    // Only `len` bytes are read and written; text after the root is ignored.
    std::string buf = "<r>x</r>tail";
    ezxml_node *r = ezxml_parse_str(buf.data(), 8);
    EXPECT_STREQ(r->txt, "x");
    ezxml_free(r);
    EXPECT_EQ(buf.substr(8), "tail");
    Parsed trailing("<r>a</r>trailing text\n");
    EXPECT_EQ(trailing.error(), "");
}

// ---- files and streams -------------------------------------------------------------

class XmlFiles : public SandboxTest {
protected:
    // The tree of the file below; `len` of its root record.
    static void expect_tree(ezxml_node *cfg, size_t len) {
        ASSERT_NE(cfg, nullptr);
        EXPECT_EQ(xml_of(cfg), "<cfg>\n<sys name=\"ap&amp;1\">x</sys>\n</cfg>");
        EXPECT_EQ(reinterpret_cast<ezxml_root *>(cfg)->len, len);
        ezxml_free(cfg);
    }
};

TEST_F(XmlFiles, MapsFilesAndReadsStreams) {
    const std::string text = "<cfg>\n<sys name=\"ap&amp;1\">x</sys>\n</cfg>\n";
    sandbox.write("/etc/doc.xml", text);
    const std::string host = sandbox.path("/etc/doc.xml");
    qorcfg::os::set_root("");  // host paths pass the seam unchanged
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t mapped = (text.size() + page - 1) / page * page;
    expect_tree(ezxml_parse_file(host.c_str()), mapped);
    EXPECT_EQ(ezxml_parse_file(sandbox.path("/etc/missing.xml").c_str()), nullptr);
    EXPECT_EQ(ezxml_parse_fd(-1), nullptr);
    const int fd = ::open(host.c_str(), O_RDONLY);
    expect_tree(ezxml_parse_fd(fd), mapped);
    ::lseek(fd, 0, SEEK_SET);  // a file that cannot be mapped is read into a buffer
    qorcfg::os::fail_nth(Call::mmap, 1, ENOMEM);
    expect_tree(ezxml_parse_fd(fd), SIZE_MAX);
    EXPECT_EQ(::close(fd), 0);  // the descriptor stays the caller's
    FILE *fp = std::fopen(host.c_str(), "r");
    expect_tree(ezxml_parse_fp(fp), SIZE_MAX);
    EXPECT_EQ(std::fgetc(fp), EOF);  // read to its end, left open
    EXPECT_EQ(std::fclose(fp), 0);
}

// The prefix parser over `file` from a memory stream, which must be read to
// its end and left open; the element serialised, "(none)" for NULL, with the
// parse error appended after " | " when there is one.
std::string by_prefix(std::string file, const char *prefix) {
    FILE *fp = fmemopen(file.data(), file.size(), "r");
    ezxml_node *tree = ezxml_parse_fp_by_prefix(fp, prefix);
    EXPECT_EQ(std::fgetc(fp), EOF);
    EXPECT_EQ(std::fclose(fp), 0);
    if (tree == nullptr)
        return "(none)";
    EXPECT_EQ(tree->parent, nullptr);  // the element is the root; its ancestors are not read
    EXPECT_EQ(reinterpret_cast<ezxml_root *>(tree)->len, SIZE_MAX);
    const std::string error = ezxml_error(tree);
    const std::string out = xml_of(tree) + (error.empty() ? "" : " | " + error);
    ezxml_free(tree);
    return out;
}

TEST(XmlPrefix, ParsesOnlyTheElementAtADottedPath) {
    const std::string config =
        "<qorconfig>\n<sys><name>ap</name></sys>\n<wlan>\n"
        "<radio id=\"0\"><vap>a</vap><vap>b</vap></radio>\n<radio id=\"1\"><vap>c</vap></radio>\n"
        "</wlan>\n</qorconfig>\n";
    const std::string r0 = "<radio id=\"0\"><vap>a</vap><vap>b</vap></radio>";
    const std::string r1 = "<radio id=\"1\"><vap>c</vap></radio>";
    Parsed whole(config);
    const std::pair<std::string, std::string> cases[] = {
        {"qorconfig.sys", "<sys><name>ap</name></sys>"},
        {"qorconfig.wlan.radio", r0},
        {"qorconfig.wlan.radio:0", r0},
        {"qorconfig.wlan.radio:01", r1},
        {"qorconfig.radio:1", r1},  // a step need not be a direct child
        {"qorconfig.wlan.radio:1.vap", "<vap>c</vap>"},
        {"qorconfig.wlan.radio.vap:1", "<vap>b</vap>"},
        // Occurrences are counted through the rest of the file, not only
        // among the children of the element found so far.
        {"qorconfig.wlan.radio:0.vap:2", "<vap>c</vap>"},
        {"qorconfig", xml_of(whole.root())},
        {std::string(5000, 'q'), "(none)"},
    };
    for (const auto &[prefix, xml] : cases)
        EXPECT_EQ(by_prefix(config, prefix.c_str()), xml) << prefix;
    for (const char *prefix :
         {"nosuch", "qorconfig.sys.nosuch", "qorconfig:0", "qorconfig.wlan.radio:2",
          "qorconfig.wlan.radio.vap:3", "qorconfig.wlan.radio:x", "qorconfig.wlan.radio:1x",
          "qorconfig.wlan.radio:-1", "qorconfig.wlan.radio: 1", "qorconfig.wlan.radio:0x1"})
        EXPECT_EQ(by_prefix(config, prefix), "(none)") << prefix;

    // Tags are matched as text. An empty-element tag has no closing tag; the
    // probe for "ab" stops at the longer "abc", and the slice ends at the
    // first "</ab>" and one byte more; line numbers count from the slice.
    const std::tuple<const char *, const char *, const char *> text_cases[] = {
        {"<cfg><flag on=\"1\"/></cfg>\n", "cfg.flag", "(none)"},
        {"<cfg><flag on=\"1\"></flag></cfg>\n", "cfg.flag", "<flag on=\"1\"></flag>"},
        {"<r><abc><ab>in</ab></abc></r>\n", "r.ab",
         "<abc><ab>in</ab></abc> | [error near line 1]: unclosed tag <abc>"},
        {"<r><g><g>in</g></g></r>\n", "r.g",
         "<g><g>in</g></g> | [error near line 1]: unclosed tag <g>"},
        {"<r>\n\n<s>\n<t></u>\n</s>\n</r>\n", "r.s",
         "<s>\n<t></t></s> | [error near line 2]: unexpected closing tag </u>"},
        // The last byte of the file is not searched: with a line end after
        // it the closing root tag is found.
        {"<r><a>x</a></r>", "r", "(none)"},
        {"<r><a>x</a></r>", "r.a", "<a>x</a>"},
        {"<r><a>x</a></r>\n", "r", "<r><a>x</a></r>"},
    };
    for (const auto &[file, prefix, xml] : text_cases)
        EXPECT_EQ(by_prefix(file, prefix), xml) << file;

    // Prefixes of 1024 bytes or more are rejected; just under the limit the
    // probes are as long as their buffers and the call ends cleanly.
    auto file_with = [](const std::string &name) {
        return "<r><" + name + ">v</" + name + "></r>\n";
    };
    const std::string n1000(1000, 'n'), n1021(1021, 'n'), n1022(1022, 'n');
    EXPECT_EQ(by_prefix(file_with(n1000), ("r." + n1000).c_str()),
              "<" + n1000 + ">v</" + n1000 + ">");
    EXPECT_EQ(by_prefix(file_with(n1022), ("r." + n1022).c_str()), "(none)");
    by_prefix(file_with(n1021), ("r." + n1021).c_str());

    // Without a path the whole stream is parsed, around the 1024-byte reads.
    for (size_t size : {64, 1023, 1024, 1025, 2048, 5000}) {
        const std::string doc = "<r a=\"1\">" + std::string(size - 24, 'x') + "<c>&lt;</c></r>";
        Parsed p(doc);
        EXPECT_EQ(by_prefix(doc, nullptr), xml_of(p.root())) << size;
        FILE *fp = fmemopen(const_cast<char *>(doc.data()), doc.size(), "r");
        ezxml_node *tree = ezxml_parse_fp(fp);
        EXPECT_EQ(xml_of(tree), xml_of(p.root())) << size;
        ezxml_free(tree);
        std::fclose(fp);
    }

    // Allocation failures give NULL or a tree with an error.
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);  // the read buffer
    EXPECT_EQ(by_prefix(config, nullptr), "(none)");
    ezxml_node *last = nullptr;
    EXPECT_GT(sweep_allocations([&] {
                  std::string file = config;
                  FILE *fp = fmemopen(file.data(), file.size(), "r");
                  ezxml_free(last);
                  last = ezxml_parse_fp_by_prefix(fp, "qorconfig.wlan.radio:1");
                  std::fclose(fp);
                  return last != nullptr && ezxml_error(last)[0] == '\0';
              }),
              1u);
    EXPECT_EQ(xml_of(last), r1);
    ezxml_free(last);
}

}  // namespace
