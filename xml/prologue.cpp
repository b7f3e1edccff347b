// xml/prologue.cpp - the parser's declarations: the DOCTYPE and its
// internal subset (general and parameter entities, default attributes) and
// processing instructions.
#include "xml/parser.h"

namespace qorcfg::xml {
namespace {

void free_entities(char **list, size_t from) {
    for (size_t i = from; list[i] != nullptr; i += 2) {
        std::free(list[i]);
        std::free(list[i + 1]);
    }
}

}  // namespace

char *Parser::doctype(char *p) {
    char *tag = p - 1;
    char *subset = nullptr;
    char *q = p + 8;
    for (;;) {
        q += std::strcspn(q, "[]>");
        if (*q == '\0') {
            // The end of the text closes the declaration only where the
            // remembered last byte '>' completes it.
            bool closed = false;
            if (ends_with_gt(q)) {
                if (subset == nullptr) {
                    closed = true;
                } else {
                    char *b = q;
                    while (b > subset && is_space(static_cast<unsigned char>(b[-1])))
                        --b;
                    closed = b > subset && b[-1] == ']';
                    if (closed && !read_subset(subset, static_cast<size_t>(b - 1 - subset)))
                        return nullptr;
                }
            }
            return closed ? q : (error(tag, "unclosed <!DOCTYPE"), nullptr);
        }
        if (*q == '[' && subset == nullptr) {
            subset = q + 1;
        } else if (*q == '>' && subset == nullptr) {
            return q + 1;
        } else if (*q == ']' && subset != nullptr) {
            char *r = skip_spaces(q + 1);
            if (*r == '>' || ends_with_gt(r)) {
                if (!read_subset(subset, static_cast<size_t>(q - subset)))
                    return nullptr;
                return *r == '>' ? r + 1 : r;
            }
        }
        ++q;
    }
}

// <?target text?>; `p` is at the '?'.
char *Parser::processing_instruction(char *p) {
    char *tag = p - 1;
    char *body = p + 1;
    char *q = std::strstr(body, "?>");
    char *after;
    if (q != nullptr) {
        after = q + 2;
    } else if (ends_with_gt(end_) && end_ > body && end_[-1] == '?') {
        q = end_ - 1;  // "?>" at the very end, its '>' remembered
        after = end_;
    } else {
        return (error(tag, "unclosed <?"), nullptr);
    }
    if (!store_instruction(body, static_cast<size_t>(q - body)))
        return (out_of_memory(tag), nullptr);
    return after;
}

// The position of the list of `key` in the root's array of lists `*lists`
// (instructions by target, default attributes by tag: each list is {key,
// entries..., NULL, string}), which is added, {key, NULL, `string_size`
// zero bytes}, when there is none. SIZE_MAX when memory runs out.
size_t Parser::list_of(char ****lists, char *key, size_t string_size) {
    size_t i = 0;
    while ((*lists)[i] != nullptr && std::strcmp((*lists)[i][0], key) != 0)
        ++i;
    if ((*lists)[i] != nullptr)
        return i;
    char ***grown = grow_array(*lists, i + 1, 1);
    if (grown == nullptr)
        return SIZE_MAX;
    *lists = grown;
    grown[i] = nullptr;
    auto **list = static_cast<char **>(os::malloc(3 * sizeof(char *)));
    char *string = static_cast<char *>(os::calloc(string_size, 1));
    if (list == nullptr || string == nullptr) {
        std::free(list);
        std::free(string);
        return SIZE_MAX;
    }
    list[0] = key;
    list[1] = nullptr;
    list[2] = string;
    grown[i] = list;
    grown[i + 1] = nullptr;
    return i;
}

// Stores an instruction (target, white space, text). The XML declaration
// only sets `standalone`.
bool Parser::store_instruction(char *s, size_t len) {
    s[len] = '\0';
    char *target = s;
    char *text = s + std::strcspn(s, kSpaces);
    if (*text != '\0') {
        *text = '\0';
        text = skip_spaces(text + 1);
    }
    if (std::strcmp(target, "xml") == 0) {
        if (char *sa = std::strstr(text, "standalone")) {
            sa += 10;
            sa += std::strspn(sa, "\t\r\n ='\"");
            if (starts_with(sa, "yes"))
                root_->standalone = 1;
        }
        return true;
    }
    const size_t i = list_of(&root_->pi, target, 1);
    if (i == SIZE_MAX)
        return false;
    char **list = root_->pi[i];
    size_t j = 1;
    while (list[j] != nullptr)
        ++j;
    // {target, texts (j - 1 of them), NULL, positions} -> one more text.
    char *where = static_cast<char *>(os::realloc(list[j + 1], j + 1));
    if (where == nullptr)
        return false;
    list[j + 1] = where;
    auto **grown = static_cast<char **>(os::realloc(list, (j + 3) * sizeof(char *)));
    if (grown == nullptr)
        return false;
    root_->pi[i] = grown;
    where[j - 1] = root_->xml.name != nullptr ? '>' : '<';
    where[j] = '\0';
    grown[j] = text;
    grown[j + 1] = nullptr;
    grown[j + 2] = where;
    return true;
}

bool Parser::read_subset(char *s, size_t len) {
    s[len] = '\0';
    // Parameter entities live only while the subset is read.
    auto **pe = static_cast<char **>(os::calloc(1, sizeof(char *)));
    if (pe == nullptr)
        return (out_of_memory(s), false);
    EntityList parameters(&pe, '%');
    char *p = s;
    while (p != nullptr && *p != '\0' && !failed_) {
        p += std::strcspn(p, "<%");
        if (*p == '\0')
            break;
        if (starts_with(p, "<!ENTITY")) {
            p = entity_declaration(p, parameters);
        } else if (starts_with(p, "<!--")) {
            char *q = std::strstr(p + 4, "-->");
            p = q != nullptr ? q + 3 : nullptr;
        } else if (starts_with(p, "<!ATTLIST")) {
            p = attlist_declaration(p);
        } else if (starts_with(p, "<?")) {
            char *q = std::strstr(p + 2, "?>");
            if (q != nullptr && !store_instruction(p + 2, static_cast<size_t>(q - p - 2)))
                out_of_memory(p);
            p = q != nullptr ? q + 2 : nullptr;
        } else if (*p == '<') {
            char *q = std::strchr(p, '>');
            p = q != nullptr ? q + 1 : nullptr;
        } else if (root_->standalone) {
            ++p;  // a parameter-entity reference outside a declaration
        } else {
            break;
        }
    }
    free_entities(pe, 0);
    std::free(pe);
    return !failed_;
}

// <!ENTITY [%] name "value">; returns where reading goes on (NULL: stop).
char *Parser::entity_declaration(char *p, EntityList &parameters) {
    char *c = skip_spaces(p + 8);
    bool parameter = *c == '%';
    char *n = c + std::strspn(c, "\t\r\n %");
    char *name_end = n + std::strcspn(n, kSpaces);
    if (*name_end == '\0')
        return nullptr;
    char *v = skip_spaces(name_end + 1);
    char quote = *v;
    if (quote != '"' && quote != '\'') {  // external entity: not read
        char *gt = std::strchr(v, '>');
        return gt != nullptr ? gt + 1 : nullptr;
    }
    ++v;
    char *close = std::strchr(v, quote);
    char *next = nullptr;
    if (close != nullptr) {
        *close = '\0';
        next = close + 1;
    }
    size_t name_len = static_cast<size_t>(name_end - n);
    auto *name = static_cast<char *>(os::malloc(name_len + 2));
    if (name == nullptr)
        return (out_of_memory(v), nullptr);
    std::memcpy(name, n, name_len);
    name[name_len] = ';';
    name[name_len + 1] = '\0';

    bool moved = false;
    char *decoded = decode(v, std::strlen(v), parameters, '%', budget_, &moved);
    char *value = decoded;
    if (decoded != nullptr && !moved)
        value = os::strdup(decoded);  // entity values are owned by their list
    if (value == nullptr) {
        std::free(name);
        budget_.exceeded ? error(v, "entity expansion limit exceeded") : out_of_memory(v);
        return nullptr;
    }
    return add_entity(parameter ? parameters : general_, name, value, v) ? next : nullptr;
}

// Appends the entity `name` (with its ';') to `list` unless it would refer
// back to itself; the list then owns `name` and `value`, which are freed
// otherwise. False after an error, reported at `at`.
bool Parser::add_entity(EntityList &list, char *name, char *value, const char *at) {
    const EntityList::Check check = list.check_circular(name, value, budget_);
    if (check == EntityList::Check::fine && list.append(name, value))
        return true;
    switch (check) {
        case EntityList::Check::circular:
            error(at, "circular entity declaration &%s", name);
            break;
        case EntityList::Check::over_budget:
            error(at, "entity expansion limit exceeded");
            break;
        default:
            out_of_memory(at);
            break;
    }
    std::free(name);
    std::free(value);
    return false;
}

// Adds (name, value, type) to the default-attribute list of `tag`:
// {tag, (name, value, type)..., NULL, ownership string}.
bool Parser::append_default(char *tag, char *name, char *value, bool owned, const char *type) {
    const size_t i = list_of(&root_->attr, tag, 2);
    if (i == SIZE_MAX)
        return false;
    char **list = root_->attr[i];
    size_t j = 1;
    while (list[j] != nullptr)
        j += 3;
    size_t triples = (j - 1) / 3;
    char *own = static_cast<char *>(os::realloc(list[j + 1], triples + 3));
    if (own == nullptr)
        return false;
    list[j + 1] = own;
    auto **grown = static_cast<char **>(os::realloc(list, (j + 5) * sizeof(char *)));
    if (grown == nullptr)
        return false;
    root_->attr[i] = grown;
    grown[j] = name;
    grown[j + 1] = value;
    grown[j + 2] = const_cast<char *>(type);
    grown[j + 3] = nullptr;
    grown[j + 4] = own;
    own[triples] = owned ? kOwnDecoded : kOwnNone;
    own[triples + 1] = '\0';
    own[triples + 2] = kOwnSeparate;
    return true;
}

// <!ATTLIST tag (name type [#FIXED] default)...>; returns where reading goes
// on (NULL: stop).
char *Parser::attlist_declaration(char *p) {
    char *t = skip_spaces(p + 9);
    if (*t == '\0')
        return (error(t, "unclosed <!ATTLIST"), nullptr);
    char *s = t + std::strcspn(t, "\t\r\n >");
    if (*s == '>')
        return s + 1;
    if (*s == '\0')
        return (error(t, "unclosed <!ATTLIST"), nullptr);
    *s = '\0';
    for (;;) {
        char *n = skip_spaces(s + 1);
        if (*n == '\0' || *n == '>')
            return *n == '>' ? n + 1 : nullptr;
        s = attribute_definition(t, n);
        if (s == nullptr)
            return nullptr;
    }
}

// One attribute definition of the <!ATTLIST of `tag`, its name at `n`:
// type, an optional #FIXED, then a quoted default or a keyword beginning
// with '#'. The position before what follows it, or NULL (stop).
char *Parser::attribute_definition(char *tag, char *n) {
    static const char kCdata[] = " ";
    static const char kOther[] = "*";
    char *s = n + std::strcspn(n, kSpaces);
    if (*s == '\0')
        return (error(tag, "malformed <!ATTLIST"), nullptr);
    *s = '\0';
    s = skip_spaces(s + 1);
    const char *type = starts_with(s, "CDATA") ? kCdata : kOther;
    if (starts_with(s, "NOTATION"))
        s = skip_spaces(s + 8);
    if (*s == '(') {
        s = std::strchr(s, ')');
        if (s == nullptr)
            return (error(tag, "malformed <!ATTLIST"), nullptr);
    } else {
        s += std::strcspn(s, kSpaces);
    }
    s += std::strspn(s, "\t\r\n )");
    if (starts_with(s, "#FIXED"))
        s = skip_spaces(s + 6);
    char *value = nullptr;
    bool owned = false;
    if (*s == '#') {  // #REQUIRED, #IMPLIED: no default value
        s += std::strcspn(s, "\t\r\n >");
        if (*s == '\0')
            return nullptr;
        if (*s == '>')
            --s;  // let the caller see the '>'
        if (type == kCdata)
            return s;  // CDATA without a default: nothing to record
    } else if ((*s == '"' || *s == '\'') && std::strchr(s + 1, *s) != nullptr) {
        char *v = s + 1;
        s = std::strchr(v, *s);
        *s = '\0';
        value = decode(v, static_cast<size_t>(s - v), general_, type[0], budget_, &owned);
        if (value == nullptr)
            return (
                budget_.exceeded ? error(v, "entity expansion limit exceeded") : out_of_memory(v),
                nullptr);
    } else {
        return (error(tag, "malformed <!ATTLIST"), nullptr);
    }
    if (!append_default(tag, n, value, owned, type)) {
        if (owned)
            std::free(value);
        return (out_of_memory(tag), nullptr);
    }
    return s;
}

}  // namespace qorcfg::xml
