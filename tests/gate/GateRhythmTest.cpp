// The rhythm of an idle real gate: its RF modem's base_config record comes
// about 5 s after start and every 5 s after that, whatever else wakes the
// gate meanwhile (a name being resolved, a control client, the watchdog),
// and those wake-ups still get their own work done at once.
#include <gtest/gtest.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <future>
#include <sstream>

#include "support/ControlClient.h"
#include "support/GateProcess.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"

using namespace test_support;
using vostrelka::time_us;

namespace {

constexpr int64_t SECOND_US = 1000000;
constexpr int64_t WATCHED_US = 16 * SECOND_US;
constexpr int64_t RECORD_PERIOD_US = 5 * SECOND_US;
// Loose for a loaded 2-core machine, tight enough to tell a record every
// 5 s from one every second or one at start.
constexpr int64_t EARLY_US = 500000;
constexpr int64_t LATE_US = 900000;
constexpr int WATCHDOG_USEC = 2000000;
const std::string NAMED_PEER_LINE = "MANet peer on iface 2 retrieved addrinfo 'localhost:7998': '127.0.0.1:7998'";

struct Case {
    const char* name;
    bool named_peer;  // a second MANet peer given by host name
    bool control;     // a control client asks for stats every second
    bool watchdog;    // NOTIFY_SOCKET and WATCHDOG_USEC set
};

// One gate whose interface 1 leads to the modem, a UDP socket of the test.
struct Watched {
    Case what;
    UdpEndpoint modem;
    std::string control_path;
    int notify = -1;  // bound datagram socket, with `watchdog`
    std::unique_ptr<GateProcess> gate;
    int64_t started_us = 0;                              // when the gate said it configured the modem
    int64_t ready_us = 0;                                // READY=1, with `watchdog`
    std::vector<int64_t> records, keep_alives, answers;  // time_us()

    ~Watched() {
        if (notify >= 0) close(notify);
    }

    void start(TempDir& dir) {
        const std::string name = what.name;
        control_path = dir.path() + "/" + name + ".sock";
        std::string peers = R"({"manet_addr": "0x0A000002", "netdev_addr": "0x22", "iface_id": 2,
                                "inet_addr": "127.0.0.1:7999"})";
        if (what.named_peer)
            peers += R"(, {"manet_addr": "0x0A000003", "netdev_addr": "0x23", "iface_id": 2,
                           "inet_addr": "localhost:7998"})";
        const std::string config = R"({"ifaces": [{"iface": "udp://127.0.0.1:0:)" + modem.address() +
                                   R"(", "id": 1, "rfmodem_config": {"channel": 5, "power": 10}},
                {"iface": "udp://127.0.0.1:0", "id": 2, "type": "manet"}],
                "manet_peers": [)" +
                                   peers + "]" +
                                   (what.control ? R"(, "control": {"path": ")" + control_path + R"("})" : "") + "}";
        if (what.watchdog) {
            const std::string path = dir.path() + "/" + name + ".notify";
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
            notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            ASSERT_EQ(bind(notify, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
            setenv("NOTIFY_SOCKET", path.c_str(), 1);
            setenv("WATCHDOG_USEC", std::to_string(WATCHDOG_USEC).c_str(), 1);
        }
        gate =
            std::make_unique<GateProcess>(std::vector<std::string>{"--config", dir.write_file(name + ".json", config)});
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }

    // Collects what comes for WATCHED_US after the gate configured its modem.
    void watch() {
        if (!gate->wait_for_prefix("RFModem on iface 1: addr=0x0A000002")) return;
        for (const auto& line : gate->timed_lines()) {
            if (line.text.rfind("RFModem on iface 1", 0) == 0) started_us = line.at_us;
        }
        std::unique_ptr<ControlClient> client;
        if (what.control) client = std::make_unique<ControlClient>(control_path);
        int64_t next_ask_us = started_us + SECOND_US;
        for (int64_t now = time_us(); now < started_us + WATCHED_US; now = time_us()) {
            if (modem.receive(10)) records.push_back(time_us());
            char text[64];
            while (notify >= 0 && wait_readable(notify, 0) && recv(notify, text, sizeof(text), 0) > 0) {
                if (std::strncmp(text, "READY=1", 7) == 0) ready_us = time_us();
                if (std::strncmp(text, "WATCHDOG=1", 10) == 0) keep_alives.push_back(time_us());
            }
            if (client && now >= next_ask_us) {
                next_ask_us += SECOND_US;
                if (client->ask("stats").contains("interfaces")) answers.push_back(time_us());
            }
        }
    }

    std::string times() const {
        std::ostringstream text;
        for (int64_t at : records) text << " " << static_cast<double>(at - started_us) / SECOND_US;
        return text.str();
    }
};

TEST(GateRhythmTest, AnIdleGateSendsItsModemRecordEveryFiveSecondsWhateverElseWakesIt) {
    const Case cases[] = {
        {"named_peer", true, false, false},
        {"control_client", false, true, false},
        {"watchdog", false, false, true},
    };
    TempDir dir;
    std::vector<std::unique_ptr<Watched>> runs;
    for (const Case& c : cases) {
        runs.push_back(std::make_unique<Watched>());
        runs.back()->what = c;
        runs.back()->start(dir);
    }
    std::vector<std::future<void>> watching;
    for (auto& run : runs) watching.push_back(std::async(std::launch::async, [&run] { run->watch(); }));
    for (auto& done : watching) done.get();

    for (const auto& run : runs) {
        SCOPED_TRACE(run->what.name);
        std::printf("%s: records at%s s\n", run->what.name, run->times().c_str());
        ASSERT_NE(run->started_us, 0) << run->gate->log();
        EXPECT_EQ(run->records.size(), 3u) << "records at" << run->times();
        int64_t due_us = run->started_us + RECORD_PERIOD_US;
        for (int64_t at : run->records) {
            EXPECT_GT(at, due_us - EARLY_US) << "records at" << run->times();
            EXPECT_LT(at, due_us + LATE_US) << "records at" << run->times();
            due_us = at + RECORD_PERIOD_US;
        }
        if (run->what.named_peer) {
            // The name's answer is used at once, not at the next pass.
            const auto lines = run->gate->timed_lines();
            const auto found = std::find_if(lines.begin(), lines.end(),
                                            [](const LinePipe::Line& line) { return line.text == NAMED_PEER_LINE; });
            ASSERT_NE(found, lines.end()) << run->gate->log();
            EXPECT_LT(found->at_us - run->started_us, SECOND_US);
        }
        if (run->what.control) {
            EXPECT_GE(run->answers.size(), 14u);
        }
        if (run->what.watchdog) {
            // Ready once every interface is open, then kept alive at least
            // twice per watchdog interval.
            ASSERT_FALSE(run->keep_alives.empty());
            EXPECT_NE(run->ready_us, 0);
            EXPECT_LE(run->ready_us, run->keep_alives.front());
            EXPECT_LT(run->keep_alives.front() - run->started_us, SECOND_US);
            EXPECT_GT(run->keep_alives.size(), 16u);
            for (size_t i = 1; i < run->keep_alives.size(); i++) {
                EXPECT_LE(run->keep_alives[i] - run->keep_alives[i - 1], SECOND_US) << i;
            }
        }
    }
}

}  // namespace
