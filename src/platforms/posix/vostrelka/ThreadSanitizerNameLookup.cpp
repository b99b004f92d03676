// Asynchronous name lookup for ThreadSanitizer builds only.
//
// The C library starts the helper threads of getaddrinfo_a through its own
// internal thread creation, which the sanitizer never sees; the first
// allocation on such a thread crashes inside the sanitizer's allocator. So
// that the resolver can still be checked for races, a sanitized build links
// these four functions instead: each request runs getaddrinfo on a thread of
// its own, started the ordinary way, and reports through the request's own
// status field exactly as the library does. Other builds compile nothing here.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define GATE_THREAD_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define GATE_THREAD_SANITIZER 1
#endif

#ifdef GATE_THREAD_SANITIZER

#include <netdb.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace {

std::mutex lookup_mutex;
std::condition_variable lookup_done;

void run_lookup(gaicb* request) {
    addrinfo* result = nullptr;
    int status = getaddrinfo(request->ar_name, request->ar_service, request->ar_request, &result);
    std::lock_guard<std::mutex> lock(lookup_mutex);
    request->ar_result = result;
    request->__return = status;
    lookup_done.notify_all();
}

bool any_done(const gaicb* const list[], int count) {
    for (int i = 0; i < count; ++i) {
        if (list[i] != nullptr && list[i]->__return != EAI_INPROGRESS) return true;
    }
    return false;
}

}  // namespace

extern "C" int getaddrinfo_a(int mode, gaicb* list[], int count, sigevent*) {
    std::unique_lock<std::mutex> lock(lookup_mutex);
    for (int i = 0; i < count; ++i) {
        if (list[i] == nullptr) continue;
        list[i]->__return = EAI_INPROGRESS;
        try {
            std::thread(run_lookup, list[i]).detach();
        } catch (const std::system_error&) {
            list[i]->__return = EAI_AGAIN;
            return EAI_AGAIN;
        }
    }
    if (mode == GAI_WAIT) {
        lookup_done.wait(lock, [&] {
            for (int i = 0; i < count; ++i) {
                if (list[i] != nullptr && list[i]->__return == EAI_INPROGRESS) return false;
            }
            return true;
        });
    }
    return 0;
}

extern "C" int gai_suspend(const gaicb* const list[], int count, const timespec* timeout) {
    std::unique_lock<std::mutex> lock(lookup_mutex);
    if (any_done(list, count)) return EAI_ALLDONE;
    auto done = [&] { return any_done(list, count); };
    if (timeout == nullptr) {
        lookup_done.wait(lock, done);
        return 0;
    }
    auto wait = std::chrono::seconds(timeout->tv_sec) + std::chrono::nanoseconds(timeout->tv_nsec);
    return lookup_done.wait_for(lock, wait, done) ? 0 : EAI_AGAIN;
}

extern "C" int gai_error(gaicb* request) noexcept {
    std::lock_guard<std::mutex> lock(lookup_mutex);
    return request->__return;
}

// A started lookup cannot be taken back, just as a running one in the library.
extern "C" int gai_cancel(gaicb* request) noexcept {
    std::lock_guard<std::mutex> lock(lookup_mutex);
    return request->__return == EAI_INPROGRESS ? EAI_NOTCANCELED : EAI_ALLDONE;
}

#endif
