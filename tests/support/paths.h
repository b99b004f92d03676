#pragma once
// Where this build tree put the programs, and the source tree's tests/
// folder (fixtures, corpora); the build defines them.
#include <string>

namespace test_support {

inline std::string gate_binary() {
    return GATE_BINARY_PATH;
}
inline std::string gatecat_binary() {
    return GATECAT_BINARY_PATH;
}
inline std::string source_dir() {
    return TEST_SOURCE_DIR;
}

}  // namespace test_support
