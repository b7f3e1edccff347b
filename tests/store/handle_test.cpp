// tests/store/handle_test.cpp - store handles: lock kinds and their lock
// files, the working copy rebuilt from the flash copy, every way of opening
// a configuration, closing, shared handles and network modes, the dotted-path
// walk, listing an element's children and restoring factory defaults.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"
#include "tests/support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using qorcfg::os::Call;
using qorcfg::test::CaptureOutput;

constexpr uint32_t kSysDevice = 0x08080000;  // "sys_device", qorconfig.system.device
constexpr uint32_t kAccounts = 0x18080000;   // "mgmt_accounts", qorconfig.mgmt.accounts

// A configuration whose paths follow the device's group table; `label` names
// the copy it stands for (it becomes the device's name).
std::string config_doc(const std::string &label) {
    return "<qorconfig version=\"1.10.01\" devtype=\"AP\">\n"
           "  <system>\n"
           "    <device name=\"" +
           label +
           "\" desc=\"lab\"></device>\n"
           "  </system>\n"
           "  <mgmt>\n"
           "    <accounts max=\"8\" cur_num=\"2\">\n"
           "      <account user=\"admin\"/>\n"
           "      <account user=\"operator\"/>\n"
           "      <session timeout=\"600\"/>\n"
           "    </accounts>\n"
           "  </mgmt>\n"
           "</qorconfig>\n";
}

std::string attr_of(ezxml_node *node, const char *name) {
    const char *value = ezxml_attr(node, name);
    return value == nullptr ? "(none)" : value;
}

// Name of the device in a whole document.
std::string device_name(ezxml_node *root) {
    return attr_of(ezxml_child(ezxml_child(root, "system"), "device"), "name");
}

// (name, index) of every record; the values must all be null.
std::vector<std::pair<std::string, int>> records(qorcfg_attr *list) {
    std::vector<std::pair<std::string, int>> out;
    for (qorcfg_attr *a = list; a != nullptr; a = a->next) {
        EXPECT_EQ(a->value, nullptr);
        out.emplace_back(a->name != nullptr ? a->name : "(null)", a->index);
    }
    free_attr_list(list);
    return out;
}
using Records = std::vector<std::pair<std::string, int>>;

size_t open_descriptors() {
    size_t n = 0;
    for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
        (void)entry;
        ++n;
    }
    return n;
}

class HandleTest : public qorcfg::test::SandboxTest {
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
    bool can_lock(const char *lock_file, int op) const {
        const int fd = ::open(sandbox.path(std::string("/var/lock/") + lock_file).c_str(), O_RDWR);
        if (fd < 0)
            return errno == ENOENT;
        const bool ok = ::flock(fd, op | LOCK_NB) == 0;
        ::close(fd);
        return ok;
    }
    // A document of our own, parsed from a sandbox file.
    ezxml_node *parse(const std::string &text) const {
        sandbox.write("/tmp/doc.xml", text);
        return init_qorcfg_f_direct("/tmp/doc.xml");
    }
};

// ---- locks -------------------------------------------------------------------

TEST_F(HandleTest, EveryLockKindHasItsOwnLockFile) {
    const struct {
        int kind;
        const char *file;
    } cases[] = {{1, "qorcfg_ram"},      {2, "qorcfg_rom"},     {3, "qorcfg_backup"},
                 {4, "qorcfg_restored"}, {5, "qorcfg_current"}, {6, "access_lock"},
                 {0, "default_lock"},    {7, "default_lock"},   {-1, "default_lock"}};
    for (const auto &c : cases) {
        SCOPED_TRACE("kind " + std::to_string(c.kind));
        clear_locks();
        sandbox.write(std::string("/var/lock/") + c.file, "stale");
        const int fd = lock_qorcfg(c.kind, LOCK_EX);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(lock_files(), std::set<std::string>{c.file});
        EXPECT_EQ(sandbox.read(std::string("/var/lock/") + c.file), "");  // truncated
        EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
        EXPECT_FALSE(can_lock(c.file, LOCK_SH));
        EXPECT_EQ(unlock_qorcfg(fd), 0);
        EXPECT_EQ(::fcntl(fd, F_GETFD), -1);  // the descriptor is closed
        EXPECT_TRUE(can_lock(c.file, LOCK_EX));
    }
}

