// tests/store/handle_test.cpp - store handles: lock kinds and their lock
// files, the working copy rebuilt from the flash copy, every way of opening
// a configuration, closing, shared handles and network modes (registered
// network-mode handles loaded in place and closed while registered), the
// dotted-path walk, listing an element's children and factory defaults.
#include <signal.h>

#include <filesystem>
#include <set>

#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;
namespace fs = std::filesystem;

constexpr uint32_t kSysDevice = 0x08080000;  // "sys_device", qorconfig.system.device
constexpr uint32_t kAccounts = 0x18080000;   // "mgmt_accounts", qorconfig.mgmt.accounts

// A configuration whose paths follow the device's group table; `label`
// names the copy it stands for (it becomes the device's name).
std::string config_doc(const std::string &label) {
    return "<qorconfig version=\"1.10.01\" devtype=\"AP\">\n  <system>\n    <device name=\"" +
           label +
           "\" desc=\"lab\"></device>\n  </system>\n  <mgmt>\n    <accounts max=\"8\" "
           "cur_num=\"2\">\n      <account user=\"admin\"/>\n      <account user=\"operator\"/>\n"
           "      <session timeout=\"600\"/>\n    </accounts>\n  </mgmt>\n</qorconfig>\n";
}

// Name of the device in a whole document, or "(none)".
std::string device_name(ezxml_node *root) {
    const char *name = ezxml_attr(ezxml_child(ezxml_child(root, "system"), "device"), "name");
    return name == nullptr ? "(none)" : name;
}

// "name#index " of every record; the values must all be null.
std::string children(qorcfg_attr *list) {
    std::string out;
    for (const auto &[name, value, index] : attrs(list))
        out += name + "#" + std::to_string(index) + (value == "(null)" ? " " : "=" + value + " ");
    return out;
}

class HandleTest : public SandboxTest {
protected:
    void SetUp() override { setenv("QORCFG_PRINT_ERR", "1", 1); }
    // Back to the state every process starts in: nothing shared, network modes 1.
    void TearDown() override {
        set_shared_qorcfg(nullptr, 0);
        set_shared_qorcfg(nullptr, 1);
    }
    std::set<std::string> lock_files() const {
        std::set<std::string> names;
        for (const auto &entry : fs::directory_iterator(sandbox.path("/var/lock")))
            names.insert(entry.path().filename().string());
        return names;
    }
    void clear_locks() const {
        sandbox.remove("/var/lock");
        sandbox.mkdir("/var/lock");
    }
    // Whether another open of the lock file could take `op` now (without waiting).
    bool can_lock(const std::string &lock_file, int op = LOCK_EX) const {
        const int fd = ::open(sandbox.path("/var/lock/" + lock_file).c_str(), O_RDWR);
        if (fd < 0)
            return errno == ENOENT || errno == EISDIR;  // no lock file, no holder
        const bool ok = ::flock(fd, op | LOCK_NB) == 0;
        ::close(fd);
        return ok;
    }
};

// ---- locks, file kinds, the working copy ------------------------------------------

