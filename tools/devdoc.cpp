// tools/devdoc.cpp - the sample device's configuration and rule file as
// XML text, made from the device description (platform/device.cpp).
//
// Both documents have the same shape: an element for every group's path,
// the group's items as its attributes (a value in the configuration, a
// record "name|&|type|&|rule|&|description" in the rule file), and the
// group's lists as children (their entries in the configuration, the
// template entry in the rule file). Every element is written with a
// closing tag, so that a group's element can be found by prefix-limited
// parsing.
#include "tools/devdoc.h"

#include <memory>
#include <sstream>
#include <utility>
#include <vector>

#include "platform/device.h"

namespace qorcfg::device {
namespace {

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

void add_list(Element *parent, const List &list, bool rules, int scale) {
    parent->attrs.emplace_back(
        "max", rules ? record("Entries at most", "restricted", "", "Entries at most")
                     : std::to_string(list.max));
    parent->attrs.emplace_back(
        "cur_num", rules
                       ? record("Entries", "int", "0~" + std::to_string(list.max), "Entries in use")
                       : std::to_string(list.count));
    int entries = rules ? 1 : list.count * scale;
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

std::unique_ptr<Element> build(bool rules, int scale) {
    auto root = std::make_unique<Element>();
    root->tag = "qorconfig";
    for (const Item &it : qorcfg::device::root_items())
        root->attrs.emplace_back(it.name, attribute_text(it, rules));
    for (const Group &g : qorcfg::device::groups()) {
        Element *e = at_path(root.get(), g.path);
        for (const Item &it : g.items)
            e->attrs.emplace_back(it.name, attribute_text(it, rules));
        for (const List &list : g.lists)
            add_list(e, list, rules, scale);
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

}  // namespace

std::string document(bool rules, int list_scale) {
    // No XML declaration: the store takes a flash copy whose first line
    // lacks "<qorconfig" for a bad one, and the library never writes one.
    std::ostringstream out;
    write(out, *build(rules, list_scale < 1 ? 1 : list_scale), 0);
    return out.str();
}

}  // namespace qorcfg::device
