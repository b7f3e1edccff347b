// tools/devgen.cpp - writes the sample device's default configuration, its
// flash copy, and its rule file from the device description
// (platform/device.cpp, through tools/devdoc.cpp).
//
//   qorcfg_devgen DEVROOT          write DEVROOT/etc/default-config.xml,
//                                  DEVROOT/conf/config.xml (the flash copy
//                                  as after a factory reset) and
//                                  DEVROOT/etc/cfg-rule.xml
//   qorcfg_devgen --check DEVROOT  exit 1 when they differ from what would
//                                  be written

#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tools/devdoc.h"

namespace {

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

int main(int argc, char **argv) {
    bool check = argc == 3 && std::string(argv[1]) == "--check";
    if (argc != 2 && !check) {
        std::fprintf(stderr, "usage: %s [--check] DEVROOT\n", argv[0]);
        return 2;
    }
    std::string root = argv[argc - 1];
    const std::pair<std::string, bool> files[] = {{root + "/etc/default-config.xml", false},
                                                  {root + "/conf/config.xml", false},
                                                  {root + "/etc/cfg-rule.xml", true}};
    int status = 0;
    for (const auto &[path, rules] : files) {
        std::string text = qorcfg::device::document(rules);
        if (check) {
            if (read_file(path) != text) {
                std::fprintf(stderr, "%s is not what the device description gives: run %s %s\n",
                             path.c_str(), argv[0], root.c_str());
                status = 1;
            }
            continue;
        }
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << text;
        if (!out) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            status = 1;
        }
    }
    return status;
}
