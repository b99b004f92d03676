#pragma once
// Where this build tree put the programs; the build defines them.
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

}  // namespace test_support
