// tools/devgen.cpp - writes the sample device's default configuration and
// rule file from the device description (platform/device.cpp).
//
//   qorcfg_devgen DEVROOT          write DEVROOT/etc/default-config.xml and
//                                  DEVROOT/etc/cfg-rule.xml
//   qorcfg_devgen --check DEVROOT  exit 1 when they differ from what would
//                                  be written
//
// Both files have the same shape: an element for every group's path, the
// group's items as its attributes (a value in the configuration, a record
// "name|&|type|&|rule|&|description" in the rule file), and the group's
// lists as children (all entries in the configuration, the template entry
// in the rule file). Every element is written with a closing tag, so that
// a group's element can be found by prefix-limited parsing.
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/device.h"

namespace {

using qorcfg::device::Group;
using qorcfg::device::Item;
using qorcfg::device::List;

struct Element {
    std::string tag;
    std::vector<std::pair<std::string, std::string>> attrs;
    std::vector<std::unique_ptr<Element>> children;
    bool entry = false;  // a list entry, written on one line
};

// The `index`-th child named `tag`, made (with the ones before it) if missing.
Element *child(Element *parent, const std::string &tag, int index) {
    int seen = 0;
    for (auto &c : parent->children) {
        if (c->tag == tag && seen++ == index)
            return c.get();
    }
    Element *made = nullptr;
    for (; seen <= index; ++seen) {
        parent->children.push_back(std::make_unique<Element>());
        made = parent->children.back().get();
        made->tag = tag;
    }
    return made;
}

// The element at a dotted path ("qorconfig.a.b:2.c"), made as needed.
Element *at_path(Element *root, const std::string &path) {
    Element *e = root;
    size_t pos = path.find('.');
    while (pos != std::string::npos) {
        size_t next = path.find('.', pos + 1);
        std::string step =
            path.substr(pos + 1, next == std::string::npos ? std::string::npos : next - pos - 1);
        int index = 0;
        size_t colon = step.find(':');
        if (colon != std::string::npos) {
            index = std::stoi(step.substr(colon + 1));
            step.resize(colon);
        }
        e = child(e, step, index);
        pos = next;
    }
    return e;
}

std::string record(const std::string &label, const std::string &type, const std::string &rule,
                   const std::string &desc) {
    return label + "|&|" + type + "|&|" + rule + "|&|" + desc;
}

std::string attribute_text(const Item &item, bool rules) {
    if (!rules)
        return item.value;
    std::string desc = item.desc;
    if (!item.value.empty())
        desc += "; default " + item.value;
    return record(item.desc, item.type, item.rule, desc);
}

void add_list(Element *parent, const List &list, bool rules) {
    parent->attrs.emplace_back(
        "max", rules ? record("Entries at most", "restricted", "", "Entries at most")
                     : std::to_string(list.max));
    parent->attrs.emplace_back(
        "cur_num", rules
                       ? record("Entries", "int", "0~" + std::to_string(list.max), "Entries in use")
                       : std::to_string(list.count));
    int entries = rules ? 1 : list.count;
    for (int i = 0; i < entries; ++i) {
        Element *e = child(parent, list.tag, i);
        e->entry = true;
        for (size_t k = 0; k < list.items.size(); ++k) {
            const Item &it = list.items[k];
            std::string value = it.value;
            if (i < static_cast<int>(list.values.size()) &&
                k < list.values[static_cast<size_t>(i)].size())
                value = list.values[static_cast<size_t>(i)][k];
            e->attrs.emplace_back(it.name, rules ? attribute_text(it, true) : value);
        }
    }
}

std::unique_ptr<Element> build(bool rules) {
    auto root = std::make_unique<Element>();
    root->tag = "qorconfig";
    for (const Item &it : qorcfg::device::root_items())
        root->attrs.emplace_back(it.name, attribute_text(it, rules));
    for (const Group &g : qorcfg::device::groups()) {
        Element *e = at_path(root.get(), g.path);
        for (const Item &it : g.items)
            e->attrs.emplace_back(it.name, attribute_text(it, rules));
        for (const List &list : g.lists)
            add_list(e, list, rules);
    }
    return root;
}

std::string escape(const std::string &s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\t':
                out += "&#x9;";
                break;
            case '\n':
                out += "&#xA;";
                break;
            case '\r':
                out += "&#xD;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

void write(std::ostringstream &out, const Element &e, int depth) {
    std::string indent(static_cast<size_t>(depth) * 2, ' ');
    out << indent << '<' << e.tag;
    for (const auto &[name, value] : e.attrs)
        out << ' ' << name << "=\"" << escape(value) << '"';
    if (e.entry && e.children.empty()) {
        out << "/>\n";
        return;
    }
    out << '>';
    if (!e.children.empty()) {
        out << '\n';
        for (const auto &c : e.children)
            write(out, *c, depth + 1);
        out << indent;
    }
    out << "</" << e.tag << ">\n";
}

std::string document(bool rules) {
    std::ostringstream out;
    out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    write(out, *build(rules), 0);
    return out.str();
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

int main(int argc, char **argv) {
    bool check = argc == 3 && std::string(argv[1]) == "--check";
    if (argc != 2 && !check) {
        std::fprintf(stderr, "usage: %s [--check] DEVROOT\n", argv[0]);
        return 2;
    }
    std::string root = argv[argc - 1];
    const std::pair<std::string, bool> files[] = {{root + "/etc/default-config.xml", false},
                                                  {root + "/etc/cfg-rule.xml", true}};
    int status = 0;
    for (const auto &[path, rules] : files) {
        std::string text = document(rules);
        if (check) {
            if (read_file(path) != text) {
                std::fprintf(stderr, "%s is not what the device description gives: run %s %s\n",
                             path.c_str(), argv[0], root.c_str());
                status = 1;
            }
            continue;
        }
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            status = 1;
        }
    }
    return status;
}
