// Fuzz target: the daemon's request handling. The input, cut or zero-padded
// to the bytes a client sends, is answered from a small parsed configuration
// (working copy and current configuration in a scratch root); every reply
// must be whole chunks, each opening with a header.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

#include "daemon/server.h"
#include "os/os.h"
#include "qorcfg.h"
#include "store/platform.h"
#include "store/wire.h"

namespace {

const char kConfig[] =
    "<qorconfig version=\"1.10.01\" devtype=\"AP\">\n"
    "  <system>\n"
    "    <device name=\"AP-1\" desc=\"lab\" "
    "location=\"xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
    "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
    "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
    "xxxxxxxxxxxxxxxxxxxxxxxxxxx\"></device>\n"
    "  </system>\n"
    "  <network>\n"
    "    <vlan state=\"enable\" max=\"16\" cur_num=\"3\">\n"
    "      <entry id=\"1\" name=\"default\"/>\n"
    "      <entry id=\"10\" name=\"staff\"/>\n"
    "      <entry id=\"20\" name=\"guest\"/>\n"
    "    </vlan>\n"
    "  </network>\n"
    "  <access>\n"
    "    <radius state=\"disable\" interim=\"600\">\n"
    "      <map attribute=\"Filter-Id-1\" vlan=\"10\"></map>\n"
    "      <map attribute=\"Filter-Id-2\" vlan=\"20\"></map>\n"
    "    </radius>\n"
    "  </access>\n"
    "</qorconfig>\n";

// The scratch root with both files, and the daemon's parsed handles.
struct Setup {
    std::string root;
    qorcfg_handle *ram = nullptr;
    qorcfg_handle *current = nullptr;

    Setup() {
        // Every miss of a lookup would be reported on standard error.
        setenv("QORCFG_PRINT_ERR", "0", 1);
        std::string pattern =
            (std::filesystem::temp_directory_path() / "qorcfg-daemon-fuzz-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            std::abort();
        root = pattern;
        for (const char *dir : {"/tmp", "/var/lock", "/var/run", "/conf"})
            std::filesystem::create_directories(root + dir);
        for (const char *file : {config_ram, config_rom, current_config})
            std::ofstream(root + file, std::ios::binary) << kConfig;
        qorcfg::os::set_root(root);
        static qorcfg::os::Runner runner;  // nothing is run or signalled
        qorcfg::os::set_runner(&runner);
        set_all_net_qorcfg_mode(0);
        ram = init_qorcfg_f(config_ram);
        current = init_qorcfg_f(current_config);
        if (ram == nullptr || current == nullptr)
            std::abort();
    }
    ~Setup() {
        close_qorcfg(ram);
        close_qorcfg(current);
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static Setup setup;
    const qorcfg_daemon_request request = qorcfg::daemon::request_from_bytes(data, size);
    const std::string reply = qorcfg::daemon::answer(setup.ram, setup.current, request);
    if (reply.empty() || reply.size() % qorcfg::wire::kChunkSize != 0)
        __builtin_trap();
    for (size_t at = 0; at < reply.size(); at += qorcfg::wire::kChunkSize) {
        if (reply[at] != 1 || reply[at + 1] != 0 || reply[at + 2] != 12)
            __builtin_trap();
    }
    return 0;
}
