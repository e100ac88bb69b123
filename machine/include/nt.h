// SPDX-License-Identifier: MIT
// The kernel's interface on Linux: the same DDK headers that the Windows build sees, in a 32-bit
// Linux program, side by side with the C and C++ libraries. Every kernel routine declared here is
// implemented under machine/.
#pragma once

#include <setjmp.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <cwctype>

#define _WCTYPE_T_DEFINED
#ifndef _WINT_T
#define _WINT_T
#endif

#define _WIN32 1
#define WIN32 1
#define __MINGW32__ 1
#define _X86_ 1
#define __cdecl __attribute__((cdecl))
#define __stdcall __attribute__((stdcall))
#define __fastcall __attribute__((fastcall))
#define __declspec(x)
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset
#define _MM_MALLOC_H_INCLUDED
#define __MM_MALLOC_H
#define _setjmp nt_unused_setjmp

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wall"
#pragma GCC diagnostic ignored "-Wextra"
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC system_header
// clang-format off: the order matters
extern "C" {
#include <ntifs.h>
#include <ntddk.h>
#include <srb.h>
#include <scsi.h>
#include <ntddscsi.h>
}
// clang-format on
#pragma GCC diagnostic pop

#undef _setjmp
#undef _WIN32
#undef WIN32
#undef __MINGW32__
#undef min
#undef max
#undef interface

// Where one processor's atomic operation meets another's, a thread switch shows it: on the simulated
// scheduler each one is a point where another thread may run, before it and after. Inlined intrinsics of a
// loaded driver file are none.
extern "C" bool nt_switches_at_atomics;
extern "C" void nt_switch_at_atomic();

inline void nt_switching_point()
{
    if (nt_switches_at_atomics) [[unlikely]]
        nt_switch_at_atomic();
}

template <typename Value>
inline Value nt_then_switch(Value value)
{
    nt_switching_point();
    return value;
}

#undef InterlockedIncrement
#define InterlockedIncrement(...) (nt_switching_point(), nt_then_switch(_InterlockedIncrement(__VA_ARGS__)))
#undef InterlockedDecrement
#define InterlockedDecrement(...) (nt_switching_point(), nt_then_switch(_InterlockedDecrement(__VA_ARGS__)))
#undef InterlockedExchange
#define InterlockedExchange(...) (nt_switching_point(), nt_then_switch(_InterlockedExchange(__VA_ARGS__)))
#undef InterlockedExchangeAdd
#define InterlockedExchangeAdd(...)                                                                          \
    (nt_switching_point(), nt_then_switch(_InterlockedExchangeAdd(__VA_ARGS__)))
#undef InterlockedCompareExchange
#define InterlockedCompareExchange(...)                                                                      \
    (nt_switching_point(), nt_then_switch(_InterlockedCompareExchange(__VA_ARGS__)))
#undef InterlockedOr
#define InterlockedOr(...) (nt_switching_point(), nt_then_switch(_InterlockedOr(__VA_ARGS__)))
#undef InterlockedAnd
#define InterlockedAnd(...) (nt_switching_point(), nt_then_switch(_InterlockedAnd(__VA_ARGS__)))
#undef InterlockedXor
#define InterlockedXor(...) (nt_switching_point(), nt_then_switch(_InterlockedXor(__VA_ARGS__)))
#undef YieldProcessor
#define YieldProcessor() (nt_switching_point(), __builtin_ia32_pause())