TEST_F(HandleTest, RefusedOrFailingLocksGiveTheirCodesAndKeepNoDescriptor) {
    const int a = lock_qorcfg(2, LOCK_SH);
    const int b = lock_qorcfg(2, LOCK_SH);  // shared locks coexist
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    const size_t before = open_descriptors();
    EXPECT_EQ(lock_qorcfg(2, LOCK_EX | LOCK_NB), -10);
    qorcfg::os::fail_nth(Call::flock, 1, EINTR);
    EXPECT_EQ(lock_qorcfg(6, LOCK_EX), -10);
    EXPECT_EQ(open_descriptors(), before);
    const int other = lock_qorcfg(1, LOCK_EX | LOCK_NB);  // kinds are independent
    EXPECT_GE(other, 0);
    for (int fd : {other, a, b})
        unlock_qorcfg(fd);
    const int c = lock_qorcfg(2, LOCK_EX | LOCK_NB);
    EXPECT_GE(c, 0);
    unlock_qorcfg(c);

    qorcfg::os::fail_nth(Call::open, 1, EACCES);
    EXPECT_EQ(lock_qorcfg(1, LOCK_SH), -7);
    sandbox.remove("/var/lock");  // no directory for the lock file
    EXPECT_EQ(lock_qorcfg(6, LOCK_EX), -7);
    EXPECT_EQ(unlock_qorcfg(-1), -1);  // close's own result
}

// ---- file kinds, preparing the working copy --------------------------------------

TEST_F(HandleTest, EachFileIsReadUnderTheLockOfItsKind) {
    const std::string ram_text = config_ram;  // the same text in another buffer
    for (const char *file : {config_ram, config_rom, backup_cfg_file, restored_cfg_file,
                             current_config, "/etc/cfg-rule.xml"})
        sandbox.write(file, config_doc(file));
    const struct {
        const char *path;
        const char *file_read;
        const char *lock;
    } cases[] = {
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
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path == nullptr ? "(null)" : c.path);
        clear_locks();
        ezxml_node *root = init_qorcfg_f_direct(c.path);
        ASSERT_NE(root, nullptr);
        EXPECT_EQ(device_name(root), c.file_read);
        ezxml_free(root);
        EXPECT_EQ(lock_files(), std::set<std::string>{c.lock});
        EXPECT_TRUE(can_lock(c.lock, LOCK_EX));
    }
    EXPECT_EQ(init_qorcfg_f_direct("/tmp/none.xml"), nullptr);
    EXPECT_TRUE(can_lock("default_lock", LOCK_EX));
}

TEST_F(HandleTest, MissingWorkingCopyIsCopiedFromFlashByteForByte) {
    const std::string flash = "<qorconfig version=\"7\" devtype=\"AP\" pad=\"" +
                              std::string(600, 'p') + "\">\n\n  <system>\r\n" +
                              std::string(254, ' ') + "\n" + std::string(255, ' ') + "\n" +
                              std::string(256, ' ') + "\n    <device name=\"from-flash\"/>\n" +
                              "  </system>\n</qorconfig>";  // no final newline
    sandbox.write(config_rom, flash);
    ezxml_node *root = init_qorcfg_direct();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(device_name(root), "from-flash");
    ezxml_free(root);
    EXPECT_EQ(sandbox.read(config_ram), flash);
    EXPECT_EQ(lock_files(), (std::set<std::string>{"qorcfg_ram", "qorcfg_rom"}));
    EXPECT_TRUE(can_lock("qorcfg_ram", LOCK_EX));
    EXPECT_TRUE(can_lock("qorcfg_rom", LOCK_EX));
    EXPECT_TRUE(sandbox.commands().empty());

    // An existing working copy is used as it stands.
    sandbox.write(config_rom, config_doc("changed-flash"));
    root = init_qorcfg_direct();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(device_name(root), "from-flash");
    ezxml_free(root);
}

