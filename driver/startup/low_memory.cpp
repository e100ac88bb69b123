// SPDX-License-Identifier: MIT
#include "driver/startup/low_memory.h"

Low_Memory::Low_Memory()
{
    PHYSICAL_ADDRESS Start;
    Start.QuadPart = 0;
    pMemory_ = static_cast<UCHAR*>(MmMapIoSpace(Start, formats::low_memory_bytes, MmCached));
}

Low_Memory::~Low_Memory()
{
    if (pMemory_)
        MmUnmapIoSpace(pMemory_, formats::low_memory_bytes);
}

ULONG Low_Memory::Base_Memory_End() const
{
    return reinterpret_cast<const formats::Le16*>(At(formats::base_memory_kb_address))->get() * 1024u;
}
