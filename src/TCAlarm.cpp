// TCAlarm: periodic timers on an event IO's loop, and the millisecond tick.

#include "TCAlarm.h"

#include <cstdint>
#include <ctime>

#include "QueltLog.h"

namespace Quelt {

unsigned long TCAlarm::GetTickCount() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // A 32-bit millisecond count that wraps after about 49.7 days; durations
    // are taken by unsigned 32-bit subtraction.
    uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000u +
                  static_cast<uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

}  // namespace Quelt