TEST_F(HandleTest, FlashWithoutConfigurationTriggersFactoryReset) {
    const std::string factory = "<qorconfig version=\"factory\" devtype=\"AP\"></qorconfig>\n";
    const struct {
        std::string flash;
        bool usable;
    } cases[] = {
        {config_doc("flash"), true},
        {"   " + config_doc("flash"), true},  // anywhere in the first line
        {"<?xml version=\"1.0\"?>\n" + config_doc("flash"), false},
        {"\n" + config_doc("flash"), false},
        {"<QORCONFIG version=\"1\"></QORCONFIG>\n", false},
        {"", false},
    };
    const std::string rm = std::string("/bin/rm -f ") + config_ram;
    for (const auto &c : cases) {
        SCOPED_TRACE("flash: " + c.flash.substr(0, 30));
        sandbox.remove(config_ram);
        sandbox.write(config_rom, c.flash);
        sandbox.write("/etc/default-config.xml", factory);
        sandbox.runner().clear();
        CaptureOutput err(STDERR_FILENO);
        ezxml_node *root = init_qorcfg_direct();
        const std::string text = err.text();
        if (c.usable) {
            EXPECT_NE(root, nullptr);
            EXPECT_EQ(text, "");
            EXPECT_EQ(sandbox.read(config_rom), c.flash);
            EXPECT_TRUE(sandbox.commands().empty());
        } else {
            EXPECT_EQ(root, nullptr);
            EXPECT_EQ(text, "No config in flash, reset to default\n");
            EXPECT_EQ(sandbox.read(config_rom), factory);
            EXPECT_EQ(sandbox.commands(), std::vector<std::string>{rm});
        }
        ezxml_free(root);
        EXPECT_TRUE(can_lock("qorcfg_ram", LOCK_EX));
        EXPECT_TRUE(can_lock("qorcfg_rom", LOCK_EX));
    }

    // The other openers of the working copy prepare it the same way.
    for (int opener = 0; opener < 2; ++opener) {
        SCOPED_TRACE(opener == 0 ? "init_qorcfg" : "init_sub_qorcfg_direct");
        set_all_net_qorcfg_mode(0);
        sandbox.remove(config_ram);
        sandbox.write(config_rom, "<?xml version=\"1.0\"?>\n" + config_doc("flash"));
        sandbox.runner().clear();
        CaptureOutput err(STDERR_FILENO);
        const bool opened = opener == 0
                                ? init_qorcfg() != nullptr
                                : init_sub_qorcfg_direct("sys_device", 0, nullptr) != nullptr;
        EXPECT_FALSE(opened);
        EXPECT_EQ(err.text(), "No config in flash, reset to default\n");
        EXPECT_EQ(sandbox.commands(), std::vector<std::string>{rm});
    }
}

TEST_F(HandleTest, WorkingCopyIsNotMadeWhenFlashOrLocksFail) {
    EXPECT_EQ(init_qorcfg_direct(), nullptr);  // neither copy: no reset either
    EXPECT_TRUE(sandbox.commands().empty());

    sandbox.write(config_rom, config_doc("flash"));
    for (const char *blocked : {"qorcfg_rom", "qorcfg_ram"}) {
        SCOPED_TRACE(blocked);
        sandbox.remove(std::string("/var/lock/") + blocked);
        sandbox.mkdir(std::string("/var/lock/") + blocked);  // the lock file cannot be opened
        EXPECT_EQ(init_qorcfg_direct(), nullptr);
        EXPECT_FALSE(sandbox.exists(config_ram));
        sandbox.remove(std::string("/var/lock/") + blocked);
        EXPECT_TRUE(can_lock("qorcfg_rom", LOCK_EX));
    }
    qorcfg::os::fail_nth(Call::flock, 1, EINTR);
    EXPECT_EQ(init_qorcfg_direct(), nullptr);
    EXPECT_FALSE(sandbox.exists(config_ram));
    EXPECT_TRUE(can_lock("qorcfg_rom", LOCK_EX));
}

// ---- opening -------------------------------------------------------------------

