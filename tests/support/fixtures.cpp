// tests/support/fixtures.cpp - shared fixtures and the allocation fault sweep.
#include "tests/support/fixtures.h"

#include <regex.h>

#include <filesystem>
#include <ostream>
#include <set>
#include <sstream>

namespace qorcfg::test {

std::string sample(const char *device_path) {
    return read_file(devroot() + device_path);
}

void install_sample(const Sandbox &sandbox, const std::string &working) {
    sandbox.write(config_rom, sample("/conf/config.xml"));
    sandbox.write(config_ram, working);
    sandbox.write(current_config, sample("/etc/default-config.xml"));
}

std::string config_doc(const std::string &label, int entries) {
    std::string doc =
        "<qorconfig version=\"" + label + "\" devtype=\"AP\">\n<system><device name=\"" + label +
        "\"></device></system>\n<mgmt><accounts max=\"8\"><account user=\"admin\"/>" +
        "<account user=\"operator\"/><session timeout=\"600\"/></accounts></mgmt>\n<pad>\n";
    for (int i = 0; i < entries; ++i)
        doc += "  <entry id=\"" + std::to_string(i) + "\" value=\"" + label + "\"/>\n";
    return doc + "</pad>\n<tail mark=\"" + label + "\"/>\n</qorconfig>\n";
}

// Kept out of line: inlined into string-building callers, gcc's size
// analysis reports a false overflow.
[[gnu::noinline]] static char *exact_copy(std::string_view text) {
    auto *buf = static_cast<char *>(std::malloc(text.empty() ? 1 : text.size()));
    if (!text.empty())
        std::memcpy(buf, text.data(), text.size());
    return buf;
}

Parsed::Parsed(std::string_view text) : size_(text.size()), buf_(exact_copy(text)) {
    root_ = ezxml_parse_str(buf_, size_);
}

Parsed::~Parsed() {
    ezxml_free(root_);
    std::free(buf_);
}

bool Parsed::in_buffer(const char *p) const {
    return std::greater_equal<const char *>()(p, buf_) &&
           std::less<const char *>()(p, buf_ + size_);
}

std::string xml_of(ezxml_node *node) {
    char *text = ezxml_toxml(node);
    std::string out = text != nullptr ? text : "(null)";
    std::free(text);
    return out;
}

ezxml_node *element_at(ezxml_node *root, const std::string &path, bool strip_index) {
    std::vector<std::string> steps;
    std::stringstream in(path);
    for (std::string step; std::getline(in, step, '.');)
        steps.push_back(step);
    if (root == nullptr || steps.empty() || steps[0] != root->name)
        return nullptr;
    ezxml_node *node = root;
    for (size_t i = 1; i < steps.size() && node != nullptr; ++i) {
        std::string name = steps[i];
        int index = 0;
        if (size_t colon = name.find(':'); colon != std::string::npos) {
            index = strip_index ? 0 : std::atoi(name.c_str() + colon + 1);
            name.resize(colon);
        }
        node = ezxml_idx(ezxml_child(node, name.c_str()), index);
    }
    return node;
}

std::string attributes(const ezxml_node *node) {
    std::string out;
    for (char **a = node->attr; a != nullptr && *a != nullptr; a += 2)
        out += std::string(a[0]) + "=" + a[1] + ";";
    return out;
}

Attrs attrs(qorcfg_attr *list) {
    Attrs out;
    for (qorcfg_attr *a = list; a != nullptr; a = a->next)
        out.emplace_back(a->name != nullptr ? a->name : "(null)",
                         a->value != nullptr ? a->value : "(null)", a->index);
    EXPECT_EQ(free_attr_list(list), 0);
    return out;
}

std::ostream &operator<<(std::ostream &out, const Read &r) {
    return out << r.rc << " \"" << r.value << "\" [" << r.err << "]";
}

Read read_value(const std::function<int(char *)> &read) {
    char value[QORCFG_VALUE_SIZE] = "junk";
    CaptureOutput err(STDERR_FILENO);
    const int rc = read(value);
    return {rc, value, err.text()};
}

Handle open_file(const char *file, bool local) {
    if (local)
        set_all_net_qorcfg_mode(0);
    return own(init_qorcfg_f(file));
}

std::string locks(const Sandbox &sandbox) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(sandbox.path("/var/lock")))
        names.insert(entry.path().filename().string());
    std::string out;
    for (const std::string &name : names) {
        const int fd = ::open(sandbox.path("/var/lock/" + name).c_str(), O_RDWR);
        if (fd < 0)
            continue;
        const bool ex = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
        const bool sh = ex || ::flock(fd, LOCK_SH | LOCK_NB) == 0;
        ::close(fd);
        out += name + (ex ? " " : sh ? "(sh) " : "(ex) ");
    }
    return out;
}

Handle open_net(const char *file) {
    set_all_net_qorcfg_mode(1);
    Handle h = own(init_qorcfg_f(file));
    EXPECT_EQ(is_net_cfg(h.get()), 1) << file;
    return h;
}

std::string stderr_of(const std::function<void()> &body) {
    CaptureOutput err(STDERR_FILENO);
    body();
    return err.text();
}

unsigned sweep_allocations(const std::function<bool()> &attempt, bool strict) {
    unsigned n = 1;
    for (;; ++n) {
        os::reset_faults();
        os::count_calls(true);
        os::fail_nth(Call::alloc, n, ENOMEM);
        const bool ok = attempt();
        const bool reached = os::calls(Call::alloc) >= n;
        os::reset_faults();
        os::count_calls(false);
        if (strict) {
            EXPECT_EQ(ok, !reached) << "allocation " << n;
        }
        if (!reached || (ok && !strict) || n >= 100000)
            break;
    }
    return n - 1;
}

bool matches_ere(const std::string &ere, const std::string &text) {
    regex_t re;
    if (::regcomp(&re, ere.c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        return false;
    const bool found = ::regexec(&re, text.c_str(), 0, nullptr, 0) == 0;
    ::regfree(&re);
    return found;
}

}  // namespace qorcfg::test