TEST_F(HandleTest, EveryLockKindHasItsOwnLockFileAndFailuresTheirCodes) {
    const std::pair<int, const char *> kinds[] = {
        {1, "qorcfg_ram"},      {2, "qorcfg_rom"},     {3, "qorcfg_backup"},
        {4, "qorcfg_restored"}, {5, "qorcfg_current"}, {6, "access_lock"},
        {0, "default_lock"},    {7, "default_lock"},   {-1, "default_lock"}};
    for (const auto &[kind, file] : kinds) {
        clear_locks();
        sandbox.write(std::string("/var/lock/") + file, "stale");
        const int fd = lock_qorcfg(kind, LOCK_EX);
        ASSERT_GE(fd, 0) << kind;
        EXPECT_EQ(lock_files(), std::set<std::string>{file});
        EXPECT_EQ(sandbox.read(std::string("/var/lock/") + file), "");  // truncated
        EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
        // Close-on-exec: a command started under a lock does not keep it.
        EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_FALSE(can_lock(file, LOCK_SH));
        EXPECT_EQ(unlock_qorcfg(fd), 0);
        EXPECT_TRUE(can_lock(file));
    }
    const int a = lock_qorcfg(2, LOCK_SH), b = lock_qorcfg(2, LOCK_SH);  // shared locks coexist
    EXPECT_EQ(lock_qorcfg(2, LOCK_EX | LOCK_NB), -10);
    qorcfg::os::fail_nth(Call::flock, 1, EINTR);
    EXPECT_EQ(lock_qorcfg(6, LOCK_EX), -10);
    const int other = lock_qorcfg(1, LOCK_EX | LOCK_NB);  // kinds are independent
    EXPECT_GE(other, 0);
    for (int fd : {other, a, b})
        unlock_qorcfg(fd);
    EXPECT_TRUE(can_lock("qorcfg_rom") && can_lock("access_lock"));  // nothing kept
    qorcfg::os::fail_nth(Call::open, 1, EACCES);
    EXPECT_EQ(lock_qorcfg(1, LOCK_SH), -7);
    sandbox.remove("/var/lock");  // no directory for the lock file
    EXPECT_EQ(lock_qorcfg(6, LOCK_EX), -7);
    EXPECT_EQ(unlock_qorcfg(-1), -1);  // close's own result
}

TEST_F(HandleTest, EachFileIsReadUnderTheLockOfItsKind) {
    const std::string ram_text = config_ram;  // the same text in another buffer
    for (const char *file : {config_ram, config_rom, backup_cfg_file, restored_cfg_file,
                             current_config, "/etc/cfg-rule.xml"})
        sandbox.write(file, config_doc(file));
    const std::tuple<const char *, const char *, const char *> cases[] = {
        {config_ram, config_ram, "qorcfg_ram"},
        {ram_text.c_str(), config_ram, "qorcfg_ram"},
        {config_rom, config_rom, "qorcfg_rom"},
        {backup_cfg_file, backup_cfg_file, "qorcfg_backup"},
        {restored_cfg_file, restored_cfg_file, "qorcfg_restored"},
        {current_config, current_config, "qorcfg_current"},
        {nullptr, config_rom, "qorcfg_rom"},
        {"", config_rom, "qorcfg_rom"},
        {"/tmp//config.xml", config_ram, "default_lock"},  // the same file, another text
        {"/etc/cfg-rule.xml", "/etc/cfg-rule.xml", "default_lock"},
    };
    for (const auto &[path, file_read, lock] : cases) {
        clear_locks();
        ezxml_node *root = init_qorcfg_f_direct(path);
        EXPECT_EQ(device_name(root), file_read);
        ezxml_free(root);
        EXPECT_EQ(lock_files(), std::set<std::string>{lock});
        EXPECT_TRUE(can_lock(lock));
    }
    EXPECT_EQ(init_qorcfg_f_direct("/tmp/none.xml"), nullptr);
}

