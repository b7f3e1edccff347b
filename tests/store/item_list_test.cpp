// tests/store/item_list_test.cpp - item lists: new nodes, insertion in
// ascending group-ID order, the 256-byte value buffers appended nodes carry,
// appending by group name, finding a node by name, printing and freeing.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "os/os.h"
#include "qorcfg.h"
#include "tests/support/sandbox.h"

namespace {

using qorcfg::os::Call;
using qorcfg::test::CaptureOutput;

constexpr int32_t kSysDevice = 0x08080000;  // group "sys_device"
constexpr int32_t kAccounts = 0x18080000;   // group "mgmt_accounts"

// (gid, name) of every node, head first.
std::vector<std::pair<int32_t, std::string>> nodes(const qorcfg_item *list) {
    std::vector<std::pair<int32_t, std::string>> out;
    for (const qorcfg_item *n = list; n != nullptr && out.size() < 100; n = n->next)
        out.emplace_back(n->gid, n->name != nullptr ? n->name : "(null)");
    return out;
}
using Nodes = std::vector<std::pair<int32_t, std::string>>;

class ItemListTest : public qorcfg::test::SandboxTest {
protected:
    void SetUp() override { setenv("QORCFG_PRINT_ERR", "1", 1); }
};

TEST_F(ItemListTest, NewItemCopiesNameAndValueExactly) {
    const std::string name = "account:1.user";
    const std::string value(300, 'v');  // an exact copy is not cut
    qorcfg_item *item = get_new_item(-7, name.c_str(), value.c_str());
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->gid, -7);
    EXPECT_NE(item->name, name.c_str());
    EXPECT_EQ(std::string(item->name), name);
    EXPECT_NE(item->value, value.c_str());
    EXPECT_EQ(std::string(item->value), value);
    EXPECT_EQ(item->next, nullptr);
    EXPECT_EQ(free_item_list(item), 0);

    // Name and value may be missing.
    item = get_new_item(1, nullptr, nullptr);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->name, nullptr);
    EXPECT_EQ(item->value, nullptr);
    EXPECT_EQ(free_item_list(item), 0);
    EXPECT_EQ(free_item_list(nullptr), 0);

    // Every allocation failure gives none and leaves nothing behind.
    bool made = false;
    for (unsigned n = 1; n < 10 && !made; ++n) {
        qorcfg::os::fail_nth(Call::alloc, n, ENOMEM);
        item = get_new_item(2, "name", "value");
        qorcfg::os::reset_faults();
        made = item != nullptr;
        EXPECT_TRUE(made || n <= 3) << "allocation " << n;
        free_item_list(item);
    }
    EXPECT_TRUE(made);
}

TEST_F(ItemListTest, AppendedNodesAreOrderedByGidNewestFirstWithinAGid) {
    qorcfg_item *list = nullptr;
    const struct {
        int32_t gid;
        const char *name;
        bool new_head;
    } steps[] = {{5, "first 5", true}, {3, "3", true}, {5, "second 5", false}, {1, "1", true}};
    for (const auto &s : steps) {
        qorcfg_item *head = append_cfg_item(list, s.gid, s.name, "x");
        ASSERT_NE(head, nullptr);
        if (s.new_head) {
            EXPECT_EQ(head->gid, s.gid);
            EXPECT_STREQ(head->name, s.name);
        } else {
            EXPECT_EQ(head, list);
        }
        list = head;
    }
    EXPECT_EQ(nodes(list), (Nodes{{1, "1"}, {3, "3"}, {5, "second 5"}, {5, "first 5"}}));
    list = append_cfg_item(list, 9, "tail", "x");  // beyond every gid: appended, head kept
    EXPECT_EQ(nodes(list).back(), (std::pair<int32_t, std::string>{9, "tail"}));
    free_item_list(list);

    // Group IDs compare as signed numbers: those with the top bit set come first.
    list = append_cfg_item(nullptr, 0x20800000, "rf1", "x");
    list = append_cfg_item(list, static_cast<int32_t>(0x90000000u), "high bit", "x");
    list = append_cfg_item(list, -1, "minus one", "x");
    EXPECT_EQ(nodes(list), (Nodes{{static_cast<int32_t>(0x90000000u), "high bit"},
                                  {-1, "minus one"},
                                  {0x20800000, "rf1"}}));
    free_item_list(list);
}

