// tests/xml/parse_test.cpp - reading XML text into the document tree: the node
// and root records as callers read them, navigation, reference decoding,
// attribute normalisation, the internal DTD subset, processing instructions,
// UTF-16 input, the exact error messages, the file and stream entry points,
// and parsing only the element at a dotted group path out of a stream.
#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

// A node as "name@offset", "-" for NULL.
std::string id(const ezxml_node *x) {
    return x == nullptr ? "-" : std::string(x->name) + "@" + std::to_string(x->off);
}

TEST(XmlParse, RecordsAttributesNavigationAndInstructions) {
    Parsed p("<r>t0<a i=\"1\"/>t1<b/>t2<a i=\"2\">in</a>t3<c/><b/></r>");
    ASSERT_EQ(p.error(), "");
    ezxml_node *r = p.root();
    EXPECT_TRUE(r->parent == nullptr && r->ordered == nullptr);
    EXPECT_STREQ(r->txt, "t0t1t2t3");
    EXPECT_NE(r->flags & EZXML_TXT_OWNED, 0);  // the pieces were joined into an allocated text
    // Children in document order: each with the next of its name, then the
    // first of the next name group.
    std::string links;
    for (ezxml_node *c = r->child; c != nullptr && links.size() < 200; c = c->ordered) {
        links += id(c) + ">" + id(c->next) + "," + id(c->sibling) + " ";
        EXPECT_TRUE(c->parent == r && p.in_buffer(c->name)) << c->name;
    }
    EXPECT_EQ(links, "a@2>a@6,b@4 b@4>b@8,c@8 a@6>-,- c@8>-,- b@8>-,- ");
    ezxml_node *a = ezxml_idx(r->child, 1);
    EXPECT_STREQ(a->txt, "in");
    EXPECT_TRUE(p.in_buffer(a->txt) && a->flags == 0);  // one undecoded piece stays in place
    EXPECT_TRUE(ezxml_child(r, "b")->attr == EZXML_NIL && EZXML_NIL[0] == nullptr);
    // The root record of an in-place parse.
    EXPECT_TRUE(p.doc()->len == 0 && p.doc()->m == p.buffer() && p.doc()->u == nullptr);

    // Attributes keep their order; a value is marked '@' in the ownership
    // string exactly when decoding moved it out of the buffer ("&lt;" is
    // replaced by the longer "&#60;" first); the first of a name wins.
    Parsed at("<r a=\"1\" b='say \"hi\"' c e=\"x&lt;y\" f=\"p&amp;q\"><d x=\"1\" x=\"2\"/></r>");
    char **attr = at.root()->attr;
    EXPECT_EQ(attributes(at.root()), "a=1;b=say \"hi\";c=;e=x<y;f=p&q;");
    ASSERT_EQ(attr[10], nullptr);
    EXPECT_STREQ(attr[11], "   @ ");
    for (int i : {0, 1, 3, 4})  // (c's empty value aside)
        EXPECT_EQ(at.in_buffer(attr[2 * i + 1]), i != 3) << i;
    EXPECT_EQ(ezxml_attr(at.root(), "zz"), nullptr);
    EXPECT_STREQ(ezxml_attr(ezxml_child(at.root(), "d"), "x"), "1");

    // Grandchildren are not children; a negative index stops the walk there;
    // either terminator, "" or NULL, ends a path; every reader takes NULL.
    Parsed nav("<r>0<a/>1<ab/>2<a>x<b/>y<b/></a>3<a/></r>");
    ezxml_node *n = nav.root(), *na = ezxml_child(n, "a");
    std::string ids;
    auto see = [&](const ezxml_node *x) {
        ids += id(x) + (x != nullptr && x->parent != nullptr ? x->parent->name : "") + " ";
    };
    see(na), see(ezxml_child(n, "ab")), see(ezxml_child(n, "b")), see(ezxml_idx(na, 0));
    see(ezxml_idx(na, 2)), see(ezxml_idx(na, 3)), see(ezxml_get(n, "a", 1, "b", 1, ""));
    see(ezxml_get(n, "a", 1, "b", 0, static_cast<const char *>(nullptr)));
    see(ezxml_get(n, "a", -1, "b", 0, "")), see(ezxml_get(n, "a", 3, "")), see(ezxml_get(n, ""));
    see(ezxml_child(nullptr, "a")), see(ezxml_idx(nullptr, 0)), see(ezxml_get(nullptr, "a", 0, ""));
    EXPECT_EQ(ids, "a@1r ab@2r - a@1r a@4r - b@2a b@1a a@1r - r@0 - - - ");
    EXPECT_TRUE(ezxml_attr(nullptr, "a") == nullptr && ezxml_error(nullptr)[0] == '\0');
    char **none = ezxml_pi(nullptr, "a");
    EXPECT_TRUE(none == nullptr || none[0] == nullptr);

    // Processing instructions by target.
    Parsed pi(
        "<?xml version=\"1.0\"?>\n<?app one?>\n<?style two?>\n<?app three?>\n"
        "<r><c/><?app four?></r>\n<?app five?>\n<?empty?>\n");
    // Targets in first-seen order (not the declaration), each with its texts;
    // after each list's NULL, one position character per text: '<' before
    // the root element opened, '>' after.
    std::string lists;
    for (char ***l = pi.doc()->pi; *l != nullptr; ++l) {
        char **t = *l + 1;
        for (lists += std::string(**l) + ":"; *t != nullptr; ++t)
            lists += std::string(*t) + ",";
        lists += std::string(t[1]) + " ";
    }
    EXPECT_EQ(lists, "app:one,three,four,five,<<>> style:two,< empty:,> ");
    char **app = ezxml_pi(ezxml_child(pi.root(), "c"), "app");  // climbs to the root
    EXPECT_TRUE(std::string(app[0]) == "one" && std::string(app[3]) == "five" && !app[4]);
    EXPECT_EQ(ezxml_pi(pi.root(), "none")[0], nullptr);
}

