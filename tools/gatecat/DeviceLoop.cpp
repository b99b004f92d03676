#include "gatecat/DeviceLoop.h"

#include <sys/select.h>

#include <cerrno>

#include "vostrelka/SelectPass.h"

namespace vostrelka {
namespace gatecat {

bool DeviceLoop::run_once(int64_t max_wait_us) {
    event_system::EventLoopEntry* const entries[] = {&entry};
    event_system::SelectPass pass(entries, 1);
    const int ready = pass.wait(max_wait_us, wait_mask);
    if (ready < 0) return errno == EINTR;
    if (ready > 0) pass.deliver();
    pass.run_due_timer();
    return true;
}

bool DeviceLoop::wants_to_write() {
    event_system::EventLoopEntry* const entries[] = {&entry};
    return event_system::SelectPass(entries, 1).watches_write(entry);
}

}  // namespace gatecat
}  // namespace vostrelka