TEST_F(HandleTest, MissingWorkingCopyIsCopiedFromFlashOrTheDeviceIsReset) {
    const std::string flash = "<qorconfig version=\"7\" pad=\"" + std::string(600, 'p') +
                              "\">\n\n<system>\r\n" + std::string(256, ' ') +
                              "\n<device name=\"from-flash\"/></system>\n</qorconfig>";
    sandbox.write(config_rom, flash);  // long lines, no final newline: byte for byte
    ezxml_node *root = init_qorcfg_direct();
    EXPECT_EQ(device_name(root), "from-flash");
    ezxml_free(root);
    EXPECT_EQ(sandbox.read(config_ram), flash);
    EXPECT_EQ(lock_files(), (std::set<std::string>{"qorcfg_ram", "qorcfg_rom"}));
    EXPECT_TRUE(can_lock("qorcfg_ram") && can_lock("qorcfg_rom"));
    sandbox.write(config_rom, config_doc("changed-flash"));  // an existing copy is used
    root = init_qorcfg_direct();
    EXPECT_EQ(device_name(root), "from-flash");
    ezxml_free(root);

    // A flash copy without "<qorconfig" in its first line resets the device,
    // whichever opener of the working copy finds it missing.
    const std::string factory = "<qorconfig version=\"factory\" devtype=\"AP\"></qorconfig>\n";
    const std::string rm = std::string("/bin/rm -f ") + config_ram;
    const std::pair<std::string, bool> cases[] = {
        {config_doc("flash"), true},
        {"   " + config_doc("flash"), true},
        {"<?xml version=\"1.0\"?>\n" + config_doc("flash"), false},
        {"\n" + config_doc("flash"), false},
        {"<QORCONFIG version=\"1\"></QORCONFIG>\n", false},
        {"", false},
    };
    const std::function<bool()> openers[] = {
        [] {
            return std::unique_ptr<ezxml_node, decltype(&ezxml_free)>(init_qorcfg_direct(),
                                                                      &ezxml_free) != nullptr;
        },
        [] { return own(init_qorcfg()) != nullptr; },
        [] {
            ezxml_node *r = init_sub_qorcfg_direct("sys_device", 0, nullptr);
            ezxml_free(r);
            return r != nullptr;
        }};
    for (const auto &[text, usable] : cases) {
        for (const auto &opener : openers) {
            set_all_net_qorcfg_mode(0);
            sandbox.remove(config_ram);
            sandbox.write(config_rom, text);
            sandbox.write("/etc/default-config.xml", factory);
            sandbox.runner().clear();
            CaptureOutput err(STDERR_FILENO);
            EXPECT_EQ(opener(), usable) << text;
            EXPECT_EQ(err.text(), usable ? "" : "No config in flash, reset to default\n");
            EXPECT_EQ(sandbox.read(config_rom), usable ? text : factory);
            EXPECT_EQ(sandbox.commands(),
                      usable ? std::vector<std::string>{} : std::vector<std::string>{rm});
            EXPECT_TRUE(can_lock("qorcfg_ram") && can_lock("qorcfg_rom"));
        }
    }
}

TEST_F(HandleTest, WorkingCopyIsNotMadeWhenFlashOrLocksFail) {
    EXPECT_EQ(init_qorcfg_direct(), nullptr);  // neither copy: no reset either
    EXPECT_TRUE(sandbox.commands().empty());
    sandbox.write(config_rom, config_doc("flash"));
    for (const std::string blocked : {"/var/lock/qorcfg_rom", "/var/lock/qorcfg_ram"}) {
        sandbox.remove(blocked);
        sandbox.mkdir(blocked);  // the lock file cannot be opened
        EXPECT_EQ(init_qorcfg_direct(), nullptr);
        EXPECT_FALSE(sandbox.exists(config_ram));
        sandbox.remove(blocked);
        EXPECT_TRUE(can_lock("qorcfg_rom"));
    }
    qorcfg::os::fail_nth(Call::flock, 1, EINTR);
    EXPECT_EQ(init_qorcfg_direct(), nullptr);
    EXPECT_FALSE(sandbox.exists(config_ram));
    EXPECT_TRUE(can_lock("qorcfg_rom"));
}

// ---- opening, closing, sharing ------------------------------------------------------

