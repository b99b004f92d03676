#pragma once
// Reads a gateway configuration file into a GateConfig, or up to its first
// error, in the words and the order the gateway reports them. Reading opens
// nothing: no device, no socket, no name lookup. The gateway applies what
// was read (and builds each device where the file's order says); gate-check
// prints it.
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "GateConfig.h"

namespace vostrelka {

// Far above any real configuration (32 interfaces and their peers take a
// few kilobytes), far below what a small board misses.
constexpr size_t MAX_CONFIG_FILE_BYTES = 1024 * 1024;

// The whole text of a regular file of at most MAX_CONFIG_FILE_BYTES, or
// nothing, with the reason in `why` when given.
std::optional<std::string> read_config_file(const std::string& path, std::string* why = nullptr);

struct ConfigReadOptions {
    // Asked where the gateway would build an interface's device: a reason
    // the description cannot make one ends the reading there. The gateway
    // leaves it empty and lets its factory find out by building the device.
    std::function<std::optional<std::string>(const GateConfig::Iface&)> device_problem;
    // Warn about keys nobody reads and values that do not do what they seem to.
    bool warn = false;
};

ConfigReading read_config(const std::string& text, const ConfigReadOptions& options = {});

}  // namespace vostrelka
