// SPDX-License-Identifier: MIT
#include "machine/executive/page_lists.h"

#include <string>

#include "machine/scheduler/violation.h"

namespace machine {
namespace {

bool mapped(const MDL& list)
{
    return (list.MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) != 0;
}

// Whether the driver left the page numbers as they were given to it.
bool names_pages(const MDL& list, const std::vector<PageRun>& runs)
{
    const PFN_NUMBER* entry = MmGetMdlPfnArray(&list);
    std::uint64_t bytes = 0;
    for (const PageRun& run : runs) {
        bytes += run.count * page_bytes;
        for (std::uint64_t page = run.first; page < run.end(); ++page)
            if (*entry++ != page)
                return false;
    }
    return list.ByteCount == bytes && list.ByteOffset == 0;
}

}  // namespace

void PageLists::add(PMDL list, std::vector<PageRun> runs)
{
    PFN_NUMBER* entry = MmGetMdlPfnArray(list);
    for (const PageRun& run : runs)
        for (std::uint64_t page = run.first; page < run.end(); ++page)
            *entry++ = static_cast<PFN_NUMBER>(page);
    std::lock_guard guard(lock_);
    lists_.emplace(list, std::move(runs));
}

// The reference stays good: only the list's owner removes it.
const std::vector<PageRun>& PageLists::runs_of(PMDL list, const char* what) const
{
    const std::vector<PageRun>* runs = nullptr;
    {
        std::lock_guard guard(lock_);
        const auto found = lists_.find(list);
        if (found != lists_.end())
            runs = &found->second;
    }
    if (!runs)
        violation(std::string("a page list without pages is ") + what);
    if (strict_ && !names_pages(*list, *runs))
        violation(std::string("a page list is ") + what + " whose page numbers were changed");
    return *runs;
}

void PageLists::remove(PMDL list)
{
    const std::vector<PageRun>& runs = runs_of(list, "freed");
    if (mapped(*list))
        violation("the pages of a list are freed while it is mapped");
    memory_.give_pages(runs);
    list->MdlFlags = static_cast<CSHORT>(list->MdlFlags & ~MDL_PAGES_LOCKED);
    std::lock_guard guard(lock_);
    lists_.erase(list);
}

PVOID PageLists::map(PMDL list)
{
    const std::vector<PageRun>& runs = runs_of(list, "mapped");
    if (mapped(*list))
        violation("a page list is mapped twice");
    const PVOID window = memory_.map_pages(runs, list);
    if (window) {
        list->MappedSystemVa = window;
        list->MdlFlags = static_cast<CSHORT>(list->MdlFlags | MDL_MAPPED_TO_SYSTEM_VA);
    }
    return window;
}

void PageLists::unmap(PVOID window, PMDL list)
{
    runs_of(list, "unmapped");
    if (!mapped(*list))
        violation("a page list is unmapped that is not mapped");
    memory_.unmap_pages(window, list);
    list->MdlFlags = static_cast<CSHORT>(list->MdlFlags & ~MDL_MAPPED_TO_SYSTEM_VA);
}

bool PageLists::holds_pages(const void* list) const
{
    std::lock_guard guard(lock_);
    return lists_.contains(list);
}

}  // namespace machine
