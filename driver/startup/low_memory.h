// SPDX-License-Identifier: MIT
// Conventional memory, as firmware and boot loader left it. Loading thread, PASSIVE_LEVEL.
#pragma once

#include <nt.h>

#include "formats/boot_block.h"

// Maps the first 640 KB of physical memory for a scope.
class Low_Memory {
public:
    Low_Memory();
    ~Low_Memory();
    Low_Memory(const Low_Memory&) = delete;
    Low_Memory& operator=(const Low_Memory&) = delete;

    bool Mapped() const { return pMemory_ != nullptr; }
    const UCHAR* At(ULONG Offset) const { return pMemory_ + Offset; }
    // First byte above base memory, from the BIOS data area.
    ULONG Base_Memory_End() const;

    // Offset of the first paragraph from the end of base memory on for which Matches is true, or the
    // offset at which the search gave up, at or above low_memory_search_end.
    template <typename Predicate>
    ULONG Search(Predicate Matches) const
    {
        ULONG Offset = Base_Memory_End();
        while (Offset < formats::low_memory_search_end && !Matches(At(Offset)))
            Offset += formats::paragraph_bytes;
        return Offset;
    }

private:
    UCHAR* pMemory_;
};

// The offset of a search as a real-mode paragraph number.
constexpr ULONG Paragraph(ULONG Offset)
{
    return Offset / formats::paragraph_bytes;
}
