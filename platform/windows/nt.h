// SPDX-License-Identifier: MIT
// The kernel's interface on Windows: the DDK headers.
#pragma once

#include <cstddef>
#include <cstdint>

#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

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

#undef min
#undef max
