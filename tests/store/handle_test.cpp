// tests/store/handle_test.cpp - store handles: lock kinds and their lock
// files, the working copy rebuilt from the flash copy, every way of opening
// a configuration, closing, shared handles and network modes (registered
// network-mode handles loaded in place and closed while registered), listing
// an element's children and factory defaults.
#include <signal.h>

#include "tests/support/fixtures.h"

namespace {

using namespace qorcfg::test;

constexpr uint32_t kSysDevice = 0x08080000;  // "sys_device", qorconfig.system.device
constexpr uint32_t kAccounts = 0x18080000;   // "mgmt_accounts", qorconfig.mgmt.accounts
const std::string kRm = std::string("/bin/rm -f ") + config_ram;  // drops the working copy

// The top element's name and its "name" (or else its "version") attribute, or "(none)".
std::string label(ezxml_node *root) {
    const char *name = ezxml_attr(root, ezxml_attr(root, "name") ? "name" : "version");
    return root == nullptr ? "(none)" : root->name + std::string(" ") + (name ? name : "");
}
// "name#index " of every record; the values must all be null.
std::string children(qorcfg_attr *list) {
    std::string out;
    for (const auto &[name, value, index] : attrs(list))
        out += name + "#" + std::to_string(index) + (value == "(null)" ? " " : "=" + value + " ");
    return out;
}

using HandleTest = StoreTest;

// ---- locks, file kinds, the working copy ------------------------------------------

TEST_F(HandleTest, EveryKindHasItsOwnLockFileUnderWhichItsFileIsRead) {
    const std::string ram_text = config_ram;  // the same text in another buffer
    // Lock kind, its file, and a configuration file of the kind with the file it reads.
    const std::tuple<int, const char *, const char *, const char *> kinds[] = {
        {1, "qorcfg_ram", ram_text.c_str(), config_ram},
        {2, "qorcfg_rom", nullptr, config_rom},
        {3, "qorcfg_backup", backup_cfg_file, backup_cfg_file},
        {4, "qorcfg_restored", restored_cfg_file, restored_cfg_file},
        {5, "qorcfg_current", current_config, current_config},
        {6, "access_lock", nullptr, nullptr},
        {0, "default_lock", "/tmp//config.xml", config_ram}};  // the same file, another text
    for (const auto &[kind, lock, path, file_read] : kinds) {
        sandbox.remove("/var/lock");
        sandbox.write(std::string("/var/lock/") + lock, "stale");
        const int fd = lock_qorcfg(kind, LOCK_EX);
        ASSERT_GE(fd, 0) << kind;
        EXPECT_EQ(locks(sandbox), lock + std::string("(ex) "));
        EXPECT_EQ(sandbox.read(std::string("/var/lock/") + lock), "");  // truncated

        // Close-on-exec: a command started under a lock does not keep it.
        EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(unlock_qorcfg(fd), 0);
        if (file_read != nullptr) {  // read under the same lock file, which is given back
            sandbox.write(file_read, config_doc(file_read));

            EXPECT_EQ(label(own(init_qorcfg_f_direct(path)).get()),
                      "qorconfig " + std::string(file_read));
        }
        EXPECT_EQ(locks(sandbox), lock + std::string(" ")) << kind;
    }

    const int a = lock_qorcfg(2, LOCK_SH), b = lock_qorcfg(2, LOCK_SH);  // shared locks coexist
    EXPECT_EQ(lock_qorcfg(2, LOCK_EX | LOCK_NB), -10);
    const int other = lock_qorcfg(1, LOCK_EX | LOCK_NB);  // kinds are independent
    EXPECT_EQ(locks(sandbox), "default_lock qorcfg_ram(ex) qorcfg_rom(sh) ");
    EXPECT_EQ(unlock_qorcfg(other) + unlock_qorcfg(a) + unlock_qorcfg(b), 0);
    sandbox.remove("/var/lock");  // no directory for the lock file
    EXPECT_EQ(lock_qorcfg(6, LOCK_EX), -7);
    EXPECT_EQ(unlock_qorcfg(-1), -1);  // close's own result
}

TEST_F(HandleTest, MissingWorkingCopyIsCopiedFromFlashOrTheDeviceIsReset) {
    EXPECT_EQ(init_qorcfg_direct(), nullptr);  // neither copy: no reset either
    EXPECT_TRUE(sandbox.commands().empty());
    const std::string flash = "<qorconfig version=\"7\" pad=\"" + std::string(600, 'p') +
                              "\">\n\n<system>\r\n" + std::string(256, ' ') +
                              "\n<device name=\"from-flash\"/></system>\n</qorconfig>";
    sandbox.write(config_rom, flash);  // long lines, no final newline: byte for byte
    for (const std::string blocked : {"/var/lock/qorcfg_rom", "/var/lock/qorcfg_ram"}) {
        sandbox.remove(blocked);
        sandbox.mkdir(blocked);  // the lock file cannot be opened
        EXPECT_EQ(init_qorcfg_direct(), nullptr);
        EXPECT_FALSE(sandbox.exists(config_ram));
        sandbox.remove(blocked);
    }
    EXPECT_EQ(label(own(init_qorcfg_direct()).get()), "qorconfig 7");
    EXPECT_EQ(sandbox.read(config_ram), flash);
    EXPECT_EQ(locks(sandbox), "qorcfg_ram qorcfg_rom ");
    sandbox.write(config_rom, config_doc("changed-flash"));  // an existing copy is used
    EXPECT_EQ(label(own(init_qorcfg_direct()).get()), "qorconfig 7");

    // A flash copy without "<qorconfig" in its first line resets the device, whichever opener
    // of the working copy finds it missing.
    const std::string factory = "<qorconfig version=\"factory\" devtype=\"AP\"></qorconfig>\n";
    const std::tuple<std::string, bool, std::function<bool()>> cases[] = {
        {"   " + config_doc("flash"), true, [] { return own(init_qorcfg()) != nullptr; }},
        {"<?xml version=\"1.0\"?>\n" + config_doc("flash"), false,
         [] { return own(init_qorcfg_direct()) != nullptr; }},
        {"", false,
         [] { return own(init_sub_qorcfg_direct("sys_device", 0, nullptr)) != nullptr; }},
    };
    for (const auto &[text, usable, opens] : cases) {
        set_all_net_qorcfg_mode(0);
        sandbox.remove(config_ram);
        sandbox.write(config_rom, text);
        sandbox.write("/etc/default-config.xml", factory);
        sandbox.runner().clear();
        EXPECT_EQ(stderr_of([o = &opens, u = usable, t = &text] { EXPECT_EQ((*o)(), u) << *t; }),
                  usable ? "" : "No config in flash, reset to default\n");
        EXPECT_EQ(sandbox.read(config_rom), usable ? text : factory);
        EXPECT_EQ(sandbox.commands(), std::vector<std::string>(usable ? 0 : 1, kRm));
    }
}

// ---- opening, closing, sharing ------------------------------------------------------

TEST_F(HandleTest, OpeningFollowsNetworkModesAndSharedSlots) {
    // A process starts in network mode: the handle holds only the file path, and its first
    // word is the address of the slot's mode.
    EXPECT_EQ(get_net_qorcfg(0) + get_net_qorcfg(1), 2);
    qorcfg_handle *net[] = {init_qorcfg(), init_qorcfg_f(config_ram), init_qorcfg_f(current_config),
                            init_sub_qorcfg("sys_device", 0, config_ram)};
    for (qorcfg_handle *h : net)
        ASSERT_EQ(is_net_cfg(h), 1);
    EXPECT_EQ(locks(sandbox), "");  // no file is touched
    EXPECT_STREQ(net[1]->net->path, config_ram);
    EXPECT_STREQ(net[2]->net->path, current_config);

    set_net_qorcfg_mode(1, 0);
    EXPECT_EQ(*net[0]->net->tag, 1);
    EXPECT_EQ(*net[2]->net->tag, 0);
    int elsewhere = 1;
    qorcfg_net_record forged{&elsewhere, config_ram}, copied{net[2]->net->tag, "/tmp/o.xml"};
    qorcfg_handle empty{}, forged_cell{.net = &forged}, copied_cell{.net = &copied};
    EXPECT_EQ(is_net_cfg(nullptr) + is_net_cfg(&empty) + is_net_cfg(&forged_cell), 0);
    EXPECT_EQ(is_net_cfg(&copied_cell), 1);
    for (qorcfg_handle *h : net)
        EXPECT_EQ(close_qorcfg(h), 0);

    // Other files are parsed at once, whatever the mode; slot 1 alone may be switched to files.
    sandbox.write(config_ram, config_doc("ram"));
    sandbox.write(config_rom, config_doc("rom"));
    sandbox.write(current_config, config_doc("current"));
    set_all_net_qorcfg_mode(1);
    EXPECT_EQ(label(own(init_qorcfg_f(nullptr))->xml), "qorconfig rom");
    EXPECT_EQ(label(own(init_qorcfg_f("/tmp//config.xml"))->xml), "qorconfig ram");
    EXPECT_EQ(label(own(init_sub_qorcfg("sys_device", 0, config_rom))->xml), "device rom");
    set_net_qorcfg_mode(1, 0);
    qorcfg_handle *current = init_qorcfg_f(current_config);
    EXPECT_EQ(label(current->xml), "qorconfig current");
    EXPECT_EQ(is_net_cfg(own(init_qorcfg()).get()), 1);

    // Registered handles are handed out again by every opener of their file, survive closes,
    // and are freed once no longer registered.
    EXPECT_EQ(close_qorcfg(nullptr), -2);
    set_all_net_qorcfg_mode(0);
    qorcfg_handle *ram = init_qorcfg();
    EXPECT_EQ(set_shared_qorcfg(ram, 0) + set_shared_qorcfg(current, 1), 0);
    EXPECT_EQ(shared_qorcfg[0], ram);
    EXPECT_EQ(get_net_qorcfg(0), 0);  // registering a handle leaves the modes
    EXPECT_EQ(init_qorcfg(), ram);
    EXPECT_EQ(init_qorcfg_f(config_ram), ram);
    EXPECT_EQ(init_sub_qorcfg(nullptr, kSysDevice, current_config), current);  // the whole one
    // A network-mode handle switched to local reads shares the document.
    set_net_qorcfg_mode(0, 1);
    qorcfg_handle *net_ram = init_qorcfg();
    EXPECT_EQ(read_value([&](char *v) { return get_cfg_item(net_ram, kSysDevice, "name", v); }),
              (Read{0, "ram", ""}));
    EXPECT_EQ(net_ram->xml, ram->xml);
    for (qorcfg_handle *h : {net_ram, ram, init_qorcfg(), current, init_qorcfg_f(current_config)})
        EXPECT_EQ(close_qorcfg(h), 0);
    EXPECT_EQ(label(ram->xml) + label(current->xml), "qorconfig ramqorconfig current");
    EXPECT_EQ(set_shared_qorcfg(nullptr, 0) + set_shared_qorcfg(nullptr, 1), 0);
    EXPECT_EQ(close_qorcfg(ram) + close_qorcfg(current), 0);  // no longer registered: freed
    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    EXPECT_EQ(init_qorcfg(), nullptr);

    // Bad arguments are ignored.
    EXPECT_EQ(set_all_net_qorcfg_mode(0) + set_net_qorcfg_mode(0, 2) + set_net_qorcfg_mode(2, 1),
              0);
    EXPECT_EQ(get_net_qorcfg(0) + get_net_qorcfg(1) + get_net_qorcfg(2), 0);
    // Registering null, even for a slot that does not exist, turns both modes on.
    EXPECT_EQ(set_shared_qorcfg(nullptr, 7), 0);
    EXPECT_EQ(get_net_qorcfg(0) + get_net_qorcfg(1), 2);
    sandbox.remove(config_ram);
    sandbox.remove(config_rom);
    qorcfg_handle *reg = init_qorcfg();
    EXPECT_EQ(set_shared_qorcfg(reg, 2), 0);
    EXPECT_TRUE(shared_qorcfg[0] == nullptr && shared_qorcfg[1] == nullptr);
    EXPECT_EQ(get_shared_qorcfg(2), nullptr);
    // A registered network-mode handle is loaded in place when fetched, unless its file
    // cannot be read.
    set_shared_qorcfg(reg, 0);
    EXPECT_EQ(get_shared_qorcfg(0), nullptr);  // no working copy, no flash copy
    EXPECT_EQ(is_net_cfg(reg), 1);
    sandbox.write(config_ram, config_doc("ram"));
    EXPECT_EQ(get_shared_qorcfg(0), reg);
    EXPECT_EQ(label(reg->xml), "qorconfig ram");
    EXPECT_EQ(get_net_qorcfg(0), 1);
    set_shared_qorcfg(nullptr, 0);
    close_qorcfg(reg);
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
        // No daemon: the lookup loads the registered handle itself, once. The one-group
        // refresh serves the whole document, read relative to its document element, where
        // the group's item is not found.
        char v[QORCFG_VALUE_SIZE];
        EXPECT_EQ(one_group ? get_cfg_item_by_path_gid_s(h, "x", "system.device", "name", v)
                            : get_cfg_item(h, kSysDevice, "name", v),
                  one_group ? -4 : 0);
        EXPECT_EQ(is_net_cfg(h), 0);
        EXPECT_EQ(get_shared_qorcfg(0), h);
        EXPECT_EQ(close_qorcfg(init_qorcfg()), 0);  // later opens hand it out; closes leave it
        EXPECT_EQ(get_cfg_item_by_str(h, "rf1_vap1", "ssid", v), 0);
        EXPECT_STREQ(v, "Lab-Corp");
        set_shared_qorcfg(nullptr, 0);
        EXPECT_EQ(close_qorcfg(h), 0);  // no longer registered: freed
    }
}

