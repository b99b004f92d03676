#include "vostrelka/ResolverPool.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <system_error>
#include <thread>

#include "vostrelka/Time.h"
#include "vostrelka/debug.h"

namespace vostrelka {

namespace {
constexpr const char* TAG = "Resolver";
}

ResolverQueue::ResolverQueue() : wake_fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

// Runs on whichever side lets go last, a worker included: nobody can write
// to the descriptor any more.
ResolverQueue::~ResolverQueue() {
    if (wake_fd_ >= 0) ::close(wake_fd_);
}

void ResolverQueue::submit(const std::shared_ptr<ResolverJob>& job) {
    std::lock_guard<std::mutex> lock(mutex);
    if (closed) return;
    enqueue(job, time_us());
    start_worker_if_needed();
    work_ready.notify_one();
}

void ResolverQueue::withdraw(const std::shared_ptr<ResolverJob>& job) {
    job->stop.store(true);
    std::lock_guard<std::mutex> lock(mutex);
    if (job->queued) dequeue(*job);
}

void ResolverQueue::close() {
    std::lock_guard<std::mutex> lock(mutex);
    closed = true;
    for (auto& entry : queue) entry.second->queued = false;
    queue.clear();
    work_ready.notify_all();
}

int ResolverQueue::thread_count() {
    std::lock_guard<std::mutex> lock(mutex);
    return threads;
}

void ResolverQueue::enqueue(const std::shared_ptr<ResolverJob>& job, int64_t due_us) {
    job->due_us = due_us;
    job->queued = true;
    queue.emplace(due_us, job);
}

void ResolverQueue::dequeue(ResolverJob& job) {
    auto [first, last] = queue.equal_range(job.due_us);
    for (auto it = first; it != last; ++it) {
        if (it->second.get() == &job) {
            queue.erase(it);
            break;
        }
    }
    job.queued = false;
}

// Called with the lock held. One more worker while jobs outnumber the idle
// ones; a worker that cannot be started is tried again with the next job,
// and the ones already running carry the queue meanwhile. Each worker holds
// the queue, which therefore outlives the pool while a lookup runs.
void ResolverQueue::start_worker_if_needed() {
    if (threads >= POOL_SIZE || queue.size() <= static_cast<size_t>(idle)) return;
    try {
        std::thread worker([self = shared_from_this()] { self->work(); });
        pthread_setname_np(worker.native_handle(), "gate-resolver");
        worker.detach();
        ++threads;
    } catch (const std::system_error&) {
    }
}

void ResolverQueue::work() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        if (closed) {
            --threads;
            return;
        }
        if (queue.empty()) {
            ++idle;
            work_ready.wait(lock);
            --idle;
            continue;
        }
        const auto first = queue.begin();
        const int64_t early_us = first->first - time_us();
        if (early_us > 0) {
            ++idle;
            work_ready.wait_for(lock, std::chrono::microseconds(early_us));
            --idle;
            continue;
        }
        std::shared_ptr<ResolverJob> job = std::move(first->second);
        queue.erase(first);
        job->queued = false;
        if (job->stop.load()) continue;
        const bool announce = !job->announced;
        job->announced = true;

        lock.unlock();
        if (announce) debug_tagged(TAG, "Trying to resolve %s:%s", job->host.c_str(), job->port_str.c_str());
        const bool answered = attempt(*job);
        if (answered && !job->stop.load() && wake_fd_ >= 0) {
            const uint64_t one = 1;
            (void)!write(wake_fd_, &one, sizeof(one));
        }
        lock.lock();

        if (!answered && !job->stop.load() && !closed) enqueue(job, time_us() + RETRY_PERIOD_US);
    }
}

// One lookup. True when the job has its answer.
bool ResolverQueue::attempt(ResolverJob& job) {
    addrinfo* result = nullptr;
    const int error = getaddrinfo(job.host.c_str(), job.port_str.c_str(), &job.hints, &result);
    if (error == 0 && result != nullptr) {
        job.answer = InetAddress::from(*result->ai_addr);
        freeaddrinfo(result);
        job.finished.store(true);
        return true;
    }
    // A resolver that went away during the lookup is not reported on.
    if (job.stop.load()) return false;
    if (error == 0) {
        job.failure.store("unexpected null result!");
        debug_tagged(TAG, "ERROR: unexpected null result!");
    } else {
        job.failure.store(gai_strerror(error));
        debug_tagged(TAG, "WARN: failed to resolve address. %s:%s. Reason: %s", job.host.c_str(), job.port_str.c_str(),
                     job.failure.load());
    }
    return false;
}

void ResolverPool::drain_wake_fd() const {
    uint64_t count = 0;
    if (wake_fd() >= 0) (void)!read(wake_fd(), &count, sizeof(count));
}

}  // namespace vostrelka
