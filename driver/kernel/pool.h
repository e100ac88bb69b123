// SPDX-License-Identifier: MIT
// Tags of the driver's non-paged pool blocks.
#pragma once

#include <nt.h>

// As the debugger shows them: the first character is the lowest byte.
constexpr ULONG Pool_Tag(const char (&Text)[5])
{
    return static_cast<ULONG>(Text[0]) | static_cast<ULONG>(Text[1]) << 8 |
           static_cast<ULONG>(Text[2]) << 16 | static_cast<ULONG>(Text[3]) << 24;
}

constexpr ULONG Tag_Memory = Pool_Tag("QRNM");    // objects, worker blocks, buffers
constexpr ULONG Tag_Registry = Pool_Tag("QRNR");  // registry query buffers
