// Runs a fuzz target over every file of the folders given, without libFuzzer:
// the seed corpus and the inputs that once crashed it stay in the ordinary
// test suite. A folder that does not exist counts as empty.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int files = 0;
    for (int i = 1; i < argc; i++) {
        DIR* dir = opendir(argv[i]);
        if (dir == nullptr) continue;
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] == '.') continue;
            const std::string path = std::string(argv[i]) + "/" + entry->d_name;
            std::ifstream in(path, std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            files++;
        }
        closedir(dir);
    }
    std::printf("replayed %d inputs\n", files);
    return 0;
}
