#pragma once
// A loop's resolver pool and its entry in that loop: when a lookup has an
// answer the entry drains the pool's wake-up descriptor and calls
// `on_answer`, so that the answer is used at once rather than in the next
// pass.
#include <functional>
#include <utility>

#include "vostrelka/EventLoopEntry.h"
#include "vostrelka/ResolverPool.h"

namespace vostrelka {

class ResolverWakeUp : public event_system::EventLoopEntry {
public:
    explicit ResolverWakeUp(std::function<void()> on_answer) : on_answer(std::move(on_answer)) {}

    // Where the loop's resolvers are started.
    ResolverPool& pool() { return resolvers; }

    bool is_fd_set(fd_set* set) override { return resolvers.wake_fd() >= 0 && FD_ISSET(resolvers.wake_fd(), set); }
    void register_fd(fd_set* read_set, fd_set*, fd_set*) override {
        if (resolvers.wake_fd() >= 0) FD_SET(resolvers.wake_fd(), read_set);
    }
    void on_event(uint8_t) override {
        resolvers.drain_wake_fd();
        on_answer();
    }

private:
    ResolverPool resolvers;
    std::function<void()> on_answer;
};

}  // namespace vostrelka
