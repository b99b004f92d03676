#pragma once
// A DNS server under the test's control, on its own thread: for each name it
// answers A queries with a chosen address after a chosen delay (optionally
// jittered), answers NXDOMAIN, or never answers. Names without a rule get
// NXDOMAIN at once. It records when it answered what, by time_us().
//
// Message layout (all big-endian):
//   header: id (2) | flags (2) | qdcount (2) | ancount (2) | nscount (2) | arcount (2)
//   question: labels (length byte + text, ending with 0) | qtype (2) | qclass (2)
//   answer:   0xC00C (pointer to the question's name) | type A (2) | class IN (2) |
//             TTL (4) | rdlength 4 (2) | IPv4 address (4)
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "vostrelka/Time.h"

namespace test_support {

class DnsResponder {
public:
    enum class Reply { ANSWER, NXDOMAIN, NEVER };
    struct Rule {
        Reply reply = Reply::ANSWER;
        std::string address;    // for ANSWER, dotted quad
        int64_t delay_us = 0;   // before the reply goes out
        int64_t jitter_us = 0;  // the delay varies by up to this much either way
    };
    struct Answer {
        std::string name;
        int64_t at_us;
        bool found;  // false for NXDOMAIN
    };

    // Listens on `ip`:53; false from ok() when that failed.
    explicit DnsResponder(const std::string& ip) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(53);
        inet_pton(AF_INET, ip.c_str(), &addr.sin_addr);
        bound = bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
        thread = std::thread([this] { serve(); });
    }
    ~DnsResponder() {
        stopping = true;
        thread.join();
        close(fd);
    }
    bool ok() const { return bound; }

    void set(const std::string& name, Rule rule) {
        std::lock_guard<std::mutex> lock(mutex);
        rules[name] = std::move(rule);
    }
    std::vector<Answer> answers() {
        std::lock_guard<std::mutex> lock(mutex);
        return sent;
    }
    size_t queries_for(const std::string& name) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count(asked.begin(), asked.end(), name);
    }

private:
    struct Pending {
        int64_t due_us;
        std::vector<uint8_t> reply;
        sockaddr_in to;
        Answer answer;
    };

    void serve() {
        while (!stopping) {
            int64_t wait_us = 20'000;
            for (const Pending& p : pending) wait_us = std::min(wait_us, p.due_us - vostrelka::time_us());
            pollfd entry{fd, POLLIN, 0};
            if (poll(&entry, 1, static_cast<int>(std::max<int64_t>(wait_us, 0) / 1000)) == 1) receive();
            send_due();
        }
    }

    void receive() {
        uint8_t query[512];
        sockaddr_in from{};
        socklen_t from_size = sizeof(from);
        const ssize_t n = recvfrom(fd, query, sizeof(query), 0, reinterpret_cast<sockaddr*>(&from), &from_size);
        if (n < 12) return;
        // The question's name, and where the question ends.
        std::string name;
        size_t at = 12;
        while (at < static_cast<size_t>(n) && query[at] != 0) {
            const size_t length = query[at];
            if (at + 1 + length > static_cast<size_t>(n)) return;
            if (!name.empty()) name += '.';
            for (size_t i = 0; i < length; i++) name += static_cast<char>(std::tolower(query[at + 1 + i]));
            at += 1 + length;
        }
        const size_t question_end = at + 5;
        if (question_end > static_cast<size_t>(n)) return;
        const uint16_t qtype = static_cast<uint16_t>(query[at + 1] << 8 | query[at + 2]);

        std::lock_guard<std::mutex> lock(mutex);
        asked.push_back(name);
        Rule rule{Reply::NXDOMAIN, "", 0, 0};
        if (auto found = rules.find(name); found != rules.end()) rule = found->second;
        if (rule.reply == Reply::NEVER) return;

        const bool answer_a = rule.reply == Reply::ANSWER && qtype == 1;
        std::vector<uint8_t> reply(query, query + question_end);
        reply[2] = 0x81;  // a response, recursion desired
        reply[3] = static_cast<uint8_t>(0x80 | (rule.reply == Reply::NXDOMAIN ? 3 : 0));  // recursion available
        reply[4] = 0, reply[5] = 1;
        reply[6] = 0, reply[7] = answer_a ? 1 : 0;
        for (size_t i = 8; i < 12; i++) reply[i] = 0;
        if (answer_a) {
            const uint8_t record[] = {0xC0, 0x0C, 0, 1, 0, 1, 0, 0, 0, 0, 0, 4};
            reply.insert(reply.end(), record, record + sizeof(record));
            in_addr address{};
            inet_pton(AF_INET, rule.address.c_str(), &address);
            const auto* bytes = reinterpret_cast<const uint8_t*>(&address.s_addr);
            reply.insert(reply.end(), bytes, bytes + 4);
        }
        int64_t delay_us = rule.delay_us;
        if (rule.jitter_us > 0)
            delay_us += std::uniform_int_distribution<int64_t>(-rule.jitter_us, rule.jitter_us)(random);
        pending.push_back({vostrelka::time_us() + std::max<int64_t>(delay_us, 0),
                           std::move(reply),
                           from,
                           {name, 0, rule.reply == Reply::ANSWER}});
    }

    void send_due() {
        const int64_t now = vostrelka::time_us();
        for (size_t i = 0; i < pending.size();) {
            Pending& p = pending[i];
            if (p.due_us > now) {
                i++;
                continue;
            }
            sendto(fd, p.reply.data(), p.reply.size(), 0, reinterpret_cast<const sockaddr*>(&p.to), sizeof(p.to));
            p.answer.at_us = vostrelka::time_us();
            {
                std::lock_guard<std::mutex> lock(mutex);
                sent.push_back(p.answer);
            }
            pending.erase(pending.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }

    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool bound = false;
    std::atomic<bool> stopping{false};
    std::mutex mutex;
    std::map<std::string, Rule> rules;
    std::vector<std::string> asked;
    std::vector<Answer> sent;
    std::vector<Pending> pending;  // the server thread's own
    std::mt19937 random{17};
    std::thread thread;
};

}  // namespace test_support
