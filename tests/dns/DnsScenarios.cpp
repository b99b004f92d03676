// Name resolution against a DNS server the test controls, in a network
// namespace of its own: tests/dns/run-dns.sh makes the namespace, points its
// resolv.conf at DNS_SERVER and runs this program inside it. The real gate
// is started in the same namespace; the responder runs here.
//
// Figures (thread count, idle CPU, worst stall, answer-to-use time) are
// printed as "figure: ..." lines.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>

#include "dns/DnsResponder.h"
#include "support/GateProcess.h"
#include "support/InProcessGate.h"
#include "support/ProcessCpu.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/Resolver.h"
#include "vostrelka/ResolverPool.h"

using namespace test_support;
using DnsReply = DnsResponder::Reply;
using std::chrono::milliseconds;
using vostrelka::time_us;

namespace {

constexpr int64_t MS_US = 1000;
constexpr int64_t SECOND_US = 1000000;

std::string env(const char* name, const char* fallback = "") {
    const char* value = std::getenv(name);
    return value ? value : fallback;
}

// Rewrites the namespace's resolv.conf in place: `ip netns exec` bind-mounts
// that very file over /etc/resolv.conf, and a new file would not be seen.
void set_resolver_options(const std::string& options) {
    std::ofstream("/etc/netns/" + env("DNS_NETNS") + "/resolv.conf", std::ios::trunc)
        << "nameserver " << env("DNS_SERVER") << "\noptions " << options << "\n";
}

void figure(const std::string& text) {
    std::printf("figure: %s\n", text.c_str());
    std::fflush(stdout);
}

// The line of a name of a MANet peer on iface 1 resolved.
std::string retrieved(const std::string& host_port, const std::string& address) {
    return "MANet peer on iface 1 retrieved addrinfo '" + host_port + "': '" + address + "'";
}
std::string warning_prefix(const std::string& host_port) {
    return "Resolver: WARN: failed to resolve address. " + host_port + ". Reason: ";
}

// The times at which lines starting with `prefix` were read.
std::vector<int64_t> times_of(const std::vector<LinePipe::Line>& lines, const std::string& prefix) {
    std::vector<int64_t> times;
    for (const auto& line : lines)
        if (line.text.rfind(prefix, 0) == 0) times.push_back(line.at_us);
    return times;
}

// A gate with a MANet link (iface 1) whose peers are given by name, and a
// local link (iface 2) with devices 0x10 and 0x20 played by `sender` and
// `receiver`.
class DnsScenarios : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(env("DNS_NETNS").empty()) << "run through tests/dns/run-dns.sh";
        ASSERT_TRUE(dns.ok()) << "port 53 on " << env("DNS_SERVER");
    }

    // `names` become MANet peers 0x0A000001.. with port 7000.
    void start_gate(const std::vector<std::string>& names) {
        std::string peers;
        for (size_t i = 0; i < names.size(); i++) {
            char addr[16];
            std::snprintf(addr, sizeof(addr), "0x%08X", static_cast<unsigned>(0x0A000001 + i));
            peers += std::string(i ? ", " : "") + R"({"manet_addr": ")" + addr + R"(", "netdev_addr": "0x22", )" +
                     R"("iface_id": 1, "inet_addr": ")" + names[i] + R"(:7000"})";
        }
        const std::string config =
            R"({"ifaces": [{"iface": "udp://127.0.0.1:)" + std::to_string(manet_port) +
            R"(", "id": 1, "type": "manet"}, {"iface": "udp://127.0.0.1:)" + std::to_string(local_port) +
            R"(", "id": 2}], "local_peers": [{"netdev_addr": "0x10", "iface_id": 2, "inet_addr": ")" +
            sender.address() + R"("}, {"netdev_addr": "0x20", "iface_id": 2, "inet_addr": ")" + receiver.address() +
            R"("}], "manet_peers": [)" + peers + "]}";
        gate = std::make_unique<GateProcess>(std::vector<std::string>{"--config", dir.write_file("gate.json", config)});
        ASSERT_TRUE(gate->wait_for_prefix("add local peer on iface 2: 0x20")) << gate->log();
    }

    // A frame from device 0x10 into the gate's local link.
    void send_frame(uint8_t proto_id, uint8_t dst, const Bytes& payload) {
        Bytes datagram{proto_id, 0x10, dst};
        datagram.insert(datagram.end(), payload.begin(), payload.end());
        ASSERT_TRUE(sender.send_to(local_port, datagram));
    }

    DnsResponder dns{env("DNS_SERVER")};
    TempDir dir;
    UdpEndpoint sender, receiver;
    uint16_t manet_port = free_udp_port(), local_port = free_udp_port();
    std::unique_ptr<GateProcess> gate;
};