TEST_F(HandleTest, OpeningFollowsNetworkModesAndSharedHandles) {
    // A process starts in network mode: the handle holds only the file path,
    // and its first word is the address of the slot's mode.
    EXPECT_EQ(get_net_qorcfg(0) + get_net_qorcfg(1), 2);
    const std::string ram_text = config_ram;
    qorcfg_handle *net[] = {init_qorcfg(), init_qorcfg_f(config_ram),
                            init_qorcfg_f(ram_text.c_str()), init_qorcfg_f(current_config),
                            init_sub_qorcfg("sys_device", 0, config_ram)};
    for (qorcfg_handle *h : net)
        ASSERT_EQ(is_net_cfg(h), 1);
    EXPECT_TRUE(lock_files().empty());  // no file is touched
    EXPECT_STREQ(net[1]->net->path, config_ram);
    EXPECT_STREQ(net[3]->net->path, current_config);
    EXPECT_EQ(net[1]->net->tag, net[0]->net->tag);
    set_net_qorcfg_mode(1, 0);
    EXPECT_EQ(*net[0]->net->tag, 1);
    EXPECT_EQ(*net[3]->net->tag, 0);
    int elsewhere = 1;
    qorcfg_net_record forged{&elsewhere, config_ram}, copied{net[3]->net->tag, "/tmp/o.xml"};
    qorcfg_handle empty{}, forged_cell{}, copied_cell{};
    forged_cell.net = &forged;
    copied_cell.net = &copied;
    EXPECT_EQ(is_net_cfg(nullptr) + is_net_cfg(&empty) + is_net_cfg(&forged_cell), 0);
    EXPECT_EQ(is_net_cfg(&copied_cell), 1);
    for (qorcfg_handle *h : net)
        EXPECT_EQ(close_qorcfg(h), 0);

    // Other files are parsed at once, whatever the mode; slot 1 alone may
    // be switched to files.
    sandbox.write(config_ram, config_doc("ram"));
    sandbox.write(config_rom, config_doc("rom"));
    sandbox.write(current_config, config_doc("current"));
    set_all_net_qorcfg_mode(1);
    const std::pair<const char *, const char *> files[] = {
        {config_rom, "rom"}, {nullptr, "rom"}, {"", "rom"}, {"/tmp//config.xml", "ram"}};
    for (const auto &[path, label] : files)
        EXPECT_EQ(device_name(own(init_qorcfg_f(path))->xml), label);
    EXPECT_STREQ(own(init_sub_qorcfg("sys_device", 0, config_rom))->xml->name, "device");
    set_net_qorcfg_mode(1, 0);
    qorcfg_handle *current = init_qorcfg_f(current_config);
    EXPECT_EQ(device_name(current->xml), "current");
    EXPECT_EQ(is_net_cfg(own(init_qorcfg()).get()), 1);

    // Registered handles are handed out again by every opener of their
    // file, survive closes, and are freed once no longer registered.
    EXPECT_EQ(close_qorcfg(nullptr), -2);
    set_all_net_qorcfg_mode(0);
    qorcfg_handle *ram = init_qorcfg();
    EXPECT_EQ(set_shared_qorcfg(ram, 0), 0);
    EXPECT_EQ(set_shared_qorcfg(current, 1), 0);
    EXPECT_EQ(shared_qorcfg[0], ram);
    EXPECT_EQ(get_net_qorcfg(0), 0);  // registering a handle leaves the modes
    EXPECT_EQ(init_qorcfg(), ram);
    EXPECT_EQ(init_qorcfg_f(config_ram), ram);
    EXPECT_EQ(init_sub_qorcfg("sys_device", 0, config_ram), ram);  // the whole document
    EXPECT_EQ(init_qorcfg_f(current_config), current);
    EXPECT_EQ(init_sub_qorcfg(nullptr, kSysDevice, current_config), current);
    // A network-mode handle switched to local reads shares the document.
    set_net_qorcfg_mode(0, 1);
    qorcfg_handle *net_ram = init_qorcfg();
    EXPECT_EQ(read_value([&](char *v) { return get_cfg_item(net_ram, kSysDevice, "name", v); }),
              (Read{0, "ram", ""}));
    EXPECT_EQ(net_ram->xml, ram->xml);
    EXPECT_EQ(close_qorcfg(net_ram), 0);
    for (qorcfg_handle *h : {ram, init_qorcfg(), current, init_qorcfg_f(current_config)})
        EXPECT_EQ(close_qorcfg(h), 0);
    EXPECT_EQ(device_name(ram->xml), "ram");
    EXPECT_EQ(device_name(current->xml), "current");
    set_shared_qorcfg(nullptr, 0);
    set_shared_qorcfg(nullptr, 1);
    EXPECT_EQ(close_qorcfg(ram), 0);  // no longer registered: freed
    EXPECT_EQ(close_qorcfg(current), 0);
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    set_all_net_qorcfg_mode(1);
    EXPECT_EQ(init_qorcfg(), nullptr);
}