TEST_F(HandleTest, OneGroupIsOpenedByNamePathOrId) {
    sandbox.write(config_rom, config_doc("rom"));
    sandbox.write(config_ram, config_doc("ram"));
    const std::tuple<const char *, uint32_t, const char *, const char *> cases[] = {
        {"sys_device", 0, config_rom, "device rom"},
        {"qorconfig.system.device", 0, "", "device rom"},  // "": the flash copy
        {nullptr, kSysDevice, config_rom, "device rom"},
        {"mgmt_accounts", kSysDevice, config_rom, "accounts "},  // a text wins over the ID
        {"system.device", 0, config_rom, "(none)"},              // a path must name its root

        {nullptr, 0, config_rom, "(none)"},
        {"rf1", 0, config_rom, "(none)"},  // a known group missing from the document
        // A null file is the working copy; naming the working copy's file does not prepare it.
        {"sys_device", 0, nullptr, "device ram"},
    };
    for (const auto &[group, gid, file, want] : cases)
        EXPECT_EQ(label(own(init_sub_qorcfg_direct(group, gid, file)).get()), want)
            << (group ? group : "");
    sandbox.remove(config_ram);
    EXPECT_EQ(init_sub_qorcfg_direct("sys_device", 0, config_ram), nullptr);
    EXPECT_FALSE(sandbox.exists(config_ram));
    EXPECT_EQ(label(own(init_sub_qorcfg_direct("mgmt_accounts", 0, nullptr)).get()), "accounts ");
    EXPECT_EQ(sandbox.read(config_ram), config_doc("rom"));  // prepared when missing
}

