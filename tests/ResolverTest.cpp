#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>

#include "support/StdoutCapture.h"
#include "vostrelka/Resolver.h"
#include "vostrelka/Time.h"

namespace vostrelka {
namespace {

using test_support::StdoutCapture;
using ::testing::AnyOf;
using ::testing::EndsWith;
using ::testing::Eq;
using Lines = std::vector<StdoutCapture::Line>;
using namespace std::chrono_literals;

const std::string WARNING_PREFIX = "Resolver: WARN: failed to resolve address. ";

// A numeric host with a service name that exists nowhere fails at once and
// without any network, so every attempt ends in the warning.
constexpr const char* UNKNOWN_SERVICE_HOST = "127.0.0.1";
constexpr const char* UNKNOWN_SERVICE = "xyz80";
// The reserved top-level domain that never resolves.
constexpr const char* UNRESOLVABLE_NAME = "gw1.nothing.invalid";

Lines starting(const Lines& lines, const std::string& prefix) {
    Lines out;
    for (const auto& line : lines)
        if (line.text.rfind(prefix, 0) == 0) out.push_back(line);
    return out;
}

std::unique_ptr<AddressResolver> make_resolver(const std::string& host, const std::string& port_str) {
    HostPort host_port;
    host_port.host = host;
    host_port.port_str = port_str;
    return std::make_unique<AddressResolver>(host_port, false);
}

// What the C library says about the same query made synchronously: the
// warning must end with this text.
std::string expected_failure_text(const std::string& host, const std::string& port_str) {
    addrinfo hints = AddressResolver::get_hints(HostPort{});
    addrinfo* result = nullptr;
    int e = getaddrinfo(host.c_str(), port_str.c_str(), &hints, &result);
    if (e == 0) {
        freeaddrinfo(result);
        return "";
    }
    return gai_strerror(e);
}

class ResolverTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(capture.ok()); }

    // Polls the way the main loop does until an address comes out.
    std::optional<InetAddress> collect(AddressResolver& resolver) {
        const int64_t deadline = time_us() + 10'000'000;
        while (time_us() < deadline) {
            if (resolver.finished()) {
                auto address = resolver.get_resolved_address();
                if (address) return address;
            }
            sleep_us(1000);
        }
        return std::nullopt;
    }

    bool wait_for_warnings(const std::string& endpoint, size_t count, std::chrono::milliseconds timeout) {
        return capture.wait_for(
            [&](const Lines& lines) { return starting(lines, WARNING_PREFIX + endpoint + ".").size() >= count; },
            timeout);
    }

    StdoutCapture capture;
};

TEST_F(ResolverTest, NothingBeforeStart) {
    auto resolver = make_resolver("gw1", "5000");
    EXPECT_EQ(resolver->to_s(), "gw1:5000");
    EXPECT_FALSE(resolver->finished());
    EXPECT_FALSE(resolver->get_resolved_address().has_value());
    resolver.reset();
    EXPECT_TRUE(capture.lines().empty());
}

struct Resolvable {
    const char* host;
    const char* port_str;
    const char* text;  // of the resolved address
};

void PrintTo(const Resolvable& c, std::ostream* os) {
    *os << c.host << ":" << c.port_str;
}

class ResolverResolves : public ResolverTest, public ::testing::WithParamInterface<Resolvable> {};

TEST_P(ResolverResolves, OnTheFirstAttempt) {
    const auto& c = GetParam();
    auto resolver = make_resolver(c.host, c.port_str);
    resolver->start();
    auto address = collect(*resolver);
    ASSERT_TRUE(address.has_value());
    EXPECT_EQ(address->to_s(), c.text);
    auto expected = *InetAddress::from(std::string(c.text));
    EXPECT_EQ(std::memcmp(&address->addr, &expected.addr, sizeof(expected.addr)), 0);
    EXPECT_TRUE(resolver->finished());
    // Collected once, kept afterwards.
    EXPECT_EQ(resolver->get_resolved_address(), address);

    resolver.reset();
    const std::string endpoint = std::string(c.host) + ":" + c.port_str;
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "Resolver: Trying to resolve " + endpoint);
}

INSTANTIATE_TEST_SUITE_P(Hosts, ResolverResolves,
                         ::testing::Values(Resolvable{"10.0.0.2", "5000", "10.0.0.2:5000"},
                                           Resolvable{"127.1", "0080", "127.0.0.1:80"},
                                           Resolvable{"localhost", "14550", "127.0.0.1:14550"}));

struct Unresolvable {
    const char* host;
    const char* port_str;
};

