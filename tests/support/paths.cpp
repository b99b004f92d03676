#include "support/paths.h"

namespace test_support {

std::string gate_binary() {
    return GATE_BINARY_PATH;
}

std::string gatecat_binary() {
    return GATECAT_BINARY_PATH;
}

std::string source_dir() {
    return TEST_SOURCE_DIR;
}

}  // namespace test_support
