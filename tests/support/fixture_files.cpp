// tests/support/fixture_files.cpp - see fixture_files.h.
#include "tests/support/fixture_files.h"

#include <fstream>

#include "tests/support/sandbox.h"

namespace qorcfg::test {

std::string fixture(std::string_view relative) {
    const std::string path = std::string(QORCFG_TESTS_DIR) + "/" + std::string(relative);
    if (!std::ifstream(path))
        ADD_FAILURE() << "fixture " << path << " cannot be read";
    return read_file(path);
}

}  // namespace qorcfg::test