// However long the server takes (within the resolver's own time-out), the
// name resolves on its first query and the idle gate uses the answer at once.
TEST_F(DnsScenarios, SlowAnswersResolveAndAreUsedAtOnce) {
    set_resolver_options("timeout:5 attempts:1");
    const std::vector<std::pair<std::string, int64_t>> names = {{"gw-a.test", 100 * MS_US},
                                                                {"gw-b.test", 1000 * MS_US},
                                                                {"gw-c.test", 1500 * MS_US},
                                                                {"gw-d.test", 3000 * MS_US}};
    std::vector<std::string> hosts;
    for (size_t i = 0; i < names.size(); i++) {
        dns.set(names[i].first, {DnsReply::ANSWER, "10.9.0." + std::to_string(i + 1), names[i].second, 0});
        hosts.push_back(names[i].first);
    }
    start_gate(hosts);

    int64_t worst_us = 0;
    for (size_t i = 0; i < names.size(); i++) {
        const std::string& name = names[i].first;
        const std::string line = retrieved(name + ":7000", "10.9.0." + std::to_string(i + 1) + ":7000");
        ASSERT_TRUE(gate->wait_for_line(line, milliseconds(8000))) << gate->log();
        const auto answered = dns.answers();
        const auto answer = std::find_if(answered.begin(), answered.end(),
                                         [&](const DnsResponder::Answer& a) { return a.name == name && a.found; });
        ASSERT_NE(answer, answered.end());
        const int64_t used_us = times_of(gate->timed_lines(), line).at(0) - answer->at_us;
        EXPECT_EQ(dns.queries_for(name), 1u) << name << ": answered on the first query";
        EXPECT_GE(used_us, 0) << name;
        EXPECT_LT(used_us, 100 * MS_US) << name << " used " << used_us << " us after its answer";
        worst_us = std::max(worst_us, used_us);
    }
    figure("answer to use, worst of 4 names: " + std::to_string(worst_us / 1000.0) + " ms");
}

// NXDOMAIN and a server that never answers: a warning about once a second
// (plus the lookup's own time-out) per name, and the gate itself idle.
TEST_F(DnsScenarios, FailingNamesWarnAboutOnceASecondWhileTheGateIdles) {
    set_resolver_options("timeout:1 attempts:1");
    dns.set("gw-nx.test", {DnsReply::NXDOMAIN, "", 0, 0});
    dns.set("gw-dead.test", {DnsReply::NEVER, "", 0, 0});
    start_gate({"gw-nx.test", "gw-dead.test"});

    const double cpu_percent = cpu_percent_of(gate->pid(), milliseconds(8000));
    const auto lines = gate->timed_lines();
    const std::pair<const char*, const char*> cases[] = {{"gw-nx.test:7000", "Name or service not known"},
                                                         {"gw-dead.test:7000", "Temporary failure in name resolution"}};
    for (const auto& [name, reason] : cases) {
        EXPECT_EQ(times_of(lines, std::string("Resolver: Trying to resolve ") + name).size(), 1u) << name;
        const auto warnings = times_of(lines, warning_prefix(name) + reason);
        EXPECT_EQ(warnings.size(), times_of(lines, warning_prefix(name)).size()) << name << ": " << gate->log();
        ASSERT_GE(warnings.size(), 3u) << name << ": " << gate->log();
        for (size_t i = 1; i < warnings.size(); i++) {
            // One second of pause, plus up to the 1 s time-out, with slack.
            EXPECT_GT(warnings[i] - warnings[i - 1], 800 * MS_US) << name;
            EXPECT_LT(warnings[i] - warnings[i - 1], 3 * SECOND_US) << name;
        }
    }
    EXPECT_LT(cpu_percent, 5.0) << "gate CPU while its names fail";
    figure("idle CPU with NXDOMAIN and a dead server: " + std::to_string(cpu_percent) + " % of a core");
}

