// tests/support/fixture_files.h - captured device texts and tool output
// kept under tests/<subsystem>/fixtures/.
#pragma once

#include <string>
#include <string_view>

namespace qorcfg::test {

// The content of tests/<relative> ("sys/fixtures/ps_device.txt"); the test
// fails when it cannot be read.
std::string fixture(std::string_view relative);

}  // namespace qorcfg::test
