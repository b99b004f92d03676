#pragma once
// The real tshark with the gateway's dissector, reading a capture gatecat
// wrote: what a person sees in Wireshark, as text a test compares.
#include <string>
#include <vector>

#include "support/GateProcess.h"

namespace test_support {

inline const char* TSHARK = "/usr/bin/tshark";

inline bool tshark_installed() {
    return access(TSHARK, X_OK) == 0;
}

// tshark's arguments to read `capture` with the dissector the build wrote.
inline std::vector<std::string> tshark_reading(const std::string& capture) {
    return {"-n", "-X", std::string("lua_script:") + GATE_DISSECTOR_PATH, "-r", capture};
}

// One string per packet: the lines of its gate tree, unindented, joined by
// "; " ("Interface id: 0; Direction: in (0); ...").
// `extra` goes to tshark too, e.g. a Decode As.
inline std::vector<std::string> gate_trees(const std::string& capture, const std::vector<std::string>& extra = {}) {
    std::vector<std::string> args = tshark_reading(capture);
    args.insert(args.end(), extra.begin(), extra.end());
    args.insert(args.end(), {"-O", "gate"});
    const ProcessResult tshark = run_process_with_input(TSHARK, args, "", 30000);
    std::vector<std::string> trees;
    bool in_tree = false;
    size_t start = 0;
    while (start < tshark.out.size()) {
        size_t end = tshark.out.find('\n', start);
        if (end == std::string::npos) end = tshark.out.size();
        const std::string line = tshark.out.substr(start, end - start);
        start = end + 1;
        if (line == "gate frame" || line == "gate serial-framed frames") {
            trees.emplace_back();
            in_tree = true;
        } else if (line.empty() || line[0] != ' ') {
            in_tree = false;
        } else if (in_tree) {
            trees.back() += (trees.back().empty() ? "" : "; ") + line.substr(line.find_first_not_of(' '));
        }
    }
    return trees;
}

}  // namespace test_support
