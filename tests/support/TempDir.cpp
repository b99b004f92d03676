#include "support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace test_support {

TempDir::TempDir() {
    char pattern[] = "/tmp/gate-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    dir = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

std::string TempDir::write_file(const std::string& name, const std::string& content) const {
    const std::string file = dir + "/" + name;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    return file;
}

}  // namespace test_support
