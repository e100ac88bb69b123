// SPDX-License-Identifier: MIT
#include "driver/cache/cache_setup.h"

#include "driver/cache/cache_stats.h"
#include "driver/cache/server_object.h"
#include "driver/kernel/locks.h"
#include "driver/kernel/objects.h"
#include "driver/state/boot_param.h"
#include "driver/state/disk_table.h"

namespace {

constexpr ULONG Memory_Type = 1;

// Held by QRN_MC_Init, which is the way to all of this: guards the registry and the search for a disk to
// share with.
KEVENT Setup_Lock;

QRNH_OBJ_MEM* pMem_List;

QRNH_OBJ_MEM* Find_Memory(ULONG MB, ULONG Type)
{
    for (QRNH_OBJ_MEM* pObj = pMem_List; pObj; pObj = pObj->pNext)
        if (pObj->Type == Type && pObj->MB == MB)
            return pObj;
    return nullptr;
}

QRNH_OBJ_MEM* New_Memory(ULONG MB, ULONG Type)
{
    auto pObj = MB ? Create_Object<QRNH_OBJ_MEM>() : nullptr;
    if (!pObj)
        return nullptr;
    pObj->Users = 0;
    if (pObj->Create(MB, Type) < 0) {
        Free_Object(pObj);
        return nullptr;
    }
    pObj->pNext = pMem_List;
    pMem_List = pObj;
    return pObj;
}

// The memory of the first disk whose cache has that size, or null.
QRNH_OBJ_MEM* Memory_To_Share(ULONG MB)
{
    for (const Local_Cache_Record& Record : Local_Cache) {
        auto pLayer = static_cast<const QRNH_MEM_RW*>(Record.pMC_Write);
        if (pLayer && pLayer->Memory()->MB == MB)
            return pLayer->Memory();
    }
    return nullptr;
}

ULONG Disk_MB(ULONG Lun)
{
    return static_cast<ULONG>((ULONGLONG{Boot_Param.Disks[Lun].Disk_Secs.get()} + 2047) >> 11);
}

QRNH_MEM_RW* New_Layer(SR_RW* pSR, ULONG Lun, QRNH_OBJ_MEM* pObj)
{
    auto pLayer = Create_Object<QRNH_MEM_RW>();
    if (!pLayer) {
        DbgPrint("\nMEM_RW_Create: Alloc pMC_Write Error");
        return nullptr;
    }
    if (pLayer->Create(pSR, Disk_MB(Lun), pObj) < 0) {
        Free_Object(pLayer);
        return nullptr;
    }
    return pLayer;
}

// The memory object of that size and type, made when there is none; null when that fails.
QRNH_OBJ_MEM* MEM_OBJ_Create(ULONG MB, ULONG Type)
{
    if (QRNH_OBJ_MEM* pObj = Find_Memory(MB, Type)) {
        DbgPrint("\nMEM_OBJ_Find: %d %d=%p", MB, Type, pObj);
        return pObj;
    }
    QRNH_OBJ_MEM* pObj = New_Memory(MB, Type);
    DbgPrint("\nMEM_OBJ_Create: %dm %d=%p", MB, Type, pObj);
    return pObj;
}

// Ends the object when no cache layer uses it. Returns it when it stays, otherwise null.
QRNH_OBJ_MEM* MEM_OBJ_Release(QRNH_OBJ_MEM* pObj)
{
    if (!pObj || pObj->Users > 0)
        return pObj;
    QRNH_OBJ_MEM** ppLink = &pMem_List;
    while (*ppLink && *ppLink != pObj)
        ppLink = &(*ppLink)->pNext;
    if (*ppLink)
        *ppLink = pObj->pNext;
    pObj->Destory();
    Free_Object(pObj);
    return nullptr;
}

}  // namespace

void Cache_Setup_Init()
{
    Mutex_Init(Setup_Lock);
}

QRNH_MEM_RW* QRN_MC_Init(ULONG MB, ULONG Lun)
{
    Mutex_Guard Guard(Setup_Lock);
    MB &= 0xFFFF;
    QRNH_OBJ_MEM* pObj = Memory_To_Share(MB);
    DbgPrint("\nQRN_MC_Init: Disk %d Find Obj=%p %dMB", Lun, pObj, MB);
    if (!pObj)
        pObj = MEM_OBJ_Create(MB, Memory_Type);
    if (!pObj) {
        DbgPrint("\nQRN_MC_Init: Disk %d OBJ_Create Error", Lun);
        return nullptr;
    }
    auto pSR = Create_Object<SR_RW>(Lun);
    if (!pSR)
        DbgPrint("\nMEM_RW_Create: Alloc pSR_RW Error");
    QRNH_MEM_RW* pLayer = pSR ? New_Layer(pSR, Lun, pObj) : nullptr;
    DbgPrint("\nQRN_MC_Init: Disk %d=%p (%dM)", Lun, pLayer, Disk_MB(Lun));
    if (pLayer) {
        Cache_Stats_Begin(Lun, pSR, MB, static_cast<ULONG>(pObj->LRU_Nums));
    } else {
        Free_Object(pSR);
        MEM_OBJ_Release(pObj);
    }
    Local_Cache[Lun].pMC_Write = pLayer;
    return pLayer;
}