TEST_F(HandleTest, NetworkModesAndSharedSlotsIgnoreBadArguments) {
    EXPECT_EQ(get_net_qorcfg(2) + get_net_qorcfg(3), 0);
    EXPECT_EQ(set_net_qorcfg_mode(0, 2), 0);
    EXPECT_EQ(get_net_qorcfg(0), 1);
    for (const auto &[slot, mode] : {std::pair{0, 0}, {0, 2}, {0, -1}, {2, 1}})
        set_net_qorcfg_mode(slot, mode);
    EXPECT_EQ(get_net_qorcfg(0), 0);
    EXPECT_EQ(get_net_qorcfg(1), 1);
    EXPECT_EQ(set_all_net_qorcfg_mode(0), 0);
    EXPECT_EQ(get_net_qorcfg(1), 0);
    // Registering null, even for a slot that does not exist, turns both modes on.
    EXPECT_EQ(set_shared_qorcfg(nullptr, 7), 0);
    EXPECT_EQ(get_net_qorcfg(0) + get_net_qorcfg(1), 2);
    sandbox.write(config_ram, config_doc("ram"));
    qorcfg_handle *net = init_qorcfg();
    EXPECT_EQ(set_shared_qorcfg(net, 2), 0);
    EXPECT_EQ(shared_qorcfg[0] == nullptr && shared_qorcfg[1] == nullptr, true);
    EXPECT_EQ(get_shared_qorcfg(2), nullptr);
    EXPECT_EQ(get_shared_qorcfg(-1), nullptr);
    EXPECT_EQ(get_shared_qorcfg(0), nullptr);
    // A registered network-mode handle is loaded in place when fetched,
    // unless its file cannot be read.
    set_shared_qorcfg(net, 0);
    sandbox.remove(config_ram);
    EXPECT_EQ(get_shared_qorcfg(0), nullptr);
    EXPECT_EQ(is_net_cfg(net), 1);
    sandbox.write(config_ram, config_doc("ram"));
    EXPECT_EQ(get_shared_qorcfg(0), net);
    EXPECT_EQ(device_name(net->xml), "ram");
    EXPECT_EQ(get_net_qorcfg(0), 1);
    set_shared_qorcfg(nullptr, 0);
    close_qorcfg(net);
}

// Regression: a registered handle still in network mode was freed twice when
// a lookup refreshed it (the open loads it in place), and freed while
// registered when closed; both now leave it to the registration.
TEST_F(HandleTest, ARegisteredNetworkHandleIsLoadedInPlaceAndSurvivesCloses) {
    install_sample(sandbox);
    for (bool one_group : {false, true}) {
        qorcfg_handle *h = init_qorcfg();
        ASSERT_EQ(is_net_cfg(h), 1);
        set_shared_qorcfg(h, 0);
        EXPECT_EQ(close_qorcfg(h), 0);  // registered and in network mode: left alone
        EXPECT_EQ(is_net_cfg(h), 1);
        // No daemon: the lookup loads the registered handle itself, once. The
        // one-group refresh serves the whole document, read relative to its
        // document element, where the group's item is not found.
        EXPECT_EQ(read_value([&](char *v) {
                      return one_group
                                 ? get_cfg_item_by_path_gid_s(h, "x", "system.device", "name", v)
                                 : get_cfg_item(h, kSysDevice, "name", v);
                  }).rc,
                  one_group ? -4 : 0);
        EXPECT_EQ(is_net_cfg(h), 0);
        EXPECT_EQ(get_shared_qorcfg(0), h);
        EXPECT_EQ(close_qorcfg(init_qorcfg()), 0);  // later opens hand it out; closes leave it
        EXPECT_EQ(
            read_value([&](char *v) { return get_cfg_item_by_str(h, "rf1_vap1", "ssid", v); }),
            (Read{0, "Lab-Corp", ""}));
        set_shared_qorcfg(nullptr, 0);
        EXPECT_EQ(close_qorcfg(h), 0);  // no longer registered: freed
    }
}