TEST_F(HandleTest, OpeningFollowsNetworkModesAndSharedHandles) {
    // A process starts in network mode: the handle holds only the file path.
    EXPECT_EQ(get_net_qorcfg(0), 1);
    EXPECT_EQ(get_net_qorcfg(1), 1);
    const std::string ram_text = config_ram;
    qorcfg_handle *net[] = {init_qorcfg(), init_qorcfg_f(config_ram),
                            init_qorcfg_f(ram_text.c_str()), init_qorcfg_f(current_config),
                            init_sub_qorcfg("sys_device", 0, config_ram)};
    for (qorcfg_handle *h : net) {
        ASSERT_NE(h, nullptr);
        ASSERT_EQ(is_net_cfg(h), 1);
    }
    EXPECT_TRUE(lock_files().empty());  // no file is touched
    EXPECT_STREQ(net[0]->net->path, config_ram);
    EXPECT_STREQ(net[1]->net->path, config_ram);
    EXPECT_STREQ(net[3]->net->path, current_config);
    EXPECT_EQ(net[1]->net->tag, net[0]->net->tag);
    EXPECT_NE(net[3]->net->tag, net[0]->net->tag);
    // The tag is the address of the slot's mode.
    set_net_qorcfg_mode(1, 0);
    EXPECT_EQ(*net[0]->net->tag, 1);
    EXPECT_EQ(*net[3]->net->tag, 0);
    for (qorcfg_handle *h : net)
        EXPECT_EQ(close_qorcfg(h), 0);

    // Other files are parsed at once, whatever the mode.
    sandbox.write(config_ram, config_doc("ram"));
    sandbox.write(config_rom, config_doc("rom"));
    sandbox.write(current_config, config_doc("current"));
    set_all_net_qorcfg_mode(1);
    const struct {
        const char *path, *label;
    } files[] = {{config_rom, "rom"}, {nullptr, "rom"}, {"", "rom"}, {"/tmp//config.xml", "ram"}};
    for (const auto &f : files) {
        qorcfg_handle *h = init_qorcfg_f(f.path);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(is_net_cfg(h), 0);
        EXPECT_EQ(device_name(h->xml), f.label);
        close_qorcfg(h);
    }
    qorcfg_handle *sub = init_sub_qorcfg("sys_device", 0, config_rom);
    ASSERT_NE(sub, nullptr);
    EXPECT_STREQ(sub->xml->name, "device");
    close_qorcfg(sub);

    // Slot 1 alone switched to files.
    set_net_qorcfg_mode(1, 0);
    qorcfg_handle *current = init_qorcfg_f(current_config);
    qorcfg_handle *still_net = init_qorcfg();
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(device_name(current->xml), "current");
    EXPECT_EQ(is_net_cfg(still_net), 1);
    close_qorcfg(still_net);

    // Registered handles are handed out again, by every opener of their file.
    set_all_net_qorcfg_mode(0);
    qorcfg_handle *ram = init_qorcfg();
    ASSERT_NE(ram, nullptr);
    EXPECT_EQ(device_name(ram->xml), "ram");
    set_shared_qorcfg(ram, 0);
    set_shared_qorcfg(current, 1);
    EXPECT_EQ(init_qorcfg(), ram);
    EXPECT_EQ(init_qorcfg_f(config_ram), ram);
    EXPECT_EQ(init_sub_qorcfg("sys_device", 0, config_ram), ram);  // the whole document
    EXPECT_EQ(init_qorcfg_f(current_config), current);
    EXPECT_EQ(init_sub_qorcfg(nullptr, kSysDevice, current_config), current);
    set_shared_qorcfg(nullptr, 0);
    set_shared_qorcfg(nullptr, 1);
    close_qorcfg(ram);
    close_qorcfg(current);

    qorcfg::os::fail_nth(Call::alloc, 1, ENOMEM);
    set_all_net_qorcfg_mode(1);
    EXPECT_EQ(init_qorcfg(), nullptr);
}

TEST_F(HandleTest, OneGroupIsOpenedByNamePathOrId) {
    sandbox.write(config_rom, config_doc("rom"));
    sandbox.write(config_ram, config_doc("ram"));
    const struct {
        const char *group;
        uint32_t gid;
        const char *root;  // element at the top of the handle, or null
    } cases[] = {
        {"sys_device", 0, "device"},
        {"qorconfig.system.device", 0, "device"},
        {nullptr, kSysDevice, "device"},
        {"mgmt_accounts", kSysDevice, "accounts"},  // a text wins over the ID
        {"qorconfig.mgmt.accounts", 0, "accounts"},
        {"no_such_group", 0, nullptr},
        {"system.device", 0, nullptr},  // a path must name its root
        {"qorconfig.system", 0, nullptr},
        {nullptr, 0, nullptr},
        {nullptr, 0x12345678, nullptr},
        {"rf1", 0, nullptr},  // a known group missing from the document
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.group == nullptr ? "(null)" : c.group) + " " +
                     std::to_string(c.gid));
        for (const char *file : {config_rom, ""}) {
            ezxml_node *root = init_sub_qorcfg_direct(c.group, c.gid, file);
            EXPECT_STREQ(root == nullptr ? nullptr : root->name, c.root);
            if (root != nullptr && std::string(c.root) == "device") {
                EXPECT_EQ(attr_of(root, "name"), "rom");
            }
            ezxml_free(root);
        }
    }
    // A null file is the working copy, prepared when missing.
    ezxml_node *root = init_sub_qorcfg_direct("sys_device", 0, nullptr);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(attr_of(root, "name"), "ram");
    ezxml_free(root);
    sandbox.remove(config_ram);
    root = init_sub_qorcfg_direct("mgmt_accounts", 0, nullptr);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(attr_of(root, "max"), "8");
    ezxml_free(root);
    EXPECT_EQ(sandbox.read(config_ram), config_doc("rom"));
    // Naming the working copy's file does not prepare it.
    sandbox.remove(config_ram);
    EXPECT_EQ(init_sub_qorcfg_direct("sys_device", 0, config_ram), nullptr);
    EXPECT_FALSE(sandbox.exists(config_ram));
}

