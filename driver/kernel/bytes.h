// SPDX-License-Identifier: MIT
// Small helpers on plain memory. Any IRQL.
#pragma once

#include <nt.h>

// True when the two runs of bytes are equal. The kernel exports no memcmp.
inline bool Bytes_Equal(const void* Left, const void* Right, SIZE_T Bytes)
{
    return RtlCompareMemory(const_cast<void*>(Left), const_cast<void*>(Right), Bytes) == Bytes;
}

template <typename Value>
constexpr Value Smaller(Value Left, Value Right)
{
    return Left < Right ? Left : Right;
}
