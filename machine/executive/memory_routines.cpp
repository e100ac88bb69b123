// SPDX-License-Identifier: MIT
// Physical memory as drivers see it.
#include <nt.h>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"

using namespace machine;

namespace {

constexpr ULONG ranges_tag = pool_tag("MmPh");

}  // namespace

extern "C" {

BOOLEAN Mm64BitPhysicalAddress = FALSE;

PVOID NTAPI MmMapIoSpace(PHYSICAL_ADDRESS address, SIZE_T bytes, MEMORY_CACHING_TYPE)
{
    enter_at_most(DISPATCH_LEVEL, "MmMapIoSpace");
    scheduler().preemption_point();
    ExecutiveState& kernel = executive();
    const auto base = static_cast<std::uint64_t>(address.QuadPart);
    if (bytes == 0)
        violation("MmMapIoSpace of 0 bytes");
    if (kernel.faults.hit(Operation::map_io_space, address_name(base)))
        return nullptr;
    return kernel.memory.map(base, bytes);
}

VOID NTAPI MmUnmapIoSpace(PVOID window, SIZE_T bytes)
{
    enter_at_most(DISPATCH_LEVEL, "MmUnmapIoSpace");
    scheduler().preemption_point();
    executive().memory.unmap(window, bytes);
}

PPHYSICAL_MEMORY_RANGE NTAPI MmGetPhysicalMemoryRanges()
{
    enter_at_most(PASSIVE_LEVEL, "MmGetPhysicalMemoryRanges");
    ExecutiveState& kernel = executive();
    if (kernel.faults.hit(Operation::memory_ranges, ""))
        return nullptr;
    const auto& ranges = kernel.memory.ranges();
    auto* list = static_cast<PPHYSICAL_MEMORY_RANGE>(
        kernel.pool.allocate((ranges.size() + 1) * sizeof(PHYSICAL_MEMORY_RANGE), ranges_tag));
    if (!list)
        return nullptr;
    PPHYSICAL_MEMORY_RANGE entry = list;
    for (const MemoryRange& range : ranges) {
        entry->BaseAddress.QuadPart = static_cast<LONGLONG>(range.base);
        entry->NumberOfBytes.QuadPart = static_cast<LONGLONG>(range.length);
        ++entry;
    }
    entry->BaseAddress.QuadPart = 0;
    entry->NumberOfBytes.QuadPart = 0;
    return list;
}

}  // extern "C"
