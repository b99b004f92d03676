#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <poll.h>

#include <cstring>
#include <fstream>

#include "support/StdoutCapture.h"
#include "vostrelka/Resolver.h"
#include "vostrelka/ResolverPool.h"
#include "vostrelka/Time.h"

using namespace vostrelka;
using namespace ::testing;
using Lines = std::vector<test_support::StdoutCapture::Line>;

namespace {

// A numeric host with a service name known nowhere fails at once and without
// any network; the reserved top-level domain never resolves.
const HostPort UNKNOWN_SERVICE{"127.0.0.1", "xyz80"};
const HostPort UNKNOWN_NAME{"gw1.nothing.invalid", "5000"};

// The warnings about `endpoint`, cut down to their reasons.
Lines warnings_about(const Lines& lines, const HostPort& endpoint) {
    const std::string prefix =
        "Resolver: WARN: failed to resolve address. " + endpoint.host + ":" + endpoint.port_str + ". Reason: ";
    Lines out;
    for (const auto& line : lines)
        if (line.text.rfind(prefix, 0) == 0) out.push_back({line.text.substr(prefix.size()), line.at_us});
    return out;
}

TEST(ResolverTest, ResolvesNumericHostsAndLocalhostOnTheFirstAttempt) {
    test_support::StdoutCapture capture;
    const std::pair<HostPort, const char*> cases[] = {{{"10.0.0.2", "5000"}, "10.0.0.2:5000"},
                                                      {{"127.1", "0080"}, "127.0.0.1:80"},
                                                      {{"localhost", "14550"}, "127.0.0.1:14550"}};
    ResolverPool pool;
    for (const auto& [endpoint, text] : cases) {
        AddressResolver resolver(endpoint, false);
        EXPECT_FALSE(resolver.get_resolved_address().has_value()) << "nothing before start";
        resolver.start(pool);
        std::optional<InetAddress> address;
        for (const int64_t deadline = time_us() + 10'000'000; !address && time_us() < deadline; sleep_us(1000))
            if (resolver.finished()) address = resolver.get_resolved_address();
        ASSERT_TRUE(address.has_value()) << text;
        EXPECT_EQ(address->to_s(), text);
        EXPECT_EQ(std::memcmp(&address->addr, &InetAddress::from(std::string(text))->addr, sizeof(sockaddr_in)), 0);
        EXPECT_EQ(capture.lines().back().text, "Resolver: Trying to resolve " + resolver.to_s());
    }
    EXPECT_EQ(capture.lines().size(), 3u) << "one line per lookup";
}

// A second start must not launch a second lookup, which would double the
// warnings in each pause. Destroyed in a pause, the resolver says nothing more.
TEST(ResolverTest, UnresolvableEndpointWarnsAboutOnceASecondAndNeverFinishes) {
    for (const HostPort& endpoint : {UNKNOWN_SERVICE, UNKNOWN_NAME}) {
        addrinfo hints = AddressResolver::get_hints(endpoint), *result = nullptr;
        const int error = getaddrinfo(endpoint.host.c_str(), endpoint.port_str.c_str(), &hints, &result);
        ASSERT_NE(error, 0) << endpoint.host << " resolves on this machine";
        const std::string reason = gai_strerror(error);

        test_support::StdoutCapture capture;
        ResolverPool pool;
        auto resolver = std::make_unique<AddressResolver>(endpoint, false);
        for (size_t warnings : {1, 3}) {
            resolver->start(pool);
            ASSERT_TRUE(capture.wait_for([&](const Lines& l) { return warnings_about(l, endpoint).size() >= warnings; },
                                         std::chrono::seconds(8)));
        }
        EXPECT_FALSE(resolver->finished() || resolver->get_resolved_address());
        const int64_t begin = time_us();
        const size_t printed = capture.lines().size();
        resolver.reset();
        EXPECT_LT(time_us() - begin, 2'500'000);

        const Lines lines = capture.lines(), warnings = warnings_about(lines, endpoint);
        EXPECT_EQ(lines.size(), printed);
        EXPECT_EQ(lines.size(), 1 + warnings.size()) << "only the start line and warnings";
        EXPECT_EQ(lines[0].text, "Resolver: Trying to resolve " + endpoint.host + ":" + endpoint.port_str);
        for (size_t i = 0; i < warnings.size(); ++i) {
            // The wait's own status comes first when it is not 0.
            EXPECT_THAT(warnings[i].text, AnyOf(Eq(reason), EndsWith(" / " + reason)));
            const int64_t gap_us = i > 0 ? warnings[i].at_us - warnings[i - 1].at_us : 1'700'000;
            EXPECT_NEAR(gap_us, 1'700'000, 800'000);  // 0.9 to 2.5 s
        }
    }
}

// Threads of this process, from the kernel's own count.
int threads_of_this_process() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Threads:", 0) == 0) return std::stoi(line.substr(8));
    return -1;
}

bool readable(int fd, int timeout_ms) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, timeout_ms) == 1;
}

