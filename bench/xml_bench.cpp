// bench/xml_bench.cpp - the library's XML tree measured side by side with
// its peers (pugixml, expat, libxml2, and memcpy + memchr as the physical
// limit) on generated device configurations of 64 KB, 300 KB and 16 MB:
// parse and serialise throughput, chained lookups, heap per parsed
// megabyte, and prefix-limited parsing of one radio's element; and how the
// cost of an internal DTD subset grows with its number of entity
// declarations (10k to 80k). After the Google Benchmark table it prints each
// figure as a ratio to pugixml's, and the DTD figures per declaration.
// Every peer is optional; what was not found at build time is left out.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "bench/config_gen.h"
#include "qorcfg.h"

#if QORCFG_BENCH_PUGIXML
#include <pugixml.hpp>
#endif
#if QORCFG_BENCH_EXPAT
#include <expat.h>
#endif
#if QORCFG_BENCH_LIBXML2
#include <libxml/parser.h>
#include <libxml/tree.h>
#endif

namespace {

using benchmark::State;
using qorcfg::bench::Lookup;

constexpr std::uint32_t kSeed = 1;
constexpr std::size_t kLookups = 10000;
constexpr int kPrefixRadio = 2;
constexpr double kMiB = 1024.0 * 1024.0;

struct Size {
    const char *label;
    std::size_t bytes;
};
constexpr std::array<Size, 3> kSizes = {
    {{"64K", 64 * 1024}, {"300K", 300 * 1024}, {"16M", 16 * 1024 * 1024}}};
constexpr std::size_t kPrefixBytes = 300 * 1024;
constexpr std::size_t kBigBytes = 1024 * 1024;  // from here on: fixed, few iterations

// ---- documents ----------------------------------------------------------------

struct Corpus {
    std::string doc;
    std::vector<Lookup> lookups;
};

// Generated once per size, on first use (outside any timed region).
const Corpus &corpus(std::size_t bytes) {
    static std::map<std::size_t, Corpus> cache;
    auto it = cache.find(bytes);
    if (it == cache.end()) {
        Corpus c;
        c.doc = qorcfg::bench::generate_config(bytes, kSeed);
        c.lookups = qorcfg::bench::random_lookups(c.doc, kLookups, kSeed);
        it = cache.emplace(bytes, std::move(c)).first;
    }
    return it->second;
}

// The buffer every parser gets: allocated once, refilled from the document
// before each parse (the in-place parsers overwrite it), and the refill is
// timed for every parser alike.
class Buffer {
public:
    explicit Buffer(const std::string &doc) : doc_(doc), data_(doc.size() + 1) {}
    char *refill() {
        std::memcpy(data_.data(), doc_.data(), doc_.size());
        return data_.data();
    }
    std::size_t size() const { return doc_.size(); }

private:
    const std::string &doc_;
    std::vector<char> data_;
};

struct TreeFree {
    void operator()(ezxml_node *root) const { ezxml_free(root); }
};
using Tree = std::unique_ptr<ezxml_node, TreeFree>;

// Parses `buf` and reports a failed parse on `st`; null then.
Tree parsed_tree(State &st, Buffer &buf) {
    Tree root(ezxml_parse_str(buf.refill(), buf.size()));
    if (!root || *ezxml_error(root.get()) != '\0') {
        st.SkipWithError(
            (std::string("qorcfg: ") + (root ? ezxml_error(root.get()) : "no tree")).c_str());
        return nullptr;
    }
    return root;
}

void set_bytes(State &st, std::size_t bytes) {
    st.SetBytesProcessed(static_cast<std::int64_t>(st.iterations()) *
                         static_cast<std::int64_t>(bytes));
}

// ---- parse --------------------------------------------------------------------

void parse_memchr(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    for (auto _ : st) {
        char *data = buf.refill();
        benchmark::DoNotOptimize(std::memchr(data, '\x01', buf.size()));
    }
    set_bytes(st, bytes);
}

// Each parser's timed loop: parses of `doc` (its buffer refilled every
// time) after `warm_up` untimed ones that must succeed; false, with the
// error on `st`, when the document does not parse.
bool time_qorcfg(State &st, const std::string &doc, int warm_up = 1) {
    Buffer buf(doc);
    for (int i = 0; i < warm_up; ++i) {
        if (!parsed_tree(st, buf)) {
            return false;
        }
    }
    for (auto _ : st) {
        ezxml_node *root = ezxml_parse_str(buf.refill(), buf.size());
        benchmark::DoNotOptimize(root);
        ezxml_free(root);
    }
    return true;
}

void parse_qorcfg(State &st, std::size_t bytes) {
    if (time_qorcfg(st, corpus(bytes).doc)) {
        set_bytes(st, bytes);
    }
}

#if QORCFG_BENCH_PUGIXML
bool pugixml_load(State &st, pugi::xml_document &doc, Buffer &buf) {
    pugi::xml_parse_result result =
        doc.load_buffer_inplace(buf.refill(), buf.size(), pugi::parse_default);
    if (!result) {
        st.SkipWithError((std::string("pugixml: ") + result.description()).c_str());
    }
    return static_cast<bool>(result);
}

void parse_pugixml(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    if (pugi::xml_document check; !pugixml_load(st, check, buf)) {
        return;
    }
    for (auto _ : st) {
        pugi::xml_document doc;
        pugi::xml_parse_result result =
            doc.load_buffer_inplace(buf.refill(), buf.size(), pugi::parse_default);
        benchmark::DoNotOptimize(result);
    }
    set_bytes(st, bytes);
}
#endif

#if QORCFG_BENCH_EXPAT
void XMLCALL expat_start(void *, const XML_Char *, const XML_Char **) {}
void XMLCALL expat_end(void *, const XML_Char *) {}
void XMLCALL expat_text(void *, const XML_Char *, int) {}

bool expat_parse(const char *data, std::size_t size) {
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetElementHandler(parser, expat_start, expat_end);
    XML_SetCharacterDataHandler(parser, expat_text);
    bool ok = XML_Parse(parser, data, static_cast<int>(size), XML_TRUE) == XML_STATUS_OK;
    XML_ParserFree(parser);
    return ok;
}

bool time_expat(State &st, const std::string &doc, int warm_up = 1) {
    Buffer buf(doc);
    for (int i = 0; i < warm_up; ++i) {
        if (!expat_parse(buf.refill(), buf.size())) {
            st.SkipWithError("expat: parse failed");
            return false;
        }
    }
    for (auto _ : st) {
        bool ok = expat_parse(buf.refill(), buf.size());
        benchmark::DoNotOptimize(ok);
    }
    return true;
}

void parse_expat(State &st, std::size_t bytes) {
    if (time_expat(st, corpus(bytes).doc)) {
        set_bytes(st, bytes);
    }
}
#endif

#if QORCFG_BENCH_LIBXML2
// No network access; blank text nodes are kept, as the other parsers keep
// the layout text.
constexpr int kLibxml2Options = XML_PARSE_NONET;

xmlDocPtr libxml2_read(const char *data, std::size_t size) {
    return xmlReadMemory(data, static_cast<int>(size), "config.xml", nullptr, kLibxml2Options);
}

bool time_libxml2(State &st, const std::string &doc, int warm_up = 1) {
    Buffer buf(doc);
    for (int i = 0; i < warm_up; ++i) {
        xmlDocPtr check = libxml2_read(buf.refill(), buf.size());
        if (check == nullptr) {
            st.SkipWithError("libxml2: parse failed");
            return false;
        }
        xmlFreeDoc(check);
    }
    for (auto _ : st) {
        xmlDocPtr parsed = libxml2_read(buf.refill(), buf.size());
        benchmark::DoNotOptimize(parsed);
        xmlFreeDoc(parsed);
    }
    return true;
}

void parse_libxml2(State &st, std::size_t bytes) {
    if (time_libxml2(st, corpus(bytes).doc)) {
        set_bytes(st, bytes);
    }
}
#endif

// ---- serialise ----------------------------------------------------------------

void serialise_qorcfg(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    Tree root = parsed_tree(st, buf);
    if (!root) {
        return;
    }
    for (auto _ : st) {
        char *text = ezxml_toxml(root.get());
        benchmark::DoNotOptimize(text);
        std::free(text);
    }
    set_bytes(st, bytes);
}

#if QORCFG_BENCH_PUGIXML
// Appends to one string that keeps its capacity from save to save.
class StringWriter final : public pugi::xml_writer {
public:
    void write(const void *data, std::size_t size) override {
        text.append(static_cast<const char *>(data), size);
    }
    std::string text;
};

void serialise_pugixml(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    pugi::xml_document doc;
    if (!pugixml_load(st, doc, buf)) {
        return;
    }
    StringWriter writer;
    for (auto _ : st) {
        writer.text.clear();
        // Raw and without a declaration: the same markup the library writes.
        doc.save(writer, "", pugi::format_raw | pugi::format_no_declaration);
        benchmark::DoNotOptimize(writer.text.data());
    }
    set_bytes(st, bytes);
}
#endif

#if QORCFG_BENCH_LIBXML2
void serialise_libxml2(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    xmlDocPtr doc = libxml2_read(buf.refill(), buf.size());
    if (!doc) {
        st.SkipWithError("libxml2: parse failed");
        return;
    }
    for (auto _ : st) {
        xmlChar *text = nullptr;
        int size = 0;
        xmlDocDumpMemory(doc, &text, &size);
        benchmark::DoNotOptimize(text);
        xmlFree(text);
    }
    xmlFreeDoc(doc);
    set_bytes(st, bytes);
}
#endif

// ---- chained lookups ----------------------------------------------------------

// The lookups flattened for the timed loop: each one is its steps (index >= 0)
// followed by its attribute (index -1). The names point into the corpus.
struct Step {
    const char *name;
    int index;
};

std::vector<Step> prepare(const std::vector<Lookup> &lookups) {
    std::vector<Step> steps;
    for (const Lookup &l : lookups) {
        for (const auto &s : l.steps) {
            steps.push_back({s.name.c_str(), s.index});
        }
        steps.push_back({l.attr.c_str(), -1});
    }
    return steps;
}

// Runs every lookup through `resolve` (which consumes one lookup's steps and
// returns its value or null); first checks the answers against the values
// the generator wrote, so a wrong walk cannot pass for a fast one.
template <typename Resolve>
void run_lookups(State &st, const char *who, std::size_t bytes, Resolve resolve) {
    const Corpus &c = corpus(bytes);
    const std::vector<Step> steps = prepare(c.lookups);
    const Step *const end = steps.data() + steps.size();
    std::size_t wrong = 0;
    std::size_t i = 0;
    for (const Step *s = steps.data(); s != end; ++i) {
        const char *value = resolve(s);
        wrong += value == nullptr || c.lookups[i].value != value;
    }
    if (wrong != 0) {
        st.SkipWithError((std::string(who) + ": " + std::to_string(wrong) + " of " +
                          std::to_string(c.lookups.size()) + " lookups gave a wrong value")
                             .c_str());
        return;
    }
    for (auto _ : st) {
        std::size_t found = 0;
        for (const Step *s = steps.data(); s != end;) {
            found += resolve(s) != nullptr;
        }
        benchmark::DoNotOptimize(found);
    }
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations()) *
                         static_cast<std::int64_t>(c.lookups.size()));
}