// A thousand names nobody answers, configured and announced: the gate keeps
// to its main thread and the pool, and keeps forwarding.
TEST_F(DnsScenarios, AThousandUnresolvableNamesAddNoThreads) {
    set_resolver_options("timeout:1 attempts:1");
    std::vector<std::string> names;
    for (int i = 0; i < 900; i++) names.push_back("gw-x" + std::to_string(i) + ".test");
    for (const auto& name : names) dns.set(name, {DnsReply::NEVER, "", 0, 0});
    start_gate(names);
    for (uint32_t i = 0; i < 100; i++) {
        const std::string host = "gw-y" + std::to_string(i) + ".test";
        dns.set(host, {DnsReply::NEVER, "", 0, 0});
        send_frame(8, 0x30, device_config(0x0B000100 + i, host.c_str()));
    }
    // Frames are taken in order: once this one is through, so are the above.
    send_frame(7, 0x20, {1, 2, 3});
    ASSERT_EQ(receiver.receive(5000), (Bytes{7, 0x10, 0x20, 1, 2, 3})) << gate->log();
    std::this_thread::sleep_for(milliseconds(3000));

    const long threads = proc_status(gate->pid(), "Threads:");
    EXPECT_EQ(threads, 1 + vostrelka::ResolverPool::POOL_SIZE);
    // The hundred announced names keep only the last 16 links, the cap said once.
    EXPECT_TRUE(
        gate->wait_for_line("WARNING: 16 MANet links announced by device_config, the most kept: a new one "
                            "now replaces the one seen longest ago"))
        << gate->log();
    send_frame(7, 0x20, {7, 8, 9});
    EXPECT_EQ(receiver.receive(3000), (Bytes{7, 0x10, 0x20, 7, 8, 9})) << "the gate still forwards";
    figure("threads with 1000 unresolvable names: " + std::to_string(threads));
}

// The UTM host changes every half second, to names that never answer and
// names that answer quickly, while 100 frames a second cross the gate: no
// change of host may hold up a frame.
TEST_F(DnsScenarios, ReplacingTheUtmHostNeverStallsForwarding) {
    set_resolver_options("timeout:5 attempts:1");
    start_gate({});
    for (int i = 0; i < 10; i++) {
        const std::string host = "gw-u" + std::to_string(i) + ".test";
        if (i % 2 == 0)
            dns.set(host, {DnsReply::NEVER, "", 0, 0});
        else
            dns.set(host, {DnsReply::ANSWER, "10.9.1." + std::to_string(i), 50 * MS_US, 0});
    }

    std::atomic<bool> sending{true};
    std::vector<int64_t> delays_us;
    std::thread listen([&] {
        while (sending || delays_us.size() < 500) {
            const auto datagram = receiver.receive(500);
            if (!datagram) {
                if (!sending) break;
                continue;
            }
            int64_t sent_us = 0;
            if (datagram->size() == 3 + sizeof(sent_us)) std::memcpy(&sent_us, datagram->data() + 3, sizeof(sent_us));
            delays_us.push_back(time_us() - sent_us);
        }
    });
    const int64_t begin = time_us();
    for (int frame = 0; frame < 500; frame++) {
        while (time_us() < begin + frame * 10 * MS_US) std::this_thread::sleep_for(std::chrono::microseconds(500));
        if (frame % 50 == 25) {
            const std::string host = "gw-u" + std::to_string(frame / 50) + ".test";
            send_frame(8, 0x30, device_config(0x0C000001, host.c_str()));
        }
        const int64_t now = time_us();
        Bytes payload(sizeof(now));
        std::memcpy(payload.data(), &now, sizeof(now));
        send_frame(7, 0x20, payload);
    }
    sending = false;
    listen.join();

    EXPECT_EQ(delays_us.size(), 500u) << "every frame arrived";
    const int64_t worst_us = delays_us.empty() ? 0 : *std::max_element(delays_us.begin(), delays_us.end());
    EXPECT_LT(worst_us, 50 * MS_US);
    EXPECT_TRUE(gate->wait_for_line(retrieved("gw-u9.test:5000", "10.9.1.9:5000"))) << gate->log();
    figure("worst frame delay over 10 UTM host changes: " + std::to_string(worst_us / 1000.0) + " ms");
}

