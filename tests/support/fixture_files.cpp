// tests/support/fixture_files.cpp - see fixture_files.h.
#include "tests/support/fixture_files.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace qorcfg::test {

std::string fixture(std::string_view relative) {
    const std::string path = std::string(QORCFG_TESTS_DIR) + "/" + std::string(relative);
    std::ifstream in(path, std::ios::binary);
    if (!in)
        ADD_FAILURE() << "fixture " << path << " cannot be read";
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace qorcfg::test