TEST_F(ItemListTest, MissingNameOrValueGivesNoneAndLeavesTheList) {
    qorcfg_item *list = append_cfg_item(nullptr, 3, "a", "1");
    list = append_cfg_item(list, 5, "b", "2");
    ASSERT_NE(list, nullptr);
    const Nodes before = nodes(list);
    CaptureOutput err(STDERR_FILENO);
    EXPECT_EQ(append_cfg_item(list, 1, nullptr, "v"), nullptr);
    EXPECT_EQ(append_cfg_item(list, 1, "n", nullptr), nullptr);
    EXPECT_EQ(append_cfg_item(nullptr, 1, nullptr, nullptr), nullptr);
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(nodes(list), before);

    // Out of memory: a message, none, and the list as it was.
    for (unsigned n = 1; n <= 3; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        CaptureOutput oom(STDERR_FILENO);
        qorcfg::os::fail_nth(Call::alloc, n, ENOMEM);
        qorcfg_item *head = append_cfg_item(list, 1, "n", "v");
        qorcfg::os::reset_faults();
        EXPECT_TRUE(head == nullptr || n > 1);
        if (head == nullptr) {
            EXPECT_EQ(oom.text(), "Memory allocate error, can't get new item\n");
            EXPECT_EQ(nodes(list), before);
        } else {
            list = head;  // fewer allocations than n
        }
    }
    free_item_list(list);
}

TEST_F(ItemListTest, AppendedValuesLiveInZeroedBuffersOf256Bytes) {
    const std::string long_value(300, 'w');
    qorcfg_item *list = append_cfg_item(nullptr, 1, "long", long_value.c_str());
    list = append_cfg_item(list, 2, "short", "ab");
    list = append_cfg_item(list, 3, "empty", "");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(std::string(list->value), long_value.substr(0, 255));
    const qorcfg_item *shorter = list->next;
    EXPECT_STREQ(shorter->value, "ab");
    EXPECT_EQ(std::string(shorter->value, QORCFG_VALUE_SIZE),
              "ab" + std::string(QORCFG_VALUE_SIZE - 2, '\0'));
    // A read of up to 255 characters fits in any of them.
    for (qorcfg_item *n = list; n != nullptr; n = n->next) {
        std::memset(n->value, 'z', QORCFG_VALUE_SIZE - 1);
        n->value[QORCFG_VALUE_SIZE - 1] = '\0';
        EXPECT_EQ(std::strlen(n->value), 255u);
    }
    free_item_list(list);
}

TEST_F(ItemListTest, AppendingByGroupNameUsesTheGroupsId) {
    qorcfg_item *list = append_cfg_item_by_str(nullptr, "mgmt_accounts", "max", "8");
    list = append_cfg_item_by_str(list, "sys_device", "name", "ap");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(nodes(list), (Nodes{{kSysDevice, "name"}, {kAccounts, "max"}}));
    EXPECT_STREQ(list->value, "ap");
    const Nodes before = nodes(list);
    CaptureOutput err(STDERR_FILENO);
    EXPECT_EQ(append_cfg_item_by_str(list, "no_such_group", "name", "x"), nullptr);
    EXPECT_EQ(append_cfg_item_by_str(list, "qorconfig.system.device", "name", "x"), nullptr);
    EXPECT_EQ(append_cfg_item_by_str(list, nullptr, "name", "x"), nullptr);
    EXPECT_EQ(append_cfg_item_by_str(list, "sys_device", nullptr, "x"), nullptr);
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(nodes(list), before);
    free_item_list(list);
}

TEST_F(ItemListTest, CheckItemExistFindsTheFirstNodeOfThatName) {
    qorcfg_item *list = append_cfg_item(nullptr, 3, "ssid", "later");
    list = append_cfg_item(list, 1, "ssid", "first");
    list = append_cfg_item(list, 2, "channel", "6");
    ASSERT_NE(list, nullptr);
    qorcfg_item *found = check_item_exist(list, "ssid");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->gid, 1);
    EXPECT_STREQ(found->value, "first");
    EXPECT_EQ(check_item_exist(list, "channel"), list->next);
    EXPECT_EQ(check_item_exist(list, "ssi"), nullptr);
    EXPECT_EQ(check_item_exist(list, "ssid "), nullptr);
    EXPECT_EQ(check_item_exist(list, "SSID"), nullptr);
    EXPECT_EQ(check_item_exist(list, nullptr), nullptr);
    EXPECT_EQ(check_item_exist(nullptr, "ssid"), nullptr);
    free_item_list(list);
}

TEST_F(ItemListTest, PrintListNumbersEveryNode) {
    qorcfg_item *list = append_cfg_item(nullptr, kAccounts, "account:1.user", "operator");
    list = append_cfg_item(list, static_cast<int32_t>(0xF0000000u), "x", "");
    list = append_cfg_item(list, kSysDevice, "name", "AP 01 %s");
    std::string text;
    {
        CaptureOutput err(STDERR_FILENO);
        print_list(list);
        print_list(nullptr);
        text = err.text();
    }
    EXPECT_EQ(text,
              "1. Gid = -268435456, Name=x Value=\n"
              "2. Gid = 134742016, Name=name Value=AP 01 %s\n"
              "3. Gid = 403177472, Name=account:1.user Value=operator\n");
    free_item_list(list);
}

}  // namespace
