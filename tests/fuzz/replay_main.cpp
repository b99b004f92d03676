// Runs a fuzz target over every file of the folders given, without libFuzzer:
// the seed corpus and the inputs that once crashed it stay in the ordinary
// test suite. A folder that does not exist counts as empty.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int files = 0;
    for (int i = 1; i < argc; i++) {
        std::error_code missing;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], missing)) {
            if (entry.path().filename().string()[0] == '.') continue;
            std::ifstream in(entry.path(), std::ios::binary);
            const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            files++;
        }
    }
    std::printf("replayed %d inputs\n", files);
    return 0;
}