TEST_F(HandleTest, OneGroupIsOpenedByNamePathOrId) {
    sandbox.write(config_rom, config_doc("rom"));
    sandbox.write(config_ram, config_doc("ram"));
    const std::tuple<const char *, uint32_t, const char *> cases[] = {
        {"sys_device", 0, "device"},
        {"qorconfig.system.device", 0, "device"},
        {nullptr, kSysDevice, "device"},
        {"mgmt_accounts", kSysDevice, "accounts"},  // a text wins over the ID
        {"no_such_group", 0, nullptr},
        {"system.device", 0, nullptr},  // a path must name its root
        {"qorconfig.system", 0, nullptr},
        {nullptr, 0, nullptr},
        {nullptr, 0x12345678, nullptr},
        {"rf1", 0, nullptr},  // a known group missing from the document
    };
    for (const auto &[group, gid, top] : cases) {
        for (const char *file : {config_rom, ""}) {
            ezxml_node *root = init_sub_qorcfg_direct(group, gid, file);
            EXPECT_STREQ(root == nullptr ? nullptr : root->name, top) << gid;
            if (root != nullptr && root->name == std::string("device")) {
                EXPECT_STREQ(ezxml_attr(root, "name"), "rom");
            }
            ezxml_free(root);
        }
    }
    // A null file is the working copy, prepared when missing; naming the
    // working copy's file does not prepare it.
    ezxml_node *root = init_sub_qorcfg_direct("sys_device", 0, nullptr);
    EXPECT_STREQ(ezxml_attr(root, "name"), "ram");
    ezxml_free(root);
    sandbox.remove(config_ram);
    root = init_sub_qorcfg_direct("mgmt_accounts", 0, nullptr);
    EXPECT_STREQ(ezxml_attr(root, "max"), "8");
    ezxml_free(root);
    EXPECT_EQ(sandbox.read(config_ram), config_doc("rom"));
    sandbox.remove(config_ram);
    EXPECT_EQ(init_sub_qorcfg_direct("sys_device", 0, config_ram), nullptr);
    EXPECT_FALSE(sandbox.exists(config_ram));
}

// ---- the dotted-path walk, children --------------------------------------------------

TEST_F(HandleTest, PathWalkTakesDecimalIndexesOnly) {
    sandbox.write(config_ram,
                  "<qorconfig><a><b v=\"0\"/><b v=\"1\"/><b v=\"2\"/><c v=\"c\"/></a></qorconfig>");
    Handle h = own(init_qorcfg());  // network mode: the walk loads the file first
    const std::pair<const char *, const char *> cases[] = {
        {"a.b.v", "0"},        {"a.b:0.v", "0"},      {"a.b:2.v", "2"},
        {"a.b:3.v", nullptr},  {"a.b:x1.v", nullptr}, {"a.b:1x.v", nullptr},
        {"a.b:-1.v", nullptr}, {"a.c.v", "c"},        {"a.d.v", nullptr}};
    for (const auto &[item, value] : cases) {
        const Read r = read_value(
            [&](char *v) { return get_cfg_item_by_prefix_direct(h.get(), "qorconfig", item, v); });
        EXPECT_EQ(r.rc, value != nullptr ? 0 : -1) << item;
        EXPECT_EQ(r.value, value != nullptr ? value : "") << item;
    }
    EXPECT_EQ(is_net_cfg(h.get()) + get_net_qorcfg(0) + get_net_qorcfg(1), 0);
}

