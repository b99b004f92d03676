#pragma once
// The threads that look names up for the AddressResolvers of one owner (a
// gateway's loop, a test).
//
// A few workers (POOL_SIZE, started one by one as work arrives, never more)
// run plain blocking getaddrinfo calls. Each resolver hands in one job; a
// job whose lookup fails waits in a timed queue and is tried again
// RETRY_PERIOD_US later, so any number of unresolvable names costs queue
// entries, not threads. Memory: one job per live resolver plus at most
// POOL_SIZE jobs whose resolver went away during their lookup.
//
// When a lookup gives an answer the pool writes to wake_fd(), an eventfd
// the owner's loop watches, so that the answer is used at once.
//
// Neither the pool nor a resolver ever waits for a lookup. The queue, its
// lock and the wake-up descriptor are shared by the pool, its workers and
// the resolvers it serves, and freed by whichever lets go last: a pool
// destroyed while a worker is inside getaddrinfo returns at once, the
// worker ends when its call returns and its answer is thrown away, and a
// resolver may outlive its pool.
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

    // Worker side only (under the queue's lock).
    bool announced = false;
    bool queued = false;
    int64_t due_us = 0;
};

// The jobs of one pool and the workers' side of it.
class ResolverQueue : public std::enable_shared_from_this<ResolverQueue> {
public:
    static constexpr int POOL_SIZE = 4;
    static constexpr int64_t RETRY_PERIOD_US = 1000000;

    ResolverQueue();
    ~ResolverQueue();
    ResolverQueue(const ResolverQueue&) = delete;
    ResolverQueue& operator=(const ResolverQueue&) = delete;

    // Queues the job for a lookup now; nothing once the pool is closed.
    void submit(const std::shared_ptr<ResolverJob>& job);
    // Marks the job stopped and takes it off the queue; returns at once.
    // A lookup already running finishes on its worker and is thrown away.
    void withdraw(const std::shared_ptr<ResolverJob>& job);
    // Drops every queued job and lets the workers end; returns at once.
    void close();

    int wake_fd() const { return wake_fd_; }
    int thread_count();

private:
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
    bool closed = false;
    const int wake_fd_;
};

class ResolverPool {
public:
    static constexpr int POOL_SIZE = ResolverQueue::POOL_SIZE;
    static constexpr int64_t RETRY_PERIOD_US = ResolverQueue::RETRY_PERIOD_US;

    ResolverPool() : jobs_(std::make_shared<ResolverQueue>()) {}
    // Returns at once, even with lookups running (see above).
    ~ResolverPool() { jobs_->close(); }
    ResolverPool(const ResolverPool&) = delete;
    ResolverPool& operator=(const ResolverPool&) = delete;

    // What a resolver keeps to hand in and withdraw its job.
    const std::shared_ptr<ResolverQueue>& jobs() const { return jobs_; }

    // Readable after a lookup gave an answer; -1 if no eventfd could be made
    // (the loop then finds answers in its next pass). Drain with
    // drain_wake_fd().
    int wake_fd() const { return jobs_->wake_fd(); }
    void drain_wake_fd() const;
    // Workers running now.
    int thread_count() const { return jobs_->thread_count(); }

private:
    std::shared_ptr<ResolverQueue> jobs_;
};

}  // namespace vostrelka
