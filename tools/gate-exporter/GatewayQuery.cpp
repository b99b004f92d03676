#include "gate-exporter/GatewayQuery.h"

#include <glob.h>
#include <poll.h>

#include <filesystem>
#include <memory>

#include "vostrelka/Time.h"
#include "vostrelka/control/ControlClient.h"

namespace vostrelka {
namespace exporter {

namespace {

struct Pending {
    control::ControlClient client;
    std::vector<std::string> answers;  // stats, then peers, in request order
    bool failed = false;
};

constexpr const char* REQUESTS[] = {"stats", "peers"};
constexpr size_t ANSWERS = sizeof REQUESTS / sizeof REQUESTS[0];

// Takes what the gateway has sent so far; marks it failed when it closed.
void take_lines(Pending& pending) {
    std::string line;
    while (pending.answers.size() < ANSWERS) {
        const control::ControlClient::Read read = pending.client.read_line(line, 0);
        if (read == control::ControlClient::Read::WAITING) return;
        if (read == control::ControlClient::Read::CLOSED) {
            pending.failed = true;
            return;
        }
        pending.answers.push_back(line);
    }
}

}  // namespace

std::string gateway_name(const std::string& socket_path) {
    const std::filesystem::path path(socket_path);
    const std::string folder = path.parent_path().filename().string();
    return folder.empty() || folder == "." || folder == ".." ? path.filename().string() : folder;
}

std::vector<std::string> find_sockets(const std::string& run_folder) {
    std::vector<std::string> paths;
    glob_t found{};
    if (::glob((run_folder + "/*/control.sock").c_str(), 0, nullptr, &found) == 0) {
        for (size_t i = 0; i < found.gl_pathc; i++) paths.emplace_back(found.gl_pathv[i]);
    }
    ::globfree(&found);
    return paths;
}

std::vector<GatewayReport> ask_gateways(const std::vector<std::string>& socket_paths, int64_t wait_us) {
    const int64_t deadline = time_us() + wait_us;
    std::vector<std::unique_ptr<Pending>> pending;
    for (const std::string& path : socket_paths) {
        pending.push_back(std::make_unique<Pending>());
        std::string error;
        // Both requests at once: the gateway answers them in order.
        for (const char* request : REQUESTS) {
            if (!pending.back()->failed && !pending.back()->client.request(path, request, error)) {
                pending.back()->failed = true;
            }
        }
    }

    std::vector<pollfd> waiting;
    std::vector<Pending*> owners;
    for (;;) {
        waiting.clear(), owners.clear();
        for (auto& entry : pending) {
            if (entry->failed || entry->answers.size() == ANSWERS) continue;
            waiting.push_back({entry->client.descriptor(), POLLIN, 0});
            owners.push_back(entry.get());
        }
        const int64_t left_us = deadline - time_us();
        if (waiting.empty() || left_us <= 0) break;
        const int ready = ::poll(waiting.data(), waiting.size(), static_cast<int>((left_us + 999) / 1000));
        if (ready <= 0) continue;
        for (size_t i = 0; i < waiting.size(); i++) {
            if (waiting[i].revents != 0) take_lines(*owners[i]);
        }
    }

    std::vector<GatewayReport> reports;
    for (size_t i = 0; i < socket_paths.size(); i++) {
        GatewayReport report;
        report.name = gateway_name(socket_paths[i]);
        const Pending& entry = *pending[i];
        if (!entry.failed && entry.answers.size() == ANSWERS) {
            report.stats = nlohmann::ordered_json::parse(entry.answers[0], nullptr, false);
            report.peers = nlohmann::ordered_json::parse(entry.answers[1], nullptr, false);
            // An error line is an object too; the stats of a gateway have interfaces.
            report.up = report.stats.is_object() && report.stats.contains("interfaces") && report.peers.is_object();
        }
        reports.push_back(std::move(report));
    }
    return reports;
}

}  // namespace exporter
}  // namespace vostrelka