// However many names fail at once, the pool keeps to its few threads, every
// name keeps being retried, and an answer wakes its own pool's descriptor
// (not another pool's), which a drain empties again. A pool that goes
// while its names are still being tried returns at once, its workers end,
// and its resolvers may outlive it.
TEST(ResolverTest, ManyFailingNamesShareThePoolAndAnAnswerWakesItsLoop) {
    test_support::StdoutCapture capture;
    // The test's own threads (a sanitizer may add one), once the workers of
    // earlier tests' pools have ended.
    int others = threads_of_this_process();
    for (int settled = 0; settled < 10; sleep_us(10'000)) {
        const int now = threads_of_this_process();
        settled = now == others ? settled + 1 : 0;
        others = now;
    }
    auto owned = std::make_unique<ResolverPool>();
    ResolverPool& pool = *owned;
    ResolverPool other;
    ASSERT_GE(pool.wake_fd(), 0);

    std::vector<std::unique_ptr<AddressResolver>> failing;
    for (int i = 0; i < 200; i++) {
        failing.push_back(std::make_unique<AddressResolver>(HostPort{"127.0.0." + std::to_string(i), "xyz80"}, false));
        failing.back()->start(pool);
    }
    const HostPort first{"127.0.0.0", "xyz80"}, last{"127.0.0.199", "xyz80"};
    ASSERT_TRUE(capture.wait_for(
        [&](const Lines& l) { return warnings_about(l, first).size() >= 2 && warnings_about(l, last).size() >= 2; },
        std::chrono::seconds(10)));
    const int threads = pool.thread_count();
    EXPECT_LE(threads, ResolverPool::POOL_SIZE);
    EXPECT_EQ(threads_of_this_process(), others + threads);
    EXPECT_FALSE(readable(pool.wake_fd(), 0)) << "failures wake nobody";

    AddressResolver local({"localhost", "5000"}, false);
    local.start(pool);
    ASSERT_TRUE(readable(pool.wake_fd(), 10000));
    EXPECT_FALSE(readable(other.wake_fd(), 0));
    EXPECT_TRUE(local.finished());
    EXPECT_EQ(local.get_resolved_address()->to_s(), "127.0.0.1:5000");
    pool.drain_wake_fd();
    EXPECT_FALSE(readable(pool.wake_fd(), 0));

    int64_t begin = time_us();
    failing.resize(100);
    EXPECT_LT(time_us() - begin, 100'000) << "a resolver never waits for a lookup";
    EXPECT_EQ(pool.thread_count(), threads);

    begin = time_us();
    owned.reset();
    EXPECT_LT(time_us() - begin, 100'000) << "nor does its pool";
    bool ended = false;
    for (const int64_t deadline = time_us() + 5'000'000; !ended && time_us() < deadline; sleep_us(10'000))
        ended = threads_of_this_process() == others;
    EXPECT_TRUE(ended) << "the pool's workers end once their lookups return";
    failing.clear();
}

}  // namespace
