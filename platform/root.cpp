// platform/root.cpp - the device files of the stand-in platform library,
// read under a settable root.
#include "platform/root.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "store/platform.h"

namespace qorcfg::platform {
namespace {

std::mutex g_mutex;
std::string g_root;  // "" on a device

std::string device_path(const char *path) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_root + path;
}

}  // namespace

bool read_line(const char *path, std::string &line) {
    std::FILE *f = std::fopen(device_path(path).c_str(), "r");
    if (f == nullptr)
        return false;
    char buf[512];
    bool ok = std::fgets(buf, sizeof buf, f) != nullptr;
    std::fclose(f);
    if (!ok)
        return false;
    buf[std::strcspn(buf, "\r\n")] = '\0';
    line = buf;
    return true;
}

bool read_key(const char *path, const char *key, char separator, std::string &value) {
    std::FILE *f = std::fopen(device_path(path).c_str(), "r");
    if (f == nullptr)
        return false;
    size_t n = std::strlen(key);
    char buf[512];
    bool found = false;
    while (!found && std::fgets(buf, sizeof buf, f) != nullptr) {
        if (std::strncmp(buf, key, n) != 0 || buf[n] != separator)
            continue;
        const char *v = buf + n + 1;
        v += std::strspn(v, " \t");
        value.assign(v, std::strcspn(v, "\r\n"));
        found = true;
    }
    std::fclose(f);
    return found;
}

void copy_out(const std::string &text, char *buf, size_t size) {
    if (buf == nullptr || size == 0)
        return;
    size_t n = text.size() < size - 1 ? text.size() : size - 1;
    std::memcpy(buf, text.data(), n);
    buf[n] = '\0';
}

}  // namespace qorcfg::platform

extern "C" int vq19ext_set_root(const char *root) {
    std::lock_guard<std::mutex> lock(qorcfg::platform::g_mutex);
    qorcfg::platform::g_root = root != nullptr ? root : "";
    return 0;
}
