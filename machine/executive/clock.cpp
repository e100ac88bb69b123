// SPDX-License-Identifier: MIT
#include "machine/executive/clock.h"

#include <chrono>

#include <nt.h>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"

namespace machine {

std::int64_t system_boot_time()
{
    return executive().boot_time;
}

Ticks time_of_last_tick()
{
    const Ticks now = scheduler().now();
    const Ticks tick = executive().config.clock_tick_100ns;
    return tick ? now - now % tick : now;
}

Ticks tick_from(Ticks due)
{
    const Ticks tick = executive().config.clock_tick_100ns;
    if (!tick || due <= 0 || due % tick == 0)
        return due;
    return due > never - tick ? never : due - due % tick + tick;
}

}  // namespace machine

using namespace machine;

extern "C" {

ULONGLONG NTAPI KeQueryInterruptTime()
{
    self();
    scheduler().preemption_point();
    return static_cast<ULONGLONG>(time_of_last_tick());
}

VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER time)
{
    self();
    time->QuadPart = system_boot_time() + time_of_last_tick();
}

VOID NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER system_time, PLARGE_INTEGER local_time)
{
    self();
    const Ticks bias = executive().config.time_zone_bias_minutes * 60 * ticks_per_second;
    local_time->QuadPart = system_time->QuadPart - bias;
}

VOID NTAPI KeStallExecutionProcessor(ULONG microseconds)
{
    self();
    if (scheduler().simulated()) {
        scheduler().preemption_point();
        return;
    }
    const Ticks end = scheduler().now() + microseconds * ticks_per_us;
    while (scheduler().now() < end)
        __builtin_ia32_pause();
}

}  // extern "C"
