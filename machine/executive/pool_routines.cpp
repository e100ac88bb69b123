// SPDX-License-Identifier: MIT
#include <nt.h>

#include "machine/executive/checks.h"
#include "machine/executive/executive.h"
#include "machine/executive/paged_pool.h"

using namespace machine;

namespace {

constexpr ULONG no_tag = pool_tag("None");

bool paged(POOL_TYPE type)
{
    return (type & 1) != 0;
}

}  // namespace

extern "C" {

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE type, SIZE_T bytes, ULONG tag)
{
    enter_at_most(paged(type) ? APC_LEVEL : DISPATCH_LEVEL, "ExAllocatePoolWithTag");
    if (tag == 0)
        violation("ExAllocatePoolWithTag without a tag");
    ExecutiveState& kernel = executive();
    if (kernel.faults.hit(Operation::pool_allocate, tag_text(tag)))
        return nullptr;
    if (!paged(type))
        return kernel.pool.allocate(bytes, tag);
    kernel.pool.check_allowed(bytes, tag);
    return allocate_paged(bytes);
}

PVOID NTAPI ExAllocatePool(POOL_TYPE type, SIZE_T bytes)
{
    return ExAllocatePoolWithTag(type, bytes, no_tag);
}

VOID NTAPI ExFreePoolWithTag(PVOID block, ULONG tag)
{
    const Thread& thread = enter_at_most(DISPATCH_LEVEL, "ExFreePoolWithTag");
    ExecutiveState& kernel = executive();
    if (kernel.page_lists.holds_pages(block))
        violation("a page list is freed before its pages");
    if (!free_paged(block))
        kernel.pool.free(block, tag);
    else if (thread.irql > APC_LEVEL)
        irql_violation("ExFreePoolWithTag of paged pool", APC_LEVEL);
}

VOID NTAPI ExFreePool(PVOID block)
{
    ExFreePoolWithTag(block, 0);
}

}  // extern "C"
