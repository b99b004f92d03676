#pragma once
// The main loop's entry for the resolver pool's wake-up descriptor: when a
// lookup has an answer it drains the descriptor and calls `on_answer`, so
// that the answer is used in this pass rather than after the next select()
// time-out.
#include <functional>
#include <utility>

#include "vostrelka/EventLoopEntry.h"
#include "vostrelka/ResolverPool.h"

namespace vostrelka {

class ResolverWakeUp : public event_system::EventLoopEntry {
public:
    explicit ResolverWakeUp(std::function<void()> on_answer)
        : fd(ResolverPool::instance().wake_fd()), on_answer(std::move(on_answer)) {}

    bool is_fd_set(fd_set* set) override { return fd >= 0 && FD_ISSET(fd, set); }
    void register_fd(fd_set* read_set, fd_set*, fd_set*) override {
        if (fd >= 0) FD_SET(fd, read_set);
    }
    void on_event(uint8_t) override {
        ResolverPool::instance().drain_wake_fd();
        on_answer();
    }

private:
    int fd;
    std::function<void()> on_answer;
};

}  // namespace vostrelka
