#include "virtual-ta/mono_time.h"

#include <chrono>

uint64_t MonoNs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}
