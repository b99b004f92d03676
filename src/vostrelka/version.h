#pragma once

namespace vostrelka {
namespace version {

// Both supplied at build time: the project version with `git describe`, and
// the source commit.
extern const char* const SOFTWARE;
extern const char* const SOFTWARE_HASH;

constexpr const char* SYSTEM_CONFIG = "gate";
constexpr const char* SYSTEM_NAME = "VOSTRELKA";

}  // namespace version
}  // namespace vostrelka