// ---- children --------------------------------------------------------------------------

TEST_F(HandleTest, ChildrenAreListedByNameGroups) {
    const Parsed root("<qorconfig><a><b/><c/><b><x/></b></a><d/></qorconfig>");
    qorcfg_handle cell{ezxml_child(root.root(), "d")};
    EXPECT_EQ(qorcfg_list_all_child(&cell), nullptr);
    cell.xml = ezxml_child(root.root(), "a");
    qorcfg_attr *list = nullptr;
    EXPECT_GE(sweep_allocations([&] { return (list = qorcfg_list_all_child(&cell)) != nullptr; }),
              1u);
    EXPECT_EQ(children(list), "b#0 b#1 c#-1 ");
    cell.xml = root.root();  // the document element itself stays
    EXPECT_EQ(children(list_child_by_path(&cell, "qorconfig")), "a#-1 d#-1 ");

    // By group path, name or ID: the element found is then taken out of the document and
    // freed.
    for (int form = 0; form < 3; ++form) {
        const Parsed doc(config_doc("x"));
        cell.xml = doc.root();
        qorcfg_attr *found = form == 0   ? list_child_by_path(&cell, "qorconfig.mgmt.accounts")
                             : form == 1 ? list_child_by_str(&cell, "mgmt_accounts")
                                         : list_child_by_gid(&cell, kAccounts);
        EXPECT_EQ(children(found), "account#0 account#1 session#-1 ");
        EXPECT_EQ(ezxml_child(doc.root(), "mgmt")->child, nullptr);
    }
    const Parsed doc(config_doc("x"));
    cell.xml = doc.root();
    EXPECT_EQ(stderr_of([&] {
                  for (qorcfg_attr *none :
                       {list_child_by_path(&cell, "qorconfig.mgmt.nope"),
                        list_child_by_str(&cell, "no_such"), list_child_by_gid(&cell, 0xF0000000u),
                        list_child_by_str(nullptr, "mgmt_accounts"),
                        list_child_by_gid(nullptr, kAccounts)})
                      EXPECT_EQ(none, nullptr);
              }),
              "ERROR: Fail to find item.\nlist_child_by_str>Can't find group name=no_such\n"
              "list_child_by_gid>Can't find group ID=-268435456\n");
    EXPECT_EQ(xml_of(doc.root()), xml_of(Parsed(config_doc("x")).root()));  // nothing spent
}

