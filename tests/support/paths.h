#pragma once
// Where this build tree put the programs; the build defines them.
#include <fstream>
#include <sstream>
#include <string>

namespace test_support {

inline std::string gate_binary() {
    return GATE_BINARY_PATH;
}
inline std::string gatecat_binary() {
    return GATECAT_BINARY_PATH;
}
inline std::string gate_check_binary() {
    return GATE_CHECK_BINARY_PATH;
}
inline std::string gate_exporter_binary() {
    return GATE_EXPORTER_BINARY_PATH;
}

// The text of a file of expected output or canned input under tests/.
inline std::string test_data(const std::string& relative) {
    std::ostringstream text;
    text << std::ifstream(std::string(TEST_SOURCE_DIR) + "/" + relative).rdbuf();
    return text.str();
}

}  // namespace test_support
