#include "Gate.h"

#include <cstdlib>

#include "RunnerHandler.h"
#include "vostrelka/debug.h"

namespace vostrelka {

Gate::Gate() : Application("gate", "Net device gateway", true) {
    options.add_options()("c,config", "Configuration file for gate", cxxopts::value<std::string>())(
        "d,debug", "Debug level: 0 = none, 1 = warnings, 2 = forw, 3 = recv", cxxopts::value<int>()->default_value("0"));
}

Gate::~Gate() = default;

void Gate::start(const cxxopts::ParseResult& result) {
    debug_level = result["debug"].as<int>();
    if (result.count("config") == 0) {
        debug("ERROR: mission --config argument");
        exit(1);
    }
    // The configuration file is read here once the reader exists.
    debug("ERROR: open config file: %s", result["config"].as<std::string>().c_str());
    exit(1);
}

}  // namespace vostrelka
