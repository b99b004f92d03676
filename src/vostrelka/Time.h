#pragma once
// Every time in the system is kept in signed 64-bit microseconds.
#include <cstdint>
#include <ctime>

namespace vostrelka {

constexpr int64_t US_PER_S = 1000000;
constexpr int64_t NS_PER_US = 1000;

// A wait of `us` microseconds (not negative) as the system's wait calls take it.
inline timespec timespec_from_us(int64_t us) {
    timespec out{};
    out.tv_sec = static_cast<time_t>(us / US_PER_S);
    out.tv_nsec = static_cast<long>((us % US_PER_S) * NS_PER_US);
    return out;
}

int64_t time_us();                  // CLOCK_MONOTONIC
int64_t time_us_irq();              // same clock; exists for platforms that read it differently in interrupts
int64_t time_utc_us();              // CLOCK_REALTIME
int64_t time_utc_us(long mono_us);  // a monotonic stamp moved onto the wall clock
bool time_utc_valid();              // the wall clock is always trusted here
void set_utc_offset(long offset_us);
void sleep_us(long us);

struct DateTime {
    int32_t microseconds = 0;
    uint16_t year = 1970;
    uint8_t month = 1;
    uint8_t day = 1;
    uint8_t hour = 0;
    uint8_t minute = 0;
    uint8_t second = 0;

    // UTC microseconds since 1970; out-of-range fields are normalised by timegm.
    int64_t to_us() const;
};

}  // namespace vostrelka