void lookups_qorcfg(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    Tree tree = parsed_tree(st, buf);
    if (!tree) {
        return;
    }
    ezxml_node *root = tree.get();
    run_lookups(st, "qorcfg", bytes, [root](const Step *&s) {
        ezxml_node *node = root;
        for (; s->index >= 0; ++s) {
            node = ezxml_child(node, s->name);
            if (s->index > 0) {
                node = ezxml_idx(node, s->index);
            }
        }
        return ezxml_attr(node, (s++)->name);
    });
}

#if QORCFG_BENCH_PUGIXML
void lookups_pugixml(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    pugi::xml_document doc;
    if (!pugixml_load(st, doc, buf)) {
        return;
    }
    const pugi::xml_node root = doc.document_element();
    run_lookups(st, "pugixml", bytes, [root](const Step *&s) {
        pugi::xml_node node = root;
        for (; s->index >= 0; ++s) {
            node = node.child(s->name);
            for (int i = 0; i < s->index; ++i) {
                node = node.next_sibling(s->name);
            }
        }
        pugi::xml_attribute attr = node.attribute((s++)->name);
        return attr ? attr.value() : nullptr;
    });
}
#endif

// ---- memory per parsed megabyte -------------------------------------------------

// Heap in use; both the library and the peers allocate with malloc.
std::size_t heap_in_use() {
    struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

// Counters, not time: the heap a parsed tree holds (the buffer included when
// the tree keeps pointing into it), per MiB of document.
void report_memory(State &st, std::size_t before, std::size_t after, std::size_t buffer,
                   std::size_t bytes) {
    double held =
        static_cast<double>(after) - static_cast<double>(before) + static_cast<double>(buffer);
    st.counters["heap_bytes"] =
        benchmark::Counter(held, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
    st.counters["bytes_per_MiB"] =
        benchmark::Counter(held / (static_cast<double>(bytes) / kMiB),
                           benchmark::Counter::kDefaults, benchmark::Counter::kIs1024);
}

void memory_qorcfg(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    if (!parsed_tree(st, buf)) {
        return;
    }
    for (auto _ : st) {
        char *data = buf.refill();
        std::size_t before = heap_in_use();
        ezxml_node *root = ezxml_parse_str(data, buf.size());
        std::size_t after = heap_in_use();
        ezxml_free(root);
        report_memory(st, before, after, buf.size(), buf.size());
    }
}

#if QORCFG_BENCH_PUGIXML
void memory_pugixml(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    for (auto _ : st) {
        char *data = buf.refill();
        std::size_t before = heap_in_use();
        auto doc = std::make_unique<pugi::xml_document>();
        doc->load_buffer_inplace(data, buf.size(), pugi::parse_default);
        std::size_t after = heap_in_use();
        doc.reset();
        report_memory(st, before, after, buf.size(), buf.size());
    }
}
#endif

#if QORCFG_BENCH_LIBXML2
// libxml2 copies what it keeps, so its input buffer is not counted.
void memory_libxml2(State &st, std::size_t bytes) {
    Buffer buf(corpus(bytes).doc);
    for (auto _ : st) {
        char *data = buf.refill();
        std::size_t before = heap_in_use();
        xmlDocPtr doc = libxml2_read(data, buf.size());
        std::size_t after = heap_in_use();
        xmlFreeDoc(doc);
        report_memory(st, before, after, 0, buf.size());
    }
}
#endif

// ---- prefix-limited parsing ---------------------------------------------------

// One radio's element (by_prefix) or the whole document, from a stream over
// the document reopened for every parse.
void stream_parse(State &st, std::size_t bytes, bool by_prefix) {
    std::string text = corpus(bytes).doc;  // fmemopen wants a writable buffer
    const std::string prefix = qorcfg::bench::radio_path(kPrefixRadio);
    auto parse = [&]() -> ezxml_node * {
        FILE *fp = fmemopen(text.data(), text.size(), "r");
        if (fp == nullptr) {
            return nullptr;
        }
        ezxml_node *root =
            by_prefix ? ezxml_parse_fp_by_prefix(fp, prefix.c_str()) : ezxml_parse_fp(fp);
        std::fclose(fp);
        return root;
    };
    {
        Tree root(parse());
        const std::string want = by_prefix ? prefix.substr(prefix.rfind('.') + 1) : "qorconfig";
        if (!root || *ezxml_error(root.get()) != '\0' || want != root->name) {
            st.SkipWithError(("qorcfg: no <" + want + "> tree from the stream").c_str());
            return;
        }
    }
    for (auto _ : st) {
        ezxml_node *root = parse();
        benchmark::DoNotOptimize(root);
        ezxml_free(root);
    }
    set_bytes(st, bytes);
}

// ---- internal DTD subset ----------------------------------------------------------

// Declarations of the DTD documents, by label.
struct Declarations {
    const char *label;
    std::size_t count;
};
constexpr std::array<Declarations, 4> kDeclarations = {
    {{"10k", 10000}, {"20k", 20000}, {"40k", 40000}, {"80k", 80000}}};

// A document whose internal subset declares `count` general entities, half
// of them a chain referring backwards and half a chain referring forwards,
// and a root that uses both ends.
const std::string &dtd_document(std::size_t count) {
    static std::map<std::size_t, std::string> cache;
    auto it = cache.find(count);
    if (it != cache.end()) {
        return it->second;
    }
    std::string doc = "<!DOCTYPE r [\n<!ENTITY b0 \"base\">\n";
    for (std::size_t i = 1; i < count / 2; ++i) {
        doc += "<!ENTITY b" + std::to_string(i) + " \"&b" + std::to_string(i - 1) + ";\">\n";
    }
    for (std::size_t i = 0; i < count - count / 2; ++i) {
        doc += "<!ENTITY f" + std::to_string(i) + " \"&f" + std::to_string(i + 1) + ";\">\n";
    }
    doc += "]>\n<r>&b0;</r>\n";
    return cache.emplace(count, std::move(doc)).first->second;
}

// The DTD measures time the steady state of a process that parses such
// documents again and again: the first parses are not timed, and the heap
// is neither trimmed nor mapped block by block (otherwise glibc's
// thresholds make the smallest subset pay page faults on every parse that
// the larger ones do not, which hides the growth). The DTD measures run
// last, so the other measures keep the allocator's defaults.
constexpr int kDtdWarmUp = 3;

void steady_heap() {
    static const bool done = [] {
        mallopt(M_TRIM_THRESHOLD, 1 << 30);
        mallopt(M_MMAP_THRESHOLD, 32 << 20);
        return true;
    }();
    (void)done;
}

void set_declarations(State &st, std::size_t count) {
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations() * count));
}

