// SPDX-License-Identifier: MIT
// Objects in the driver's non-paged pool. PASSIVE_LEVEL.
#pragma once

#include <new>

#include "driver/kernel/pool.h"

// Null without memory.
template <typename Object, typename... Arguments>
Object* Create_Object(Arguments... Values)
{
    void* pMemory = ExAllocatePoolWithTag(NonPagedPool, sizeof(Object), Tag_Memory);
    return pMemory ? new (pMemory) Object(Values...) : nullptr;
}

// Null is nothing to free. Objects own nothing that their end would have to undo.
inline void Free_Object(void* pObject)
{
    if (pObject)
        ExFreePoolWithTag(pObject, Tag_Memory);
}
