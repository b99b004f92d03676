#pragma once
// A fresh directory under /tmp, removed with its contents at the end.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace test_support {

class TempDir {
public:
    TempDir() : dir(mkdtemp(std::string("/tmp/gate-test-XXXXXX").data())) {}
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }

    const std::string& path() const { return dir; }
    // Writes `content` to `name` inside the directory; returns the full path.
    std::string write_file(const std::string& name, const std::string& content) const {
        std::ofstream(dir + "/" + name, std::ios::binary) << content;
        return dir + "/" + name;
    }

private:
    std::string dir;
};

}  // namespace test_support
