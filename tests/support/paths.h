#pragma once
#include <string>

namespace test_support {

// The gate binary of this build tree.
std::string gate_binary();
// The gatecat binary of this build tree.
std::string gatecat_binary();
// The tests/ folder of the source tree (fixtures, corpora).
std::string source_dir();

}  // namespace test_support
