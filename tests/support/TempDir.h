#pragma once
// A fresh directory under /tmp for one test, removed with its contents at
// the end of the test.
#include <string>

namespace test_support {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return dir; }
    // Writes `content` to `name` inside the directory; returns the full path.
    std::string write_file(const std::string& name, const std::string& content) const;

private:
    std::string dir;
};

}  // namespace test_support
