#include "PeerTableLog.h"

#include "vostrelka/debug.h"

namespace vostrelka {

bool PeerTableLog::admit(int64_t now_us) {
    if (!started || now_us - window_start_us >= WINDOW_US) start_window(now_us);
    if (shown < LINES_PER_WINDOW) {
        ++shown;
        return true;
    }
    ++hidden;
    return false;
}

void PeerTableLog::flush(int64_t now_us) {
    if (hidden != 0 && now_us - window_start_us >= WINDOW_US) start_window(now_us);
}

void PeerTableLog::start_window(int64_t now_us) {
    if (hidden != 0) {
        debug("WARNING: %lu peer table lines not shown (more than %u a second)", static_cast<unsigned long>(hidden),
              LINES_PER_WINDOW);
    }
    started = true;
    window_start_us = now_us;
    shown = 0;
    hidden = 0;
}

}  // namespace vostrelka