void dtd_qorcfg(State &st, std::size_t count) {
    steady_heap();
    if (time_qorcfg(st, dtd_document(count), kDtdWarmUp)) {
        set_declarations(st, count);
    }
}

#if QORCFG_BENCH_EXPAT
void dtd_expat(State &st, std::size_t count) {
    steady_heap();
    if (time_expat(st, dtd_document(count), kDtdWarmUp)) {
        set_declarations(st, count);
    }
}
#endif

#if QORCFG_BENCH_LIBXML2
void dtd_libxml2(State &st, std::size_t count) {
    steady_heap();
    if (time_libxml2(st, dtd_document(count), kDtdWarmUp)) {
        set_declarations(st, count);
    }
}
#endif

// ---- registration ---------------------------------------------------------------

using Fn = void (*)(State &, std::size_t);

struct Entry {
    const char *measure;
    const char *peer;
    Fn fn;
};

// Side by side: for each size, every measure with every peer.
constexpr Entry kEntries[] = {
    {"parse", "memchr", parse_memchr},
    {"parse", "qorcfg", parse_qorcfg},
#if QORCFG_BENCH_PUGIXML
    {"parse", "pugixml", parse_pugixml},
#endif
#if QORCFG_BENCH_EXPAT
    {"parse", "expat", parse_expat},
#endif
#if QORCFG_BENCH_LIBXML2
    {"parse", "libxml2", parse_libxml2},
#endif
    {"serialise", "qorcfg", serialise_qorcfg},
#if QORCFG_BENCH_PUGIXML
    {"serialise", "pugixml", serialise_pugixml},
#endif
#if QORCFG_BENCH_LIBXML2
    {"serialise", "libxml2", serialise_libxml2},
#endif
    {"lookups", "qorcfg", lookups_qorcfg},
#if QORCFG_BENCH_PUGIXML
    {"lookups", "pugixml", lookups_pugixml},
#endif
    {"memory", "qorcfg", memory_qorcfg},
#if QORCFG_BENCH_PUGIXML
    {"memory", "pugixml", memory_pugixml},
#endif
#if QORCFG_BENCH_LIBXML2
    {"memory", "libxml2", memory_libxml2},
#endif
};

