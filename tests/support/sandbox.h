// tests/support/sandbox.h - hermetic test environment.
//
// A Sandbox is a fresh temporary device root under the build tree (never the
// host's /tmp, /var or /etc). While it lives, the OS seam prefixes every
// absolute path the library opens with that root and a Runner records every
// command line and signal instead of running or sending it. Destroying it
// removes the directory and restores production behaviour.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "os/os.h"

namespace qorcfg::test {

class Sandbox {
public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    // The host directory that stands for "/".
    const std::string &root() const { return root_; }
    // Host path of a device path ("/tmp/x" -> "<root>/tmp/x").
    std::string path(std::string_view device_path) const;

    // Fixture files, by device path; parent directories are created.
    void write(std::string_view device_path, std::string_view content) const;
    std::string read(std::string_view device_path) const;
    bool exists(std::string_view device_path) const;
    void mkdir(std::string_view device_path) const;
    void remove(std::string_view device_path) const;

    // The recorder installed for this sandbox.
    os::Runner &runner() { return runner_; }
    // Shorthands: canned reply for command lines starting with `prefix`, and
    // the command lines recorded so far.
    void answer(std::string prefix, std::string output, int status = 0);
    std::vector<std::string> commands() const { return runner_.lines(); }
    // The same, each after how it ran: "system: LINE" or "pipe: LINE".
    std::vector<std::string> runs() const;

private:
    std::string root_;
    os::Runner runner_;
};

// GoogleTest fixture with a sandbox per test.
class SandboxTest : public ::testing::Test {
protected:
    Sandbox sandbox;
};

// Captures what the code under test writes to a file descriptor (standard
// output or standard error), at the descriptor level, so that both stdio and
// raw writes are seen.
class CaptureOutput {
public:
    explicit CaptureOutput(int fd);
    ~CaptureOutput() { text(); }
    CaptureOutput(const CaptureOutput &) = delete;
    CaptureOutput &operator=(const CaptureOutput &) = delete;
    // Stop capturing and return the text; later calls return the same text.
    std::string text();

private:
    int fd_;
    int saved_ = -1;
    std::string file_;
    std::string text_;
    bool done_ = false;
};

// The content of a host file ("" when it cannot be read).
std::string read_file(const std::string &host_path);

// The sample device root of the source tree (read only).
std::string devroot();

}  // namespace qorcfg::test
