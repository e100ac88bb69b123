// SPDX-License-Identifier: MIT
// The page lists (MDLs) that drivers got from MmAllocatePagesForMdl and whose pages they have not yet
// given back. Any thread may call.
#pragma once

#include <mutex>
#include <unordered_map>
#include <vector>

#include <nt.h>

#include "machine/executive/physical_memory.h"

namespace machine {

class PageLists {
public:
    PageLists(PhysicalMemory& memory, bool strict) : memory_(memory), strict_(strict) {}

    // The list lies in pool and has room for the pages; its page numbers are written here.
    void add(PMDL list, std::vector<PageRun> runs);
    // Gives the pages back.
    void remove(PMDL list);

    // Null when no window space is left.
    PVOID map(PMDL list);
    void unmap(PVOID window, PMDL list);

    bool holds_pages(const void* list) const;

private:
    const std::vector<PageRun>& runs_of(PMDL list, const char* what) const;

    PhysicalMemory& memory_;
    const bool strict_;
    mutable std::mutex lock_;
    std::unordered_map<const void*, std::vector<PageRun>> lists_;
};

}  // namespace machine
