// SPDX-License-Identifier: MIT
// Page lists (MDLs) as drivers see them. Only lists of MmAllocatePagesForMdl exist in this machine.
#include <nt.h>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"

using namespace machine;

namespace {

constexpr ULONG list_tag = pool_tag("Mdl ");
constexpr ULONG no_window_left = 0x3F;  // NO_MORE_SYSTEM_PTES

std::uint64_t page_count(const std::vector<PageRun>& runs)
{
    std::uint64_t count = 0;
    for (const PageRun& run : runs)
        count += run.count;
    return count;
}

PMDL allocate_list(std::uint64_t pages)
{
    const auto bytes = static_cast<std::size_t>(sizeof(MDL) + pages * sizeof(PFN_NUMBER));
    auto* list = static_cast<PMDL>(ExAllocatePoolWithTag(NonPagedPool, bytes, list_tag));
    if (list)
        *list = {.Next = nullptr,
                 .Size = static_cast<CSHORT>(bytes),  // too narrow for large lists, and nobody's concern
                 .MdlFlags = MDL_PAGES_LOCKED,
                 .Process = nullptr,
                 .MappedSystemVa = nullptr,
                 .StartVa = nullptr,
                 .ByteCount = static_cast<ULONG>(pages * page_bytes),
                 .ByteOffset = 0};
    return list;
}

}  // namespace

extern "C" {

PMDL NTAPI MmAllocatePagesForMdl(PHYSICAL_ADDRESS low, PHYSICAL_ADDRESS high, PHYSICAL_ADDRESS skip,
                                 SIZE_T bytes)
{
    enter_at_most(APC_LEVEL, "MmAllocatePagesForMdl");
    scheduler().preemption_point();
    if (skip.QuadPart != 0 || bytes == 0)
        violation("MmAllocatePagesForMdl of nothing or with gaps");
    ExecutiveState& kernel = executive();
    const auto first = static_cast<std::uint64_t>(low.QuadPart);
    std::uint64_t wanted = (std::uint64_t{bytes} + page_bytes - 1) / page_bytes;
    if (kernel.faults.hit(Operation::pages_allocate, address_name(first)))
        return nullptr;
    if (kernel.faults.hit(Operation::pages_allocate_short, address_name(first)))
        wanted /= 2;

    std::vector<PageRun> runs =
        kernel.memory.take_pages(first, static_cast<std::uint64_t>(high.QuadPart), wanted);
    const PMDL list = runs.empty() ? nullptr : allocate_list(page_count(runs));
    if (list)
        kernel.page_lists.add(list, std::move(runs));
    else
        kernel.memory.give_pages(runs);
    return list;
}

VOID NTAPI MmFreePagesFromMdl(PMDL list)
{
    enter_at_most(APC_LEVEL, "MmFreePagesFromMdl");
    scheduler().preemption_point();
    executive().page_lists.remove(list);
}

PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL list, KPROCESSOR_MODE mode, MEMORY_CACHING_TYPE,
                                         PVOID requested, ULONG bug_check_on_failure, MM_PAGE_PRIORITY)
{
    enter_at_most(DISPATCH_LEVEL, "MmMapLockedPagesSpecifyCache");
    scheduler().preemption_point();
    if (mode != KernelMode || requested)
        violation("MmMapLockedPagesSpecifyCache for a user or at a requested address");
    ExecutiveState& kernel = executive();
    const bool fails = kernel.page_lists.holds_pages(list) &&
                       kernel.faults.hit(Operation::pages_map,
                                         address_name(std::uint64_t{*MmGetMdlPfnArray(list)} * page_bytes));
    const PVOID window = fails ? nullptr : kernel.page_lists.map(list);
    if (!window && bug_check_on_failure)
        KeBugCheck(no_window_left);
    return window;
}

VOID NTAPI MmUnmapLockedPages(PVOID window, PMDL list)
{
    enter_at_most(DISPATCH_LEVEL, "MmUnmapLockedPages");
    scheduler().preemption_point();
    executive().page_lists.unmap(window, list);
}

}  // extern "C"