// ---- closing, shared handles, network modes --------------------------------------

TEST_F(HandleTest, RegisteredSharedDocumentSurvivesCloses) {
    EXPECT_EQ(close_qorcfg(nullptr), -2);
    sandbox.write(config_ram, config_doc("ram"));
    sandbox.write(current_config, config_doc("current"));
    set_all_net_qorcfg_mode(0);
    qorcfg_handle *shared = init_qorcfg();
    qorcfg_handle *current = init_qorcfg_f(current_config);
    ASSERT_NE(shared, nullptr);
    ASSERT_NE(current, nullptr);
    EXPECT_EQ(set_shared_qorcfg(shared, 0), 0);
    EXPECT_EQ(set_shared_qorcfg(current, 1), 0);
    EXPECT_EQ(shared_qorcfg[0], shared);
    EXPECT_EQ(shared_qorcfg[1], current);
    EXPECT_EQ(get_net_qorcfg(0), 0);  // registering a handle leaves the modes

    // A network-mode handle switched to local reads shares the registered document.
    set_net_qorcfg_mode(0, 1);
    qorcfg_handle *net = init_qorcfg();
    ASSERT_EQ(is_net_cfg(net), 1);
    char value[QORCFG_VALUE_SIZE];
    EXPECT_EQ(get_cfg_item(net, kSysDevice, "name", value), 0);
    EXPECT_STREQ(value, "ram");
    EXPECT_NE(net, shared);
    EXPECT_EQ(net->xml, shared->xml);
    EXPECT_EQ(close_qorcfg(net), 0);

    for (qorcfg_handle *h : {shared, init_qorcfg(), current, init_qorcfg_f(current_config)})
        EXPECT_EQ(close_qorcfg(h), 0);
    EXPECT_EQ(get_cfg_item_direct(shared, kSysDevice, "name", value), 0);
    EXPECT_STREQ(value, "ram");
    EXPECT_EQ(get_cfg_item_direct(current, kSysDevice, "name", value), 0);
    EXPECT_STREQ(value, "current");

    set_shared_qorcfg(nullptr, 0);
    set_shared_qorcfg(nullptr, 1);
    EXPECT_EQ(close_qorcfg(shared), 0);  // no longer registered: freed
    EXPECT_EQ(close_qorcfg(current), 0);
}

TEST_F(HandleTest, NetworkModesAndSharedSlotsIgnoreBadArguments) {
    EXPECT_EQ(get_net_qorcfg(2), 0);
    EXPECT_EQ(get_net_qorcfg(3), 0);
    EXPECT_EQ(set_net_qorcfg_mode(0, 2), 0);
    EXPECT_EQ(get_net_qorcfg(0), 1);
    set_net_qorcfg_mode(0, 0);
    set_net_qorcfg_mode(0, 2);
    set_net_qorcfg_mode(0, -1);
    set_net_qorcfg_mode(2, 1);
    EXPECT_EQ(get_net_qorcfg(0), 0);
    EXPECT_EQ(get_net_qorcfg(1), 1);
    EXPECT_EQ(set_all_net_qorcfg_mode(0), 0);
    EXPECT_EQ(get_net_qorcfg(1), 0);
    // Registering null, even for a slot that does not exist, turns both modes on.
    EXPECT_EQ(set_shared_qorcfg(nullptr, 7), 0);
    EXPECT_EQ(get_net_qorcfg(0), 1);
    EXPECT_EQ(get_net_qorcfg(1), 1);

    sandbox.write(config_ram, config_doc("ram"));
    qorcfg_handle *net = init_qorcfg();
    EXPECT_EQ(set_shared_qorcfg(net, 2), 0);
    EXPECT_EQ(shared_qorcfg[0], nullptr);
    EXPECT_EQ(shared_qorcfg[1], nullptr);
    EXPECT_EQ(get_shared_qorcfg(2), nullptr);
    EXPECT_EQ(get_shared_qorcfg(-1), nullptr);
    EXPECT_EQ(get_shared_qorcfg(0), nullptr);

    // A registered network-mode handle is loaded in place when fetched ...
    set_shared_qorcfg(net, 0);
    sandbox.remove(config_ram);
    EXPECT_EQ(get_shared_qorcfg(0), nullptr);  // ... unless its file cannot be read
    EXPECT_EQ(is_net_cfg(net), 1);
    sandbox.write(config_ram, config_doc("ram"));
    EXPECT_EQ(get_shared_qorcfg(0), net);
    EXPECT_EQ(is_net_cfg(net), 0);
    EXPECT_EQ(device_name(net->xml), "ram");
    EXPECT_EQ(get_net_qorcfg(0), 1);
    set_shared_qorcfg(nullptr, 0);
    close_qorcfg(net);
}

