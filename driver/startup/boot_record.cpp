// SPDX-License-Identifier: MIT
#include "driver/startup/boot_record.h"

#include "driver/kernel/bytes.h"
#include "driver/startup/low_memory.h"

static bool Is_Boot_Record(const UCHAR* pMemory)
{
    auto pRecord = reinterpret_cast<const formats::BootRecord*>(pMemory);
    return Bytes_Equal(pRecord->Signature, formats::boot_record_signature, sizeof pRecord->Signature) &&
           pRecord->Bound.get() <= formats::boot_record_bound_max &&
           pRecord->Kind.get() == formats::boot_record_kind;
}

// A record found anywhere below this lies inside the mapped memory.
static_assert(formats::low_memory_search_end + sizeof(formats::BootRecord) <= formats::low_memory_bytes);

formats::Boot_Param* QRN_Find_Dos()
{
    formats::Boot_Param* pFound = nullptr;
    ULONG Offset = 0;
    {
        Low_Memory Memory;
        if (Memory.Mapped()) {
            Offset = Memory.Search(Is_Boot_Record);
            if (Offset < formats::low_memory_search_end) {
                auto pRecord = reinterpret_cast<const formats::BootRecord*>(Memory.At(Offset));
                Boot_Param = pRecord->Param;
                Boot_Param.Rack_Level.set(pRecord->Rack_Level.get());
                pFound = &Boot_Param;
            }
        }
    }
    DbgPrint("\nQRN_Find_Dos: i=%X %p", Paragraph(Offset), pFound);
    return pFound;
}
