// tests/change/power_safe_test.cpp - a store file is replaced whole or not at all: a save stopped
// at any step by a failing call or by SIGKILL leaves the old or the new file (and no temporary
// one after a failure); links and modes are kept; concurrent writers lose no update.
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

class PowerSafeTest : public ChangeTest {
protected:
    void SetUp() override {
        ChangeTest::SetUp();
        sandbox.write(config_ram, config_doc("new", 40));
        sandbox.write(config_rom, old_);
        h_ = open_file(config_ram);
    }
    // Every file of the sandbox but the lock files, by device path.
    std::set<std::string> listing() const {
        std::set<std::string> out;
        for (const auto &e : std::filesystem::recursive_directory_iterator(sandbox.root()))
            if (!e.is_directory() && e.path().string().find("/var/lock/") == std::string::npos)
                out.insert(e.path().string().substr(sandbox.root().size()));
        return out;
    }
    mode_t mode(const char *file) const {
        struct stat st {};
        return ::stat(sandbox.path(file).c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
    }
    const std::string old_ = config_doc("old", 40);
    Handle h_{nullptr, &close_qorcfg};
};

TEST_F(PowerSafeTest, ASaveFailingAtAnyStepLeavesTheOldFileAndNoTemporaryOne) {
    const std::string fresh = xml_of(h_->xml);
    const std::set<std::string> before = listing();
    std::vector<unsigned> failed(static_cast<size_t>(Call::count_));
    for (size_t kind = 0; kind < failed.size(); ++kind) {
        for (unsigned n = 1; n < 100000; ++n, ++failed[kind]) {  // the n-th call of the kind fails
            sandbox.write(config_rom, old_);
            os::fail_nth(static_cast<Call>(kind), n, EIO);
            const int rc = save_qorcfg(h_.get(), config_rom);
            os::reset_faults();
            if (rc == 0)
                break;
            EXPECT_EQ(sandbox.read(config_rom), old_) << kind << " " << n;
            EXPECT_EQ(listing(), before) << kind << " " << n;
        }
        EXPECT_EQ(sandbox.read(config_rom), fresh) << kind;
    }
    for (Call kind : {Call::open, Call::flock, Call::write, Call::fsync, Call::rename})
        EXPECT_GT(failed[static_cast<size_t>(kind)], 0u) << static_cast<int>(kind);
}

TEST_F(PowerSafeTest, ASaveKilledAtAnyStepLeavesAWholeFile) {
    const std::string fresh = xml_of(h_->xml);
    const std::set<std::string> before = listing();
    int status = 128 + SIGKILL;
    unsigned k = 0;
    while (status == 128 + SIGKILL && ++k < 1000) {  // killed at the k-th call through the seam
        sandbox.write(config_rom, old_);
        status = reap(spawn([&] {
            os::set_call_hook([k, n = 0u](Call kind, unsigned) mutable {
                if (kind != Call::alloc && ++n == k)
                    ::raise(SIGKILL);
            });
            return save_qorcfg(h_.get(), config_rom) == 0 ? 0 : 1;
        }));
        const std::string text = sandbox.read(config_rom);
        EXPECT_TRUE(text == old_ || text == fresh) << "killed at call " << k;
        for (const std::string &file : listing())
            EXPECT_TRUE(before.count(file) || file.rfind("/conf/", 0) == 0) << file;  // beside
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(sandbox.read(config_rom), fresh);
    EXPECT_GT(k, 5u);  // lock, create, write, flush, rename, unlock at least
}

TEST_F(PowerSafeTest, LinksAndModesAreKeptAndAnOpenReaderKeepsTheOldFile) {
    sandbox.write("/tmp/real.xml", sandbox.read(config_ram));
    sandbox.remove(config_ram);
    ASSERT_EQ(::symlink("real.xml", sandbox.path(config_ram).c_str()), 0);
    ::chmod(sandbox.path("/tmp/real.xml").c_str(), 0640);
    ::chmod(sandbox.path(config_rom).c_str(), 0604);
    const int reader = ::open(sandbox.path(config_rom).c_str(), O_RDONLY);
    EXPECT_EQ(set_cfg_items(h_.get(), items("8080000:name=x").get()), 0);
    char link[16] = {};
    EXPECT_EQ(::readlink(sandbox.path(config_ram).c_str(), link, sizeof link - 1), 8);
    EXPECT_STREQ(link, "real.xml");
    EXPECT_EQ(sandbox.read("/tmp/real.xml") + sandbox.read(config_rom),
              xml_of(h_->xml) + xml_of(h_->xml));
    EXPECT_EQ(mode("/tmp/real.xml"), 0640u);
    EXPECT_EQ(mode(config_rom), 0604u);
    std::string seen(old_.size() + 1, '\0');
    EXPECT_EQ(::read(reader, seen.data(), seen.size()), static_cast<ssize_t>(old_.size()));
    EXPECT_EQ(seen.substr(0, old_.size()), old_);
    ::close(reader);
    const mode_t saved = ::umask(027);  // a new file: 0666 less the umask
    EXPECT_EQ(write_cfg_file("x", "/tmp/fresh", 0), 0);
    ::umask(saved);
    EXPECT_EQ(mode("/tmp/fresh"), 0640u);
}

TEST_F(PowerSafeTest, ConcurrentWritersLoseNoUpdate) {
    constexpr int kWriters = 8, kSets = 50;
    const auto item = [](int w, int i) {
        return "w" + std::to_string(w) + "_" + std::to_string(i);
    };
    std::string doc =
        "<qorconfig version=\"t\" devtype=\"AP\"><system><opmode type=\"AP\"/><device";
    for (int w = 0; w < kWriters; ++w)
        for (int i = 0; i < kSets; ++i)
            doc += " " + item(w, i) + "=\"\"";
    doc += "/></system><wlan><rf1 roles=\"ap\"/></wlan></qorconfig>\n";
    sandbox.write(config_ram, doc);
    sandbox.write(config_rom, doc);
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.push_back(spawn([&, w] {
            for (int i = 0; i < kSets; ++i) {
                set_net_qorcfg_mode(0, 1);  // a fresh network-mode handle, loaded by the set
                Handle h = own(init_qorcfg());
                if (set_cfg_items(h.get(), items("8080000:" + item(w, i) + "=v").get()) != 0)
                    return 1;
            }
            return 0;
        }));
    }
    for (pid_t writer : writers)
        EXPECT_EQ(reap(writer), 0);
    for (const char *file : {config_ram, config_rom}) {
        Handle h = open_file(file);
        int lost = 0;
        for (int w = 0; w < kWriters; ++w)
            for (int i = 0; i < kSets; ++i)
                lost += value(h.get(), kDevice, item(w, i)) != "v";
        EXPECT_EQ(lost, 0) << file;
    }
    EXPECT_EQ(sandbox.read(kSyncRecord), "0\n134742016\n");
}

}  // namespace