TEST_F(HandleTest, ChildrenAreListedByNameGroups) {
    sandbox.write("/tmp/doc.xml", "<qorconfig><a><b/><c/><b><x/></b></a><d/></qorconfig>");
    ezxml_node *root = init_qorcfg_f_direct("/tmp/doc.xml");
    qorcfg_handle cell{};
    cell.xml = root;
    EXPECT_EQ(children(qorcfg_list_all_child(&cell)), "a#-1 d#-1 ");
    cell.xml = ezxml_child(root, "d");
    EXPECT_EQ(qorcfg_list_all_child(&cell), nullptr);
    cell.xml = ezxml_child(root, "a");
    qorcfg_attr *list = nullptr;
    EXPECT_GE(sweep_allocations([&] { return (list = qorcfg_list_all_child(&cell)) != nullptr; }),
              1u);
    EXPECT_EQ(children(list), "b#0 b#1 c#-1 ");
    cell.xml = root;  // listing the root by path spends the whole document
    EXPECT_EQ(children(list_child_by_path(&cell, "qorconfig")), "a#-1 d#-1 ");

    // By group path, name or ID: the element found is then freed out of the
    // document, with what follows it under its parent.
    for (int form = 0; form < 3; ++form) {
        sandbox.write("/tmp/doc.xml", config_doc("x"));
        root = init_qorcfg_f_direct("/tmp/doc.xml");
        cell.xml = root;
        qorcfg_attr *found = form == 0   ? list_child_by_path(&cell, "qorconfig.mgmt.accounts")
                             : form == 1 ? list_child_by_str(&cell, "mgmt_accounts")
                                         : list_child_by_gid(&cell, kAccounts);
        EXPECT_EQ(children(found), "account#0 account#1 session#-1 ");
        ezxml_child(root, "mgmt")->child = nullptr;  // it was the parent's only child
        ezxml_free(root);
    }
    root = init_qorcfg_f_direct("/tmp/doc.xml");
    cell.xml = root;
    const std::pair<std::function<qorcfg_attr *()>, const char *> misses[] = {
        {[&] { return list_child_by_path(&cell, "qorconfig.mgmt.nope"); },
         "ERROR: Fail to find item.\n"},
        {[&] { return list_child_by_path(&cell, "qorconfig.mgmt.accounts:x1"); },
         "ERROR: Fail to find item.\n"},
        {[&] { return list_child_by_str(&cell, "no_such"); },
         "list_child_by_str>Can't find group name=no_such\n"},
        {[&] { return list_child_by_gid(&cell, 0xF0000000u); },
         "list_child_by_gid>Can't find group ID=-268435456\n"},
        {[] { return list_child_by_str(nullptr, "mgmt_accounts"); }, ""},
        {[] { return list_child_by_gid(nullptr, kAccounts); }, ""},
    };
    for (const auto &[call, message] : misses) {
        CaptureOutput err(STDERR_FILENO);
        EXPECT_EQ(call(), nullptr);
        EXPECT_EQ(err.text(), message);
    }
    EXPECT_EQ(device_name(root), "x");  // nothing found, nothing spent
    ezxml_free(root);
}

// ---- factory reset ---------------------------------------------------------------------