TEST(XmlParse, DecodesReferencesEntitiesLineEndsDeclaredAttributesAndUtf16) {
    Parsed p(
        "<!DOCTYPE r [\n<!ATTLIST r tok NMTOKENS #IMPLIED cd CDATA #IMPLIED en (x|y) \"  y  \"\n"
        "  mode CDATA \"auto\" ver CDATA #FIXED \"2\" amp CDATA \"a&amp;b\" opt CDATA #IMPLIED>\n"
        "<!ATTLIST q k CDATA 'v'>\n]>\n"
        "<r tok=\"  a \t b\n\n c  \" cd=\"  a \t b\r\n c  \" free=\"  a   b  \" mode=\"manual\" "
        "v=\"&#65;&lt;&nope;&#0;&#x263A;\">"
        "<s tok=\"  a   b  \"/><q/></r>");
    ASSERT_EQ(p.error(), "");
    // Non-CDATA squeezed and trimmed, CDATA each white space a space,
    // undeclared unchanged; defaults decoded with their type, not copied.
    EXPECT_EQ(attributes(p.root()),
              "tok=a b c;cd=  a   b  c  ;free=  a   b  ;mode=manual;"
              "v=A<&nope;&#0;\xE2\x98\xBA;");
    const std::pair<const char *, const char *> defaults[] = {
        {"en", "y"}, {"ver", "2"}, {"amp", "a&b"}, {"opt", nullptr}};
    for (const auto &[name, value] : defaults)
        EXPECT_STREQ(ezxml_attr(p.root(), name), value) << name;
    EXPECT_STREQ(ezxml_attr(ezxml_child(p.root(), "s"), "tok"), "  a   b  ");  // other tag
    EXPECT_STREQ(ezxml_attr(ezxml_child(p.root(), "q"), "k"), "v");

    // UTF-16 in either byte order is converted to UTF-8 first.
    for (bool big_endian : {false, true}) {
        std::string input;
        for (char16_t unit : std::u16string(u"\uFEFF<r a=\"\u00E9\">x\U0001F600<c/></r>\n")) {
            const char hi = static_cast<char>(unit >> 8), lo = static_cast<char>(unit & 0xFF);
            input += big_endian ? std::string{hi, lo} : std::string{lo, hi};
        }
        Parsed w(input);
        ASSERT_EQ(w.error(), "");
        EXPECT_STREQ(ezxml_attr(w.root(), "a"), "\xC3\xA9");
        EXPECT_STREQ(w.root()->txt, "x\xF0\x9F\x98\x80");  // the surrogate pair is one code point
        EXPECT_EQ(ezxml_child(w.root(), "c")->off, 5u);
        EXPECT_NE(w.doc()->u, nullptr);
    }

    // Character and predefined references are decoded once, and not inside
    // CDATA sections; line ends are normalised everywhere. Of entities, the first
    // declaration of a name wins, the predefined ones first; undeclared and
    // external entities stay as written.
    const std::tuple<const char *, const char *, short> cases[] = {
        {"<r>&#65;&#x41;&lt;&gt;&amp;&quot;&apos;&amp;lt;</r>", "AA<>&\"'&lt;", 0},
        {"<r>&#0; &#65 x &#65x; &lt &nope; &ltx;</r>", "&#0; &#65 x &#65x; &lt &nope; &ltx;", 0},
        {"<r>&#x7f;&#x80;&#x7FF;&#x800;&#xffff;&#x10000;&#x10FFFF;</r>",
         "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", 0},
        {"<r>a\r\nb\rc\n\rd<![CDATA[&amp; <x> \r\n]]>y</r>", "a\nb\nc\n\nd&amp; <x> \ny", 0},
        {"<!DOCTYPE r [<!ENTITY e \"v\"><!ENTITY a \"A\"><!ENTITY b \"[&a;]\"><!ENTITY lt \"X\">"
         "<!ENTITY e \"2\"><!ENTITY c \"&#65;&#x42;\"><!ENTITY m "
         "\"<b>x</b>\">]><r>[&e;]&b;&lt;&c;&m;</r>",
         "[v][A]<AB<b>x</b>", 0},
        {"<?xml version=\"1.0\" standalone=\"no\"?>"
         "<!DOCTYPE r [<!ENTITY % p \"xy\"><!ENTITY g \"a%p;b\">]><r>&g;%p;&p;</r>",
         "axyb%p;&p;", 0},
        {"<!DOCTYPE r [<!ELEMENT r (#PCDATA)><!-- c --><!ENTITY ext SYSTEM \"x.ent\">"
         "<!ENTITY y \"yes\">]><r>&ext;&x;&y;</r>",
         "&ext;&x;yes", 0},
        // A parameter-entity reference outside a declaration ends the subset,
        // unless the document is declared standalone.
        {"<!DOCTYPE r [<!ENTITY a \"1\"> %pe; <!ENTITY b \"2\">]><r>&a;&b;</r>", "1&b;", 0},
        {"<?xml version=\"1.0\" standalone=\"yes\"?>"
         "<!DOCTYPE r [<!ENTITY a \"1\"> %pe; <!ENTITY b \"2\">]><r>&a;&b;</r>",
         "12", 1},
    };
    for (const auto &[doc, txt, standalone] : cases) {
        Parsed e(doc);
        ASSERT_EQ(e.error(), "") << doc;
        EXPECT_STREQ(e.root()->txt, txt) << doc;
        EXPECT_EQ(e.doc()->standalone, standalone) << doc;
        // A replacement longer than its reference (the first entity case)
        // moves the text out of the buffer, and the tree owns it.
        EXPECT_EQ(e.in_buffer(e.root()->txt), (e.root()->flags & EZXML_TXT_OWNED) == 0) << doc;
    }
}

