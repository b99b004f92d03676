#pragma once
// Registry of background tasks with their own thread. The gateway registers
// none; the registry belongs to the frame for programs that do.
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace vostrelka {

class TaskBase {
public:
    virtual ~TaskBase() = default;

    std::unique_ptr<std::thread> worker;   // null when the task has no thread
    std::atomic<bool> keep_running{true};  // polled by the task's thread
};

extern std::vector<TaskBase*> _tasks;

// Asks every task to stop, then joins their threads in registry order and
// empties the registry. Returns 0.
int stop_all_tasks();
// Joins every task's thread in registry order without asking it to stop,
// then empties the registry. Returns 0.
int wait_all_tasks();

}  // namespace vostrelka