// Twenty names whose answers (and NXDOMAINs) come about a second after the
// query, a little earlier or later, for DNS_JITTER_S seconds (60 by default):
// in the gate, with the UTM host changing among them, and in this process,
// resolvers and pools made and dropped in the middle of their lookups. Built with
// sanitizers, this is the race check of the resolver's threads.
TEST_F(DnsScenarios, JitteringAnswersNeverCrashAnything) {
    set_resolver_options("timeout:2 attempts:1");  // replies come in, close to the 1 s retry
    const int64_t run_us = std::stoll(env("DNS_JITTER_S", "60")) * SECOND_US;
    std::vector<std::string> names;
    for (int i = 0; i < 20; i++) {
        names.push_back("gw-j" + std::to_string(i) + ".test");
        if (i < 5)
            dns.set(names.back(), {DnsReply::ANSWER, "10.9.2." + std::to_string(i), 900 * MS_US, 300 * MS_US});
        else
            dns.set(names.back(), {DnsReply::NXDOMAIN, "", 1000 * MS_US, 300 * MS_US});
    }
    start_gate(names);

    // Pools too are replaced in the middle of lookups, and their resolvers outlive them.
    auto pool = std::make_unique<vostrelka::ResolverPool>();
    std::vector<std::unique_ptr<vostrelka::AddressResolver>> resolvers(names.size());
    std::set<size_t> resolved_here;
    std::mt19937 random(4);
    for (int64_t begin = time_us(), round = 0; time_us() < begin + run_us; round++) {
        const size_t i = random() % names.size();
        resolvers[i] = std::make_unique<vostrelka::AddressResolver>(vostrelka::HostPort{names[i], "7000", 7000}, false);
        resolvers[i]->start(*pool);
        if (round % 20 == 19) pool = std::make_unique<vostrelka::ResolverPool>();
        for (size_t k = 0; k < resolvers.size(); k++)
            if (resolvers[k] && resolvers[k]->finished() && resolvers[k]->get_resolved_address())
                resolved_here.insert(k);
        if (round % 5 == 0) send_frame(8, 0x30, device_config(0x0C000002, names[random() % names.size()].c_str()));
        std::this_thread::sleep_for(milliseconds(150));
    }
    pool.reset();
    resolvers.clear();

    EXPECT_EQ(gate->wait_exit(milliseconds(0)), std::nullopt) << "the gate still runs: " << gate->log();
    send_frame(7, 0x20, {4, 5, 6});
    EXPECT_EQ(receiver.receive(3000), (Bytes{7, 0x10, 0x20, 4, 5, 6}));
    // The answered names resolve in the end, however their replies fell.
    for (int i = 0; i < 5; i++) {
        const std::string line = retrieved(names[i] + ":7000", "10.9.2." + std::to_string(i) + ":7000");
        bool seen = false;
        for (const int64_t deadline = time_us() + 20 * SECOND_US; !seen && time_us() < deadline;) {
            seen = gate->log().find(line) != std::string::npos;
            if (!seen) std::this_thread::sleep_for(milliseconds(100));
        }
        EXPECT_TRUE(seen) << line;
    }
    EXPECT_FALSE(resolved_here.empty());
    figure("jitter: " + std::to_string(dns.answers().size()) + " replies in " + std::to_string(run_us / SECOND_US) +
           " s, gate alive, " + std::to_string(resolved_here.size()) + " names resolved in-process");
}

}  // namespace