TEST_F(HandleTest, NetworkModeIsTheFirstWordOfTheHandle) {
    sandbox.write(config_ram, config_doc("ram"));
    qorcfg_handle *slot0 = init_qorcfg();
    qorcfg_handle *slot1 = init_qorcfg_f(current_config);
    ezxml_node *root = init_qorcfg_direct();
    ASSERT_NE(root, nullptr);
    int elsewhere = 1;
    qorcfg_net_record forged{&elsewhere, config_ram};
    qorcfg_net_record copied{slot1->net->tag, "/tmp/other.xml"};
    qorcfg_handle empty{}, parsed{}, forged_cell{}, copied_cell{};
    parsed.xml = root;
    forged_cell.net = &forged;
    copied_cell.net = &copied;
    EXPECT_EQ(is_net_cfg(nullptr), 0);
    EXPECT_EQ(is_net_cfg(&empty), 0);
    EXPECT_EQ(is_net_cfg(&parsed), 0);
    EXPECT_EQ(is_net_cfg(&forged_cell), 0);
    EXPECT_EQ(is_net_cfg(&copied_cell), 1);
    EXPECT_EQ(is_net_cfg(slot0), 1);
    EXPECT_EQ(is_net_cfg(slot1), 1);
    ezxml_free(root);
    close_qorcfg(slot0);
    close_qorcfg(slot1);
}

// ---- the dotted-path walk, children ------------------------------------------------

TEST_F(HandleTest, PathWalkTakesDecimalIndexesOnly) {
    sandbox.write(config_ram,
                  "<qorconfig><a><b v=\"0\"/><b v=\"1\"/><b v=\"2\"/><c v=\"c\"/></a></qorconfig>");
    qorcfg_handle *h = init_qorcfg();  // network mode: the walk loads the file first
    ASSERT_EQ(is_net_cfg(h), 1);
    const struct {
        const char *item;
        const char *value;  // null: the element is not found
    } cases[] = {
        {"a.b.v", "0"},       {"a.b:0.v", "0"},      {"a.b:1.v", "1"},      {"a.b:2.v", "2"},
        {"a.b:3.v", nullptr}, {"a.b:x1.v", nullptr}, {"a.b:1x.v", nullptr}, {"a.b:-1.v", nullptr},
        {"a.c.v", "c"},       {"a.d.v", nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.item);
        char value[QORCFG_VALUE_SIZE];
        CaptureOutput err(STDERR_FILENO);
        const int rc = get_cfg_item_by_prefix_direct(h, "qorconfig", c.item, value);
        err.text();
        EXPECT_EQ(rc, c.value != nullptr ? 0 : -1);
        EXPECT_STREQ(value, c.value != nullptr ? c.value : "");
    }
    EXPECT_EQ(is_net_cfg(h), 0);
    EXPECT_EQ(get_net_qorcfg(0), 0);
    EXPECT_EQ(get_net_qorcfg(1), 0);
    close_qorcfg(h);
}

