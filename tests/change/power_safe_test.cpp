// tests/change/power_safe_test.cpp - a store file is replaced whole or not at all: a save stopped
// at any step by a failing call or by SIGKILL leaves the old or the new file (and no temporary one
// after a failure), a link stays a link and modes are kept; concurrent writers lose no update.
#include <filesystem>
#include <set>

#include "tests/change/fixture.h"

namespace {

using namespace qorcfg::test;

class PowerSafeTest : public ChangeTest {
protected:
    // The flash copy is a link to /conf/real.xml, mode 0604, holding old_.
    void SetUp() override {
        ChangeTest::SetUp();
        sandbox.write(config_ram, config_doc("new", 40));
        sandbox.write("/conf/real.xml", old_);
        ::chmod(sandbox.path("/conf/real.xml").c_str(), 0604);
        ::symlink("real.xml", sandbox.path(config_rom).c_str());
        h_ = open_file(config_ram);
        fresh_ = xml_of(h_->xml);
        before_ = listing();
    }
    // Every file but the lock files, by device path; the flash copy's link target and mode.
    std::set<std::string> listing() const {
        std::set<std::string> out;
        for (const auto &e : std::filesystem::recursive_directory_iterator(sandbox.root()))
            out.insert(e.path().string().substr(sandbox.root().size()));
        const std::filesystem::path rom = sandbox.path(config_rom);
        out.insert(std::filesystem::read_symlink(rom).string() + " " +
                   std::to_string(static_cast<int>(std::filesystem::status(rom).permissions())));
        std::erase_if(out, [](const std::string &f) { return f.rfind("/var/lock", 0) == 0; });
        return out;
    }
    const std::string old_ = config_doc("old", 40);
    std::string fresh_;
    std::set<std::string> before_;
    Handle h_{nullptr, &close_qorcfg};
};

TEST_F(PowerSafeTest, ASaveFailingAtAnyStepLeavesTheOldFileAndNoTemporaryOne) {
    for (Call kind : {Call::open, Call::flock, Call::write, Call::fsync, Call::rename}) {
        const int k = static_cast<int>(kind);
        unsigned n = 1;
        for (; n < 100000; ++n) {  // the n-th call of the kind fails
            sandbox.write("/conf/real.xml", old_);
            os::fail_nth(kind, n, EIO);
            const int rc = save_qorcfg(h_.get(), config_rom);
            os::reset_faults();
            if (rc == 0)
                break;
            EXPECT_EQ(sandbox.read(config_rom), old_) << k << " " << n;
            EXPECT_EQ(listing(), before_) << k << " " << n;
        }
        EXPECT_GT(n, 1u) << k;  // a save makes such a call
        EXPECT_EQ(sandbox.read(config_rom), fresh_) << k;
        EXPECT_EQ(listing(), before_) << k;  // the same link, the same mode
    }
}

TEST_F(PowerSafeTest, ASaveKilledAtAnyStepLeavesAWholeFile) {
    int status = 128 + SIGKILL;
    unsigned k = 0;
    while (status == 128 + SIGKILL && ++k < 1000) {  // killed at the k-th call through the seam
        sandbox.write("/conf/real.xml", old_);
        status = reap(spawn([&] {
            os::set_call_hook([k, n = 0u](Call kind, unsigned) mutable {
                if (kind != Call::alloc && ++n == k)
                    ::raise(SIGKILL);
            });
            return save_qorcfg(h_.get(), config_rom) == 0 ? 0 : 1;
        }));
        const std::string text = sandbox.read(config_rom);
        EXPECT_TRUE(text == old_ || text == fresh_) << "killed at call " << k;
        for (const std::string &file : listing())  // a temporary file may stay, beside the target
            EXPECT_TRUE(before_.count(file) || file.rfind("/conf/", 0) == 0) << file;
    }
    EXPECT_EQ(status, 0);
    EXPECT_EQ(sandbox.read(config_rom), fresh_);
    EXPECT_GT(k, 5u);  // lock, create, write, flush, rename, unlock at least
}

TEST_F(PowerSafeTest, ConcurrentWritersLoseNoUpdate) {
    constexpr int kWriters = 8, kSets = 50;
    std::string doc = "<qorconfig><system><opmode type=\"AP\"/><device";
    for (int n = 0; n < kWriters * kSets; ++n)
        doc += " w" + std::to_string(n) + "=\"\"";
    sandbox.write(config_ram, doc + "/></system><wlan><rf1 roles=\"ap\"/></wlan></qorconfig>\n");
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w)
        writers.push_back(spawn([&, w] {
            for (int n = w * kSets; n < (w + 1) * kSets; ++n) {
                set_net_qorcfg_mode(0, 1);  // a fresh network-mode handle, loaded by the set
                if (set_cfg_items(own(init_qorcfg()).get(),
                                  items("8080000:w" + std::to_string(n) + "=v").get()) != 0)
                    return 1;
            }
            return 0;
        }));
    for (pid_t writer : writers)
        EXPECT_EQ(reap(writer), 0);
    for (const char *file : {config_ram, config_rom}) {
        Handle h = open_file(file);
        int lost = 0;
        for (int n = 0; n < kWriters * kSets; ++n)
            lost += value(h.get(), kDevice, "w" + std::to_string(n)) != "v";
        EXPECT_EQ(lost, 0) << file;
    }
    EXPECT_EQ(sandbox.read(kSyncRecord), "0\n134742016\n");
}

}  // namespace