TEST_F(HandleTest, ResetCopiesTheFactorySourceDropsTheWorkingCopyAndSignalsDaemons) {
    const std::string backup = "<qorconfig version=\"backup\">\n" + std::string(700, 'b') +
                               "\n\n</qorconfig>";  // long line, no final newline
    const std::string factory = "<qorconfig version=\"factory\"></qorconfig>\n";
    // Pid files of read_qorcfgd, snmpd and qorsic (null: none); pids signalled.
    const std::tuple<const char *, const char *, const char *, std::vector<pid_t>> daemons[] = {
        {"123\n", "456", "789\n", {123, 456, 789}},
        {"0\n", "1\n", nullptr, {}},
        {nullptr, "2\n", "3000", {2, 3000}},
        {nullptr, nullptr, nullptr, {}},
    };
    for (bool with_backup : {true, false}) {
        for (const auto &[qorcfgd, snmpd, qorsic, signalled] : daemons) {
            sandbox.remove("/conf/customize");
            sandbox.remove("/var/run");
            if (with_backup)
                sandbox.write("/conf/customize/config-backup.conf", backup);
            const std::pair<const char *, const char *> pid_files[] = {
                {"/var/run/read_qorcfgd.pid", qorcfgd},
                {"/var/run/snmpd.pid", snmpd},
                {"/var/run/qorsic.pid", qorsic}};
            for (const auto &[file, pid] : pid_files)
                if (pid != nullptr)
                    sandbox.write(file, pid);
            sandbox.write("/etc/default-config.xml", factory);
            sandbox.write(config_ram, config_doc("old"));
            sandbox.runner().clear();
            EXPECT_EQ(reset_qorcfg(), 0);
            EXPECT_EQ(sandbox.read(config_rom), with_backup ? backup : factory);
            ASSERT_EQ(sandbox.runner().commands().size(), 1u);
            EXPECT_EQ(sandbox.runner().commands()[0].kind, qorcfg::os::Command::system);
            EXPECT_EQ(sandbox.runner().commands()[0].line, std::string("/bin/rm -f ") + config_ram);
            std::vector<pid_t> pids;
            for (const auto &s : sandbox.runner().signals()) {
                EXPECT_EQ(s.sig, SIGUSR2);
                pids.push_back(s.pid);
            }
            EXPECT_EQ(pids, signalled);
            EXPECT_TRUE(can_lock("qorcfg_rom") && can_lock("qorcfg_ram"));
        }
    }
}

TEST_F(HandleTest, ResetFailuresLeaveNothingRunOrSignalled) {
    sandbox.write("/var/run/snmpd.pid", "456\n");
    const std::string old = config_doc("old");
    // What breaks, the result, and the flash copy afterwards.
    const std::tuple<const char *, std::function<void()>, int, std::string> cases[] = {
        {"no source", [] {}, -7, old},
        {"backup present but unreadable: no fallback to the default",
         [&] {
             sandbox.write("/conf/customize/config-backup.conf", config_doc("backup"));
             sandbox.write("/etc/default-config.xml", config_doc("factory"));
             qorcfg::os::fail_nth(Call::open, 1, EACCES);
         },
         -7, old},
        {"flash lock refused", [] { qorcfg::os::fail_nth(Call::flock, 1, EINTR); }, -10, old},
        {"flash lock file cannot be opened", [&] { sandbox.mkdir("/var/lock/qorcfg_rom"); }, -7,
         old},
        {"RAM lock file cannot be opened: flash already rewritten",
         [&] { sandbox.mkdir("/var/lock/qorcfg_ram"); }, -7, config_doc("backup")},
        {"flash copy cannot be written",
         [&] {
             sandbox.remove(config_rom);
             sandbox.mkdir(config_rom);
         },
         -7, ""},
    };
    for (const auto &[what, breakage, rc, flash] : cases) {
        clear_locks();
        sandbox.remove(config_rom);
        sandbox.write(config_rom, old);
        breakage();
        EXPECT_EQ(reset_qorcfg(), rc) << what;
        EXPECT_EQ(sandbox.read(config_rom), flash) << what;
        EXPECT_TRUE(sandbox.commands().empty()) << what;
        EXPECT_TRUE(sandbox.runner().signals().empty()) << what;
        EXPECT_TRUE(can_lock("qorcfg_rom")) << what;
    }
}

}  // namespace