TEST_F(HandleTest, ChildrenAreListedByNameGroups) {
    ezxml_node *root = parse("<qorconfig><a><b/><c/><b><x/></b></a><d/></qorconfig>");
    ASSERT_NE(root, nullptr);
    qorcfg_handle cell{};
    cell.xml = root;
    EXPECT_EQ(records(qorcfg_list_all_child(&cell)), (Records{{"a", -1}, {"d", -1}}));
    cell.xml = ezxml_child(root, "a");
    EXPECT_EQ(records(qorcfg_list_all_child(&cell)), (Records{{"b", 0}, {"b", 1}, {"c", -1}}));
    cell.xml = ezxml_child(root, "d");
    EXPECT_EQ(qorcfg_list_all_child(&cell), nullptr);
    cell.xml = ezxml_child(root, "a");
    for (unsigned n = 1; n < 20; ++n) {  // allocation failures leave nothing behind
        qorcfg::os::fail_nth(Call::alloc, n, ENOMEM);
        qorcfg_attr *list = qorcfg_list_all_child(&cell);
        qorcfg::os::reset_faults();
        if (list != nullptr) {
            EXPECT_EQ(records(list), (Records{{"b", 0}, {"b", 1}, {"c", -1}}));
            break;
        }
    }
    // Listing the root by path spends the whole document.
    cell.xml = root;
    EXPECT_EQ(records(list_child_by_path(&cell, "qorconfig")), (Records{{"a", -1}, {"d", -1}}));
}

TEST_F(HandleTest, ChildrenOfAGroupByPathNameOrId) {
    const Records accounts = {{"account", 0}, {"account", 1}, {"session", -1}};
    for (int form = 0; form < 3; ++form) {
        SCOPED_TRACE(form);
        ezxml_node *root = parse(config_doc("x"));
        ASSERT_NE(root, nullptr);
        ezxml_node *mgmt = ezxml_child(root, "mgmt");
        qorcfg_handle cell{};
        cell.xml = root;
        qorcfg_attr *list = form == 0   ? list_child_by_path(&cell, "qorconfig.mgmt.accounts")
                            : form == 1 ? list_child_by_str(&cell, "mgmt_accounts")
                                        : list_child_by_gid(&cell, kAccounts);
        EXPECT_EQ(records(list), accounts);
        // The listed element was freed out of the document, with what follows it
        // under its parent; it was the parent's only child.
        mgmt->child = nullptr;
        ezxml_free(root);
    }

    ezxml_node *root = parse(config_doc("x"));
    ASSERT_NE(root, nullptr);
    qorcfg_handle cell{};
    cell.xml = root;
    const struct {
        qorcfg_attr *(*call)(qorcfg_handle *);
        const char *message;
    } misses[] = {
        {[](qorcfg_handle *h) { return list_child_by_path(h, "qorconfig.mgmt.nope"); },
         "ERROR: Fail to find item.\n"},
        {[](qorcfg_handle *h) { return list_child_by_path(h, "qorconfig.mgmt.accounts:x1"); },
         "ERROR: Fail to find item.\n"},
        {[](qorcfg_handle *h) { return list_child_by_str(h, "no_such"); },
         "list_child_by_str>Can't find group name=no_such\n"},
        {[](qorcfg_handle *h) { return list_child_by_gid(h, 0xF0000000u); },
         "list_child_by_gid>Can't find group ID=-268435456\n"},
        {[](qorcfg_handle *) { return list_child_by_str(nullptr, "mgmt_accounts"); }, ""},
        {[](qorcfg_handle *) { return list_child_by_gid(nullptr, kAccounts); }, ""},
    };
    for (const auto &m : misses) {
        SCOPED_TRACE(m.message);
        CaptureOutput err(STDERR_FILENO);
        EXPECT_EQ(m.call(&cell), nullptr);
        EXPECT_EQ(err.text(), m.message);
    }
    EXPECT_EQ(device_name(root), "x");  // nothing found, nothing spent
    ezxml_free(root);
}

// ---- factory reset -------------------------------------------------------------------

TEST_F(HandleTest, ResetCopiesFactorySourceAndDropsWorkingCopy) {
    const std::string backup = "<qorconfig version=\"backup\">\n" + std::string(700, 'b') +
                               "\n\n</qorconfig>";  // long line, no final newline
    const std::string factory = "<qorconfig version=\"factory\"></qorconfig>\n";
    const std::string rm = std::string("/bin/rm -f ") + config_ram;
    for (bool with_backup : {true, false}) {
        SCOPED_TRACE(with_backup ? "customized backup" : "factory default");
        sandbox.remove("/conf/customize");
        if (with_backup)
            sandbox.write("/conf/customize/config-backup.conf", backup);
        sandbox.write("/etc/default-config.xml", factory);
        sandbox.write(config_rom, config_doc("old"));
        sandbox.write(config_ram, config_doc("old"));
        sandbox.runner().clear();
        EXPECT_EQ(reset_qorcfg(), 0);
        EXPECT_EQ(sandbox.read(config_rom), with_backup ? backup : factory);
        ASSERT_EQ(sandbox.runner().commands().size(), 1u);
        EXPECT_EQ(sandbox.runner().commands()[0].kind, qorcfg::os::Command::system);
        EXPECT_EQ(sandbox.runner().commands()[0].line, rm);
        EXPECT_TRUE(can_lock("qorcfg_rom", LOCK_EX));
        EXPECT_TRUE(can_lock("qorcfg_ram", LOCK_EX));
    }
}