TEST(XmlParse, ReportsEachErrorWithItsLine) {
    const std::string name(300, 'n');  // long messages are cut to the record
    const std::tuple<std::string, int, std::string> cases[] = {
        {"<?pi x?>\n<!-- c -->\n", 2, "root tag missing"},
        {"<r/>\n<x/>", 2, "markup outside of root element"},
        {"<r>\n<a x=\"v/></r>", 2, "missing \""},
        {"<r>\n<a x='v/></r>", 2, "missing '"},
        {"<r>\n\n<a/x></a></r>", 3, "missing >"},
        {"<r>\n<a>\n</" + name + ">\n</r>", 3, "unexpected closing tag </" + name},
        {"<r>\n<!-- a -- b --></r>", 2, "unclosed <!--"},
        {"<r>\n<![CDATA[abc</r>", 2, "unclosed <![CDATA["},
        {"\n\n<!DOCTYPE r [ <r/>", 3, "unclosed <!DOCTYPE"},
        {"<r>\n<?pi x </r>", 2, "unclosed <?"},
        {"<r>\n< a></r>", 2, "unexpected <"},
        {"<r>\n<a><b>", 2, "unclosed tag <b>"},  // the final '>' opens the tag
        {"<!DOCTYPE r [\n<!ATTLIST ]><r/>", 2, "unclosed <!ATTLIST"},
        {"<!DOCTYPE r [\n<!ATTLIST r a CDATA bogus>]><r/>", 2, "malformed <!ATTLIST"},
    };
    for (const auto &[doc, line, message] : cases) {
        Parsed p(doc);
        const std::string want = "[error near line " + std::to_string(line) + "]: " + message;
        EXPECT_EQ(p.error(), want.substr(0, EZXML_ERRL - 1)) << doc;
        EXPECT_STREQ(p.doc()->err, ezxml_error(p.root()));
    }
    // The parse stops at the error; the partial tree stays reachable.
    Parsed partial("<r>\n<a k=\"v\">t\n</b>\n</r>");
    EXPECT_STREQ(ezxml_attr(ezxml_child(partial.root(), "a"), "k"), "v");
    // Text after the root is ignored.
    EXPECT_EQ(Parsed("<r>a</r>trailing text\n").error(), "");
}

