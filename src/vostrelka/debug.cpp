#include "vostrelka/debug.h"

namespace vostrelka {

std::mutex stdout_mutex;

}  // namespace vostrelka
