// SPDX-License-Identifier: MIT
// Waiting for time to pass. PASSIVE_LEVEL only.
#pragma once

#include <nt.h>

constexpr LONGLONG Ticks_Per_Ms = 10000;  // kernel time is counted in 100 ns

// Relative kernel time-out of so many milliseconds.
inline LARGE_INTEGER Relative_Ms(LONG Ms)
{
    LARGE_INTEGER Time;
    Time.QuadPart = -Ms * Ticks_Per_Ms;
    return Time;
}

inline void Sleep_Ms(LONG Ms)
{
    LARGE_INTEGER Time = Relative_Ms(Ms);
    KeDelayExecutionThread(KernelMode, FALSE, &Time);
}