// ---- files and streams -------------------------------------------------------------

using XmlFiles = SandboxTest;

TEST_F(XmlFiles, MapsFilesAndReadsTheUnmappableIn) {
    const std::string text = "<cfg>\n<sys name=\"ap&amp;1\">x</sys>\n</cfg>\n";
    sandbox.write("/etc/doc.xml", text);
    sandbox.write("/etc/empty.xml", "");
    const std::string host = sandbox.path("/etc/doc.xml"), empty = sandbox.path("/etc/empty.xml");
    qorcfg::os::set_root("");  // host paths pass the seam unchanged
    const int fd = ::open(host.c_str(), O_RDONLY);
    qorcfg::os::fail_nth(Call::mmap, 2, ENOMEM);  // the second parse cannot map its file
    const Tree trees[] = {own(ezxml_parse_file(host.c_str())), own(ezxml_parse_fd(fd))};
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t lens[] = {(text.size() + page - 1) / page * page, SIZE_MAX};  // `len` of the root
    for (int i : {0, 1}) {
        EXPECT_EQ(xml_of(trees[i].get()), "<cfg>\n<sys name=\"ap&amp;1\">x</sys>\n</cfg>") << i;
        EXPECT_EQ(reinterpret_cast<ezxml_root *>(trees[i].get())->len, lens[i]) << i;
    }
    EXPECT_EQ(::close(fd), 0);  // the descriptor stays the caller's
    EXPECT_EQ(ezxml_parse_file(sandbox.path("/etc/missing.xml").c_str()), nullptr);
    EXPECT_EQ(ezxml_parse_fd(-1), nullptr);
    // An empty file or stream: no tree, or the error of a missing root.
    const Tree file = own(ezxml_parse_file(empty.c_str()));
    EXPECT_TRUE(file == nullptr || ezxml_error(file.get())[0] != '\0');
    FILE *fp = std::fopen(empty.c_str(), "r");
    EXPECT_STREQ(ezxml_error(own(ezxml_parse_fp(fp)).get()),
                 "[error near line 1]: root tag missing");
    std::fclose(fp);
}

// The prefix parser over `file` from a memory stream, which must be read to
// its end and left open; the element serialised, "(none)" for NULL, with the
// parse error appended after " | " when there is one.
std::string by_prefix(std::string file, const char *prefix) {
    FILE *fp = fmemopen(file.data(), file.size(), "r");
    const Tree tree = own(ezxml_parse_fp_by_prefix(fp, prefix));
    EXPECT_EQ(std::fgetc(fp), EOF);
    EXPECT_EQ(std::fclose(fp), 0);
    if (tree == nullptr)
        return "(none)";
    EXPECT_EQ(tree->parent, nullptr);  // the element is the root; its ancestors are not read
    EXPECT_EQ(reinterpret_cast<ezxml_root *>(tree.get())->len, SIZE_MAX);
    const std::string error = ezxml_error(tree.get());
    return xml_of(tree.get()) + (error.empty() ? "" : " | " + error);
}

