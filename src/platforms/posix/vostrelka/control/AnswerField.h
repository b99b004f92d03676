#pragma once
// A field of a gateway's control-socket answer as text, as the tools that
// show or export those answers print it.
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace vostrelka {
namespace control {

// Strings as they are, integers in decimal, booleans as true or false;
// nothing when the field is absent or of another kind (null, a fraction, a
// list), which each tool shows in its own way. For either kind of JSON
// object (ordered or not).
template <typename Json>
std::optional<std::string> field_text(const Json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end()) return std::nullopt;
    if (found->is_string()) return found->template get<std::string>();
    if (found->is_number_unsigned()) return std::to_string(found->template get<uint64_t>());
    if (found->is_number_integer()) return std::to_string(found->template get<int64_t>());
    if (found->is_boolean()) return std::string(found->template get<bool>() ? "true" : "false");
    return std::nullopt;
}

}  // namespace control
}  // namespace vostrelka