// ---- factory reset ---------------------------------------------------------------------

TEST_F(HandleTest, ResetCopiesTheFactorySourceDropsTheWorkingCopySignalsDaemonsOrFailsCleanly) {
    // The result, the flash copy afterwards, the pids signalled; on success only the working
    // copy is removed; no lock is kept either way.
    const auto reset = [&](const char *what, int rc, const std::string &flash, const char *pids) {
        sandbox.runner().clear();
        EXPECT_EQ(reset_qorcfg(), rc) << what;
        EXPECT_EQ(sandbox.read(config_rom), flash) << what;
        EXPECT_EQ(sandbox.commands(), std::vector<std::string>(rc == 0 ? 1 : 0, kRm)) << what;
        std::string signalled;
        for (const auto &s : sandbox.runner().signals())
            signalled += std::to_string(s.pid) + (s.sig == SIGUSR2 ? " " : "(other signal) ");
        EXPECT_EQ(signalled, pids) << what;
        EXPECT_EQ(locks(sandbox).find('('), std::string::npos) << what;
    };
    const std::string backup = "<qorconfig version=\"backup\">\n" + std::string(700, 'b') +
                               "\n\n</qorconfig>";  // long line, no final newline
    const std::string factory = "<qorconfig version=\"factory\"></qorconfig>\n";
    sandbox.write("/etc/default-config.xml", factory);
    sandbox.write("/conf/customize/config-backup.conf", backup);  // the customer's first
    sandbox.write("/var/run/snmpd.pid", "1\n");  // daemons from pid 2 on; no read_qorcfgd
    sandbox.write("/var/run/qorsic.pid", "3000\n");
    reset("from the backup", 0, backup, "3000 ");
    EXPECT_EQ(sandbox.runner().commands().at(0).kind, qorcfg::os::Command::system);
    sandbox.remove("/conf/customize");
    sandbox.write("/var/run/read_qorcfgd.pid", "123\n");
    sandbox.write("/var/run/snmpd.pid", "2");
    reset("from the factory defaults", 0, factory, "123 2 3000 ");

    sandbox.write("/conf/customize/config-backup.conf", backup);
    qorcfg::os::fail_nth(Call::open, 1, EACCES);
    reset("backup present but unreadable: no fallback to the default", -7, factory, "");
    qorcfg::os::fail_nth(Call::flock, 1, EINTR);
    reset("flash lock refused", -10, factory, "");
    sandbox.remove("/var/lock/qorcfg_ram");
    sandbox.mkdir("/var/lock/qorcfg_ram");  // its lock file cannot be opened
    reset("RAM lock file cannot be opened: flash already rewritten", -7, backup, "");
    sandbox.remove("/var/lock/qorcfg_ram");
    sandbox.remove(config_rom);
    sandbox.mkdir(config_rom);
    reset("flash copy cannot be written", -7, "", "");
}

}  // namespace
