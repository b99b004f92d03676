#include "vostrelka/Time.h"

#include <time.h>
#include <unistd.h>

namespace vostrelka {

static int64_t clock_us(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t time_us() {
    return clock_us(CLOCK_MONOTONIC);
}

int64_t time_us_irq() {
    return clock_us(CLOCK_MONOTONIC);
}

int64_t time_utc_us() {
    return clock_us(CLOCK_REALTIME);
}

int64_t time_utc_us(long mono_us) {
    const int64_t realtime_now = clock_us(CLOCK_REALTIME);
    const int64_t monotonic_now = clock_us(CLOCK_MONOTONIC);
    return realtime_now - monotonic_now + mono_us;
}

bool time_utc_valid() {
    return true;
}

void set_utc_offset(long /*offset_us*/) {}

void sleep_us(long us) {
    usleep(static_cast<useconds_t>(us));
}

int64_t DateTime::to_us() const {
    tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return static_cast<int64_t>(timegm(&t)) * 1000000 + static_cast<int64_t>(microseconds);
}

}  // namespace vostrelka
