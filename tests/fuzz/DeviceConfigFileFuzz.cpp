// The device configuration file and the serial file, read from memory-backed
// files. A file that loads completely must survive a save and a reload.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "vostrelka/firmware_configurator/config.h"
#include "vostrelka/firmware_configurator/serial.h"

using namespace vostrelka;
using namespace vostrelka::firmware_configurator;
using vostrelka::msgs::firmware_configurator::manet_config;

namespace {

// A path naming a file that holds `data`; the descriptor stays open while the path is used.
struct MemoryFile {
    int fd;
    std::string path;
    MemoryFile(const uint8_t* data, size_t size) : fd(memfd_create("config", 0)) {
        if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) __builtin_trap();
        path = "/proc/self/fd/" + std::to_string(fd);
    }
    ~MemoryFile() { close(fd); }
};

bool same(const manet_config& a, const manet_config& b) {
    return a.node_manet_addr == b.node_manet_addr && a.utm_manet_addr == b.utm_manet_addr &&
           a.utm_inet_port == b.utm_inet_port && std::memcmp(a.node_manet_key, b.node_manet_key, 16) == 0 &&
           std::strncmp(reinterpret_cast<const char*>(a.utm_inet_host), reinterpret_cast<const char*>(b.utm_inet_host),
                        32) == 0;
}

}  // namespace

// The loaders report every bad line; the fuzzer only wants crashes.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return freopen("/dev/null", "w", stdout) ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    MemoryFile file(data, size);
    manet_config loaded;
    if (load_manet_config(file.path.c_str(), loaded)) {
        MemoryFile saved(nullptr, 0);
        if (!save_manet_config(saved.path.c_str(), loaded)) __builtin_trap();
        manet_config reloaded;
        if (!load_manet_config(saved.path.c_str(), reloaded) || !same(loaded, reloaded)) __builtin_trap();
    }
    char serial[32];
    std::memset(serial, 0x7F, sizeof serial);
    if (load_serial(file.path, serial) && std::memchr(serial, 0, sizeof serial) == nullptr) __builtin_trap();
    return 0;
}