constexpr Entry kDtdEntries[] = {
    {"dtd", "qorcfg", dtd_qorcfg},
#if QORCFG_BENCH_EXPAT
    {"dtd", "expat", dtd_expat},
#endif
#if QORCFG_BENCH_LIBXML2
    {"dtd", "libxml2", dtd_libxml2},
#endif
};

std::string bench_name(const char *measure, const char *peer, const char *size) {
    return std::string(measure) + "/" + peer + "/" + size;
}

void register_all() {
    for (const Size &size : kSizes) {
        const bool big = size.bytes >= kBigBytes;
        for (const Entry &e : kEntries) {
            auto *b = benchmark::RegisterBenchmark(
                bench_name(e.measure, e.peer, size.label).c_str(), e.fn, size.bytes);
            b->Unit(big ? benchmark::kMillisecond : benchmark::kMicrosecond);
            if (std::strcmp(e.measure, "memory") == 0) {
                b->Iterations(1);
            } else if (big) {
                b->Iterations(std::strcmp(e.measure, "lookups") == 0 ? 3 : 5);
            }
        }
        if (size.bytes == kPrefixBytes) {
            for (bool by_prefix : {false, true}) {
                benchmark::RegisterBenchmark(
                    bench_name("prefix", by_prefix ? "radio" : "full", size.label).c_str(),
                    stream_parse, size.bytes, by_prefix)
                    ->Unit(benchmark::kMicrosecond);
            }
        }
    }
    for (const Declarations &d : kDeclarations) {
        for (const Entry &e : kDtdEntries) {
            benchmark::RegisterBenchmark(bench_name(e.measure, e.peer, d.label).c_str(), e.fn,
                                         d.count)
                ->Unit(benchmark::kMillisecond);
        }
    }
}

