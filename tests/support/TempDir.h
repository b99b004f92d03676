#pragma once
// A fresh directory under /tmp for one test, removed with its contents at
// the end of the test.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace test_support {

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/gate-test-XXXXXX";
        if (mkdtemp(pattern) == nullptr) std::abort();
        dir = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return dir; }
    // Writes `content` to `name` inside the directory; returns the full path.
    std::string write_file(const std::string& name, const std::string& content) const {
        const std::string file = dir + "/" + name;
        std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
        return file;
    }

private:
    std::string dir;
};

}  // namespace test_support
