#pragma once
// The threads that look names up for every AddressResolver of the process.
//
// A few workers (POOL_SIZE, started one by one as work arrives, never more)
// run plain blocking getaddrinfo calls. Each resolver hands in one job; a
// job whose lookup fails waits in a timed queue and is tried again
// RETRY_PERIOD_US later, so any number of unresolvable names costs queue
// entries, not threads. Memory: one job per live resolver plus at most
// POOL_SIZE jobs whose resolver went away during their lookup.
//
// When a lookup gives an answer the pool writes to wake_fd(), an eventfd
// the main loop watches, so that the answer is used at once.
#include <netdb.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "vostrelka/InetAddress.h"

namespace vostrelka {

// What a resolver and the worker looking up its name share. Whichever
// side lets go last frees it, so neither ever waits for the other.
struct ResolverJob {
    std::string host;
    std::string port_str;
    addrinfo hints{};

    // Set by the resolver when it goes; an attempt not yet begun is skipped.
    std::atomic<bool> stop{false};
    // Set by a worker once `answer` is written; `answer` never changes after.
    std::atomic<bool> finished{false};
    std::optional<InetAddress> answer;
    // Why the last attempt failed, as its warning line says it (a static
    // text); null until an attempt fails.
    std::atomic<const char*> failure{nullptr};

    // Worker side only (under the pool's lock).
    bool announced = false;
    bool queued = false;
    int64_t due_us = 0;
};

class ResolverPool {
public:
    static constexpr int POOL_SIZE = 4;
    static constexpr int64_t RETRY_PERIOD_US = 1000000;

    // The one pool of the process, made on first use and never destroyed:
    // workers may still be inside a lookup when the process exits.
    static ResolverPool& instance();

    // Queues the job for a lookup now.
    void submit(const std::shared_ptr<ResolverJob>& job);
    // Marks the job stopped and takes it off the queue; returns at once.
    // A lookup already running finishes on its worker and is thrown away.
    void withdraw(const std::shared_ptr<ResolverJob>& job);

    // Readable after a lookup gave an answer; -1 if no eventfd could be made
    // (the main loop then finds answers in its next pass). Drain with
    // drain_wake_fd().
    int wake_fd() const { return wake_fd_; }
    void drain_wake_fd() const;

    int thread_count();

private:
    ResolverPool();
    void work();
    bool attempt(ResolverJob& job);
    void enqueue(const std::shared_ptr<ResolverJob>& job, int64_t due_us);
    void dequeue(ResolverJob& job);
    void start_worker_if_needed();

    std::mutex mutex;
    std::condition_variable work_ready;
    // Jobs by the time they are due; several may fall due together.
    std::multimap<int64_t, std::shared_ptr<ResolverJob>> queue;
    int threads = 0;
    int idle = 0;
    int wake_fd_ = -1;
};

}  // namespace vostrelka
