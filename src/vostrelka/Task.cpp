#include "vostrelka/Task.h"

namespace vostrelka {

std::vector<TaskBase*> _tasks;

static void join_all_workers() {
    for (TaskBase* task : _tasks) {
        if (task->worker && task->worker->joinable()) {
            task->worker->join();
            task->worker.reset();
        }
    }
    _tasks.clear();
}

int stop_all_tasks() {
    for (TaskBase* task : _tasks) task->keep_running = false;
    join_all_workers();
    return 0;
}

int wait_all_tasks() {
    join_all_workers();
    return 0;
}

}  // namespace vostrelka
