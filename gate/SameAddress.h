#pragma once
// InetAddress equality (equal text forms, host + ":" + port_str) without
// building the text: routing compares addresses on every frame.
#include <string>

#include "vostrelka/InetAddress.h"

namespace vostrelka {

inline bool same_address(const InetAddress& a, const InetAddress& b) {
    if (a.host.size() + a.port_str.size() != b.host.size() + b.port_str.size()) return false;
    // Hosts of one length (the case of every frame from a known sender):
    // the texts match exactly when both parts do.
    if (a.host.size() == b.host.size()) return a.host == b.host && a.port_str == b.port_str;
    // Walk both texts as if concatenated with their ':' in between.
    auto at = [](const InetAddress& x, size_t i) {
        if (i < x.host.size()) return x.host[i];
        if (i == x.host.size()) return ':';
        return x.port_str[i - x.host.size() - 1];
    };
    const size_t length = a.host.size() + 1 + a.port_str.size();
    for (size_t i = 0; i < length; ++i) {
        if (at(a, i) != at(b, i)) return false;
    }
    return true;
}

// Both absent, or both present and equal.
inline bool same_address(const std::optional<InetAddress>& a, const std::optional<InetAddress>& b) {
    if (a.has_value() != b.has_value()) return false;
    return !a || same_address(*a, *b);
}

}  // namespace vostrelka