// ---- ratio table ------------------------------------------------------------------

// The console table, then every figure as a ratio to pugixml's.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    using ConsoleReporter::ConsoleReporter;

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            // One figure per benchmark: the run itself, or the median when
            // repetitions were asked for.
            bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.error_occurred || (run.run_type != Run::RT_Iteration && !median)) {
                continue;
            }
            for (const char *counter : {"bytes_per_second", "items_per_second", "bytes_per_MiB"}) {
                if (auto it = run.counters.find(counter); it != run.counters.end()) {
                    figures_[run.run_name.function_name] = it->second.value;
                    break;
                }
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void print_ratios() {
        std::ostream &out = GetOutputStream();
        char line[160];
        bool any = false;
        for (const auto &[name, value] : figures_) {
            any = any || name.find("/pugixml/") != std::string::npos;
        }
        if (any) {
            out << "\nRatios to pugixml (speed: figure / pugixml's, > 1 is faster than pugixml;\n"
                   "memory: bytes per MiB / pugixml's, < 1 is smaller than pugixml)\n";
            print_table(out);
        } else {
            out << "\nNo pugixml figures (not built, failed or filtered out): no ratio table.\n";
        }
        for (const Size &size : kSizes) {
            const double *full = figure(bench_name("prefix", "full", size.label));
            const double *part = figure(bench_name("prefix", "radio", size.label));
            if (full != nullptr && part != nullptr && *full > 0) {
                std::snprintf(line, sizeof line,
                              "\nPrefix-limited parse of %s (%s document): %.2fx the speed "
                              "of the whole-document parse of the same stream\n",
                              qorcfg::bench::radio_path(kPrefixRadio).c_str(), size.label,
                              *part / *full);
                out << line;
            }
        }
        print_declarations(out);
        out.flush();
    }

private:
    // Time per declaration at each size (constant when the cost grows
    // linearly), and the growth from the smallest to the largest subset.
    void print_declarations(std::ostream &out) const {
        char line[160];
        bool header = false;
        for (const Entry &e : kDtdEntries) {
            const double *first = nullptr;
            const double *last = nullptr;
            std::string row;
            for (const Declarations &d : kDeclarations) {
                const double *f = figure(bench_name("dtd", e.peer, d.label));
                if (f != nullptr && *f > 0) {
                    std::snprintf(line, sizeof line, " %9.1f", 1e9 / *f);
                    first = first != nullptr ? first : f;
                    last = f;
                } else {
                    std::snprintf(line, sizeof line, " %9s", "-");
                }
                row += line;
            }
            if (first == nullptr) {
                continue;
            }
            if (!header) {
                out << "\nEntity declarations: time per declaration in ns (the same at every "
                       "size when the\ncost grows linearly); growth = time for 80k / time for "
                       "10k (8 is linear)\n";
                std::snprintf(line, sizeof line, "%-10s", "peer");
                out << line;
                for (const Declarations &d : kDeclarations) {
                    std::snprintf(line, sizeof line, " %9s", d.label);
                    out << line;
                }
                out << "    growth\n";
                header = true;
            }
            const double growth = (*first / *last) *
                                  static_cast<double>(kDeclarations.back().count) /
                                  static_cast<double>(kDeclarations.front().count);
            std::snprintf(line, sizeof line, "%-10s%s %9.2f\n", e.peer, row.c_str(), growth);
            out << line;
        }
    }

    void print_table(std::ostream &out) const {
        static constexpr std::array<const char *, 4> measures = {"parse", "serialise", "lookups",
                                                                 "memory"};
        static constexpr std::array<const char *, 4> peers = {"memchr", "qorcfg", "expat",
                                                              "libxml2"};
        char line[160];
        std::snprintf(line, sizeof line, "%-10s %-5s", "measure", "size");
        out << line;
        for (const char *peer : peers) {
            std::snprintf(line, sizeof line, " %9s", peer);
            out << line;
        }
        out << "\n";
        for (const char *measure : measures) {
            for (const Size &size : kSizes) {
                const double *base = figure(bench_name(measure, "pugixml", size.label));
                if (base == nullptr) {
                    continue;  // not run (filtered out, failed, or no pugixml)
                }
                std::snprintf(line, sizeof line, "%-10s %-5s", measure, size.label);
                out << line;
                for (const char *peer : peers) {
                    const double *f = figure(bench_name(measure, peer, size.label));
                    if (f != nullptr && *base > 0) {
                        std::snprintf(line, sizeof line, " %9.3f", *f / *base);
                    } else {
                        std::snprintf(line, sizeof line, " %9s", "-");
                    }
                    out << line;
                }
                out << "\n";
            }
        }
    }

    const double *figure(const std::string &name) const {
        auto it = figures_.find(name);
        return it == figures_.end() ? nullptr : &it->second;
    }

    std::map<std::string, double> figures_;
};

}  // namespace

int main(int argc, char **argv) {
#if QORCFG_BENCH_LIBXML2
    xmlInitParser();
#endif
    register_all();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter(isatty(STDOUT_FILENO) != 0 ? benchmark::ConsoleReporter::OO_ColorTabular
                                                      : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.print_ratios();
    benchmark::Shutdown();
#if QORCFG_BENCH_LIBXML2
    xmlCleanupParser();
#endif
    return 0;
}