TEST_F(HandleTest, ResetSignalsDaemonsNamedByPidFiles) {
    sandbox.write("/etc/default-config.xml", config_doc("factory"));
    const struct {
        const char *read_qorcfgd, *snmpd, *qorsic;  // null: no pid file
        std::vector<pid_t> signalled;
    } cases[] = {
        {"123\n", "456", "789\n", {123, 456, 789}},
        {"0\n", "1\n", nullptr, {}},
        {nullptr, "2\n", "3000", {2, 3000}},
        {nullptr, nullptr, nullptr, {}},
    };
    for (const auto &c : cases) {
        sandbox.remove("/var/run");
        sandbox.mkdir("/var/run");
        if (c.read_qorcfgd != nullptr)
            sandbox.write("/var/run/read_qorcfgd.pid", c.read_qorcfgd);
        if (c.snmpd != nullptr)
            sandbox.write("/var/run/snmpd.pid", c.snmpd);
        if (c.qorsic != nullptr)
            sandbox.write("/var/run/qorsic.pid", c.qorsic);
        sandbox.runner().clear();
        EXPECT_EQ(reset_qorcfg(), 0);
        std::vector<pid_t> pids;
        for (const auto &s : sandbox.runner().signals()) {
            EXPECT_EQ(s.sig, SIGUSR2);
            pids.push_back(s.pid);
        }
        EXPECT_EQ(pids, c.signalled);
    }
}

TEST_F(HandleTest, ResetFailuresLeaveNothingRunOrSignalled) {
    sandbox.write("/var/run/snmpd.pid", "456\n");
    const std::string old = config_doc("old");
    sandbox.write(config_rom, old);
    const auto check = [&](int rc, bool flash_rewritten) {
        EXPECT_EQ(reset_qorcfg(), rc);
        EXPECT_EQ(sandbox.read(config_rom) != old, flash_rewritten);
        EXPECT_TRUE(sandbox.commands().empty());
        EXPECT_TRUE(sandbox.runner().signals().empty());
        clear_locks();
        sandbox.write(config_rom, old);
    };
    {
        SCOPED_TRACE("no source");
        check(-7, false);
    }
    sandbox.write("/conf/customize/config-backup.conf", config_doc("backup"));
    sandbox.write("/etc/default-config.xml", config_doc("factory"));
    {
        SCOPED_TRACE("backup present but unreadable: no fallback to the default");
        qorcfg::os::fail_nth(Call::open, 1, EACCES);
        check(-7, false);
    }
    {
        SCOPED_TRACE("flash lock refused");
        qorcfg::os::fail_nth(Call::flock, 1, EINTR);
        check(-10, false);
        EXPECT_TRUE(can_lock("qorcfg_rom", LOCK_EX));
    }
    {
        SCOPED_TRACE("flash lock file cannot be opened");
        sandbox.mkdir("/var/lock/qorcfg_rom");
        check(-7, false);
    }
    {
        SCOPED_TRACE("RAM lock file cannot be opened: flash already rewritten");
        sandbox.mkdir("/var/lock/qorcfg_ram");
        EXPECT_EQ(reset_qorcfg(), -7);
        EXPECT_EQ(sandbox.read(config_rom), config_doc("backup"));
        EXPECT_TRUE(sandbox.commands().empty());
        EXPECT_TRUE(sandbox.runner().signals().empty());
        EXPECT_TRUE(can_lock("qorcfg_rom", LOCK_EX));
        clear_locks();
    }
    {
        SCOPED_TRACE("flash copy cannot be written");
        sandbox.remove(config_rom);
        sandbox.mkdir(config_rom);
        EXPECT_EQ(reset_qorcfg(), -7);
        EXPECT_TRUE(sandbox.commands().empty());
        EXPECT_TRUE(can_lock("qorcfg_rom", LOCK_EX));
    }
}

}  // namespace
