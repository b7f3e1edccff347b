// Every group of the sample device can be opened on its own: prefix-limited
// parsing of the group's path (its textual search) lands on the same
// element a whole parse reaches by the path, in the configuration and in
// the rule file. A tag whose name begins with another's, placed before it,
// or a group element written without a closing tag, breaks this.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"
#include "tests/support/sandbox.h"

namespace {

// The element at a dotted path ("qorconfig.a.b:2"), or NULL.
ezxml_node *walk(ezxml_node *root, const std::string &path) {
    size_t pos = path.find('.');
    if (path.substr(0, pos) != root->name)
        return nullptr;
    ezxml_node *e = root;
    while (pos != std::string::npos && e != nullptr) {
        size_t next = path.find('.', pos + 1);
        std::string step =
            path.substr(pos + 1, next == std::string::npos ? std::string::npos : next - pos - 1);
        int index = 0;
        size_t colon = step.find(':');
        if (colon != std::string::npos) {
            index = std::atoi(step.c_str() + colon + 1);
            step.resize(colon);
        }
        e = ezxml_idx(ezxml_child(e, step.c_str()), index);
        pos = next;
    }
    return e;
}

std::string attributes(ezxml_node *e) {
    std::string out;
    for (char **a = e->attr; *a != nullptr; a += 2)
        out += std::string(a[0]) + "=" + a[1] + ";";
    return out;
}

void check_file(const std::string &file) {
    qorcfg::os::set_root("");  // the source tree's device root, read only
    ezxml_node *whole = ezxml_parse_file(file.c_str());
    ASSERT_NE(whole, nullptr) << file;
    ASSERT_STREQ(ezxml_error(whole), "") << file;
    int groups = 0;
    for (const qorcfg_group *row = group_table; row->gid != 0; ++row) {
        SCOPED_TRACE(row->path);
        ++groups;
        ezxml_node *expected = walk(whole, row->path);
        ASSERT_NE(expected, nullptr);
        FILE *fp = std::fopen(file.c_str(), "r");
        ASSERT_NE(fp, nullptr);
        ezxml_node *part = ezxml_parse_fp_by_prefix(fp, row->path);
        std::fclose(fp);
        ASSERT_NE(part, nullptr);
        EXPECT_STREQ(ezxml_error(part), "");
        EXPECT_STREQ(part->name, expected->name);
        EXPECT_EQ(attributes(part), attributes(expected));
        ezxml_free(part);
    }
    EXPECT_GT(groups, 400);
    ezxml_free(whole);
}

TEST(DevicePrefix, EveryGroupOpensOnItsOwnInTheConfiguration) {
    check_file(qorcfg::test::devroot() + "/etc/default-config.xml");
}

TEST(DevicePrefix, EveryGroupOpensOnItsOwnInTheRuleFile) {
    check_file(qorcfg::test::devroot() + "/etc/cfg-rule.xml");
}

}  // namespace