TEST(XmlPrefix, ParsesOnlyTheElementAtADottedPath) {
    const std::string config =
        "<qorconfig>\n<sys><name>ap</name></sys>\n<wlan>\n"
        "<radio id=\"0\"><vap>a</vap><vap>b</vap></radio>\n<radio id=\"1\"><vap>c</vap></radio>\n"
        "</wlan>\n</qorconfig>\n";
    const std::string r1 = "<radio id=\"1\"><vap>c</vap></radio>";
    // Occurrences are counted through the rest of the file, not only among
    // the children of the element found so far; a step need not be a direct
    // child; an index is decimal digits only; the first name takes none.
    // Tags are matched as text. An empty-element tag has no closing tag; the
    // probe for "ab" stops at the longer "abc", and the slice ends at the
    // first "</ab>" and one byte more; line numbers count from the slice.
    // The last byte of the file is not searched: with a line end after it the
    // closing root tag is found. Prefixes of 1024 bytes or more are rejected.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {config, "qorconfig.sys", "<sys><name>ap</name></sys>"},
        {config, "qorconfig.wlan.radio", "<radio id=\"0\"><vap>a</vap><vap>b</vap></radio>"},
        {config, "qorconfig.wlan.radio:01", r1},
        {config, "qorconfig.radio:1", r1},
        {config, "qorconfig.wlan.radio:1.vap", "<vap>c</vap>"},
        {config, "qorconfig.wlan.radio:0.vap:2", "<vap>c</vap>"},
        {config, "qorconfig", xml_of(Parsed(config).root())},
        {"<cfg><flag on=\"1\"/></cfg>\n", "cfg.flag", "(none)"},
        {"<cfg><flag on=\"1\"></flag></cfg>\n", "cfg.flag", "<flag on=\"1\"></flag>"},
        {"<r><abc><ab>in</ab></abc></r>\n", "r.ab",
         "<abc><ab>in</ab></abc> | [error near line 1]: unclosed tag <abc>"},
        {"<r><g><g>in</g></g></r>\n", "r.g",
         "<g><g>in</g></g> | [error near line 1]: unclosed tag <g>"},
        {"<r>\n\n<s>\n<t></u>\n</s>\n</r>\n", "r.s",
         "<s>\n<t></t></s> | [error near line 2]: unexpected closing tag </u>"},
        {"<r><a>x</a></r>", "r", "(none)"},
        {"<r><a>x</a></r>\n", "r", "<r><a>x</a></r>"},
    };
    for (const auto &[file, prefix, xml] : cases)
        EXPECT_EQ(by_prefix(file, prefix.c_str()), xml) << prefix.substr(0, 40);
    for (size_t n : {1021, 1022}) {
        const std::string tag(n, 'n'), element = "<" + tag + ">v</" + tag + ">";
        EXPECT_EQ(by_prefix("<r>" + element + "</r>\n", ("r." + tag).c_str()),
                  n == 1021 ? element : "(none)");
    }
    for (const char *prefix : {"nosuch", "qorconfig.sys.nosuch", "qorconfig:0",
                               "qorconfig.wlan.radio:2", "qorconfig.wlan.radio:1x"})
        EXPECT_EQ(by_prefix(config, prefix), "(none)") << prefix;

    // Without a path the whole stream is parsed, around the 1024-byte reads.
    for (size_t size : {1023, 1024, 5000}) {
        const std::string doc = "<r a=\"1\">" + std::string(size - 24, 'x') + "<c>&lt;</c></r>";
        EXPECT_EQ(by_prefix(doc, nullptr), xml_of(Parsed(doc).root())) << size;
    }

    // Allocation failures give NULL or a tree with an error, and the
    // stream is still read to its end.
    EXPECT_GT(sweep_allocations([&] { return by_prefix(config, "qorconfig.wlan.radio:1") == r1; }),
              1u);
}

}  // namespace