void PrintTo(const Unresolvable& c, std::ostream* os) {
    *os << c.host << ":" << c.port_str;
}

class ResolverNeverResolves : public ResolverTest, public ::testing::WithParamInterface<Unresolvable> {};

TEST_P(ResolverNeverResolves, WarnsAboutOnceASecondAndNeverFinishes) {
    const std::string host = GetParam().host, port_str = GetParam().port_str;
    const std::string endpoint = host + ":" + port_str;
    const std::string reason = expected_failure_text(host, port_str);
    ASSERT_FALSE(reason.empty()) << endpoint << " resolves on this machine";

    auto resolver = make_resolver(host, port_str);
    resolver->start();
    ASSERT_TRUE(wait_for_warnings(endpoint, 3, 8s));
    EXPECT_FALSE(resolver->finished());
    EXPECT_FALSE(resolver->get_resolved_address().has_value());
    resolver.reset();

    auto lines = capture.lines();
    EXPECT_EQ(lines.front().text, "Resolver: Trying to resolve " + endpoint);
    EXPECT_EQ(starting(lines, "Resolver: Trying").size(), 1u);
    auto warnings = starting(lines, WARNING_PREFIX + endpoint + ". Reason: ");
    ASSERT_GE(warnings.size(), 3u);
    EXPECT_EQ(warnings.size() + 1, lines.size()) << "only the start line and warnings";
    const std::string reason_at = WARNING_PREFIX + endpoint + ". Reason: ";
    for (size_t i = 0; i < warnings.size(); ++i) {
        // The wait's own status comes first when it is not 0.
        EXPECT_THAT(warnings[i].text.substr(reason_at.size()), AnyOf(Eq(reason), EndsWith(" / " + reason)));
        if (i == 0) continue;
        const int64_t gap_us = warnings[i].at_us - warnings[i - 1].at_us;
        EXPECT_GE(gap_us, 900'000) << "attempt " << i;
        EXPECT_LE(gap_us, 2'500'000) << "attempt " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Endpoints, ResolverNeverResolves,
                         ::testing::Values(Unresolvable{UNKNOWN_SERVICE_HOST, UNKNOWN_SERVICE},
                                           Unresolvable{UNRESOLVABLE_NAME, "5000"}));

TEST_F(ResolverTest, SecondStartWhileRunningChangesNothing) {
    const std::string endpoint = std::string(UNKNOWN_SERVICE_HOST) + ":" + UNKNOWN_SERVICE;
    auto resolver = make_resolver(UNKNOWN_SERVICE_HOST, UNKNOWN_SERVICE);
    resolver->start();
    ASSERT_TRUE(wait_for_warnings(endpoint, 1, 5s));
    resolver->start();
    ASSERT_TRUE(wait_for_warnings(endpoint, 3, 8s));
    resolver.reset();

    auto lines = capture.lines();
    EXPECT_EQ(starting(lines, "Resolver: Trying to resolve ").size(), 1u);
    // A second lookup would double the warnings within each pause.
    auto warnings = starting(lines, WARNING_PREFIX);
    for (size_t i = 1; i < warnings.size(); ++i) EXPECT_GE(warnings[i].at_us - warnings[i - 1].at_us, 900'000);
}

// Destroying while an attempt is in progress, or while its retry pause runs,
// returns within about a second and prints nothing more.
class ResolverDestroyed : public ResolverTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(ResolverDestroyed, MidLookupWithinASecondAndQuietly) {
    const size_t warnings_before = GetParam();
    const std::string endpoint = std::string(UNKNOWN_SERVICE_HOST) + ":" + UNKNOWN_SERVICE;
    auto resolver = make_resolver(UNKNOWN_SERVICE_HOST, UNKNOWN_SERVICE);
    resolver->start();
    if (warnings_before > 0) {
        ASSERT_TRUE(wait_for_warnings(endpoint, warnings_before, 5s));
    }
    const size_t printed = capture.lines().size();

    const int64_t begin = time_us();
    resolver.reset();
    const int64_t elapsed_us = time_us() - begin;
    EXPECT_LT(elapsed_us, 2'500'000);

    // Right after start the first attempt may still print its start line and
    // a warning it had already got; in a retry pause nothing is left to say.
    const size_t late_lines = warnings_before == 0 ? 2 : 0;
    EXPECT_LE(capture.lines().size(), printed + late_lines);
}

INSTANTIATE_TEST_SUITE_P(Moments, ResolverDestroyed, ::testing::Values(0, 1));

}  // namespace
}  // namespace vostrelka
