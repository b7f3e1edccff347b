// tests/support/sandbox.cpp - temporary device roots, recorded commands and
// output capture for the tests.
#include "tests/support/sandbox.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace qorcfg::test {

namespace {

// Scratch directory of the test run (under the build tree).
std::string scratch_dir() {
    const char *env = std::getenv("QORCFG_TEST_SCRATCH");
    std::string dir = env != nullptr && env[0] != '\0' ? env : QORCFG_TEST_SCRATCH;
    fs::create_directories(dir);
    return dir;
}

}  // namespace

std::string read_file(const std::string &host_path) {
    std::ifstream in(host_path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string devroot() {
    return QORCFG_DEVROOT;
}

Sandbox::Sandbox() {
    std::string pattern = scratch_dir() + "/root-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("cannot create sandbox under " + scratch_dir());
    root_ = pattern;
    for (const char *dir : {"/tmp", "/var/lock", "/var/run", "/etc/rc.d", "/conf", "/proc"})
        mkdir(dir);
    os::reset();
    os::set_root(root_);
    os::set_runner(&runner_);
    // Nothing reaches the host: the daemon socket lives in the sandbox and
    // driver requests fail unless a test answers them.
    os::set_daemon_socket_path(root_ + "/tmp/qorcfgd_socket");
    os::set_ioctl_handler([](int, unsigned long, void *) {
        errno = ENOTTY;
        return -1;
    });
}

Sandbox::~Sandbox() {
    os::reset();
    std::error_code ec;
    fs::remove_all(root_, ec);
}

std::string Sandbox::path(std::string_view device_path) const {
    return root_ + std::string(device_path);
}

void Sandbox::write(std::string_view device_path, std::string_view content) const {
    fs::path p = path(device_path);
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out)
        throw std::runtime_error("cannot write " + p.string());
}

std::string Sandbox::read(std::string_view device_path) const {
    return read_file(path(device_path));
}

bool Sandbox::exists(std::string_view device_path) const {
    std::error_code ec;
    return fs::exists(fs::symlink_status(path(device_path), ec));
}

void Sandbox::mkdir(std::string_view device_path) const {
    fs::create_directories(path(device_path));
}

void Sandbox::remove(std::string_view device_path) const {
    std::error_code ec;
    fs::remove_all(path(device_path), ec);
}

void Sandbox::answer(std::string prefix, std::string output, int status) {
    runner_.answer(std::move(prefix), std::move(output), status);
}

std::vector<std::string> Sandbox::runs() const {
    std::vector<std::string> out;
    for (const os::Command &c : runner_.commands())
        out.push_back((c.kind == os::Command::system ? "system: " : "pipe: ") + c.line);
    return out;
}

CaptureOutput::CaptureOutput(int fd) : fd_(fd) {
    std::string pattern = scratch_dir() + "/capture-XXXXXX";
    int tmp = ::mkstemp(pattern.data());
    if (tmp < 0)
        throw std::runtime_error("cannot create capture file");
    file_ = pattern;
    std::fflush(nullptr);
    saved_ = ::dup(fd_);
    ::dup2(tmp, fd_);
    ::close(tmp);
}

std::string CaptureOutput::text() {
    if (!done_) {
        std::fflush(nullptr);
        ::dup2(saved_, fd_);
        ::close(saved_);
        text_ = read_file(file_);
        std::remove(file_.c_str());
        done_ = true;
    }
    return text_;
}

}  // namespace qorcfg::test
