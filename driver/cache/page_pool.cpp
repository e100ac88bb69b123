// SPDX-License-Identifier: MIT
#include "driver/cache/page_pool.h"

#include "driver/kernel/bytes.h"
#include "driver/kernel/delay.h"
#include "driver/kernel/locks.h"
#include "driver/kernel/pool.h"
#include "driver/state/memory_probe.h"
#include "formats/wire.h"

namespace {

constexpr LONG Views_Max = 8;
constexpr LONG PAE_Blocks_Min = 8;  // fewer blocks above 4 GB are not worth their windows
constexpr LONG PAE_Block_MB = 4;
constexpr ULONG Large_Pool_MB = 16384;
constexpr LONG Small_Chunk_MB = 4;
constexpr LONG Large_Chunk_MB = 64;
constexpr LONGLONG Four_GB = 0x100000000;

// How many chunks of each kind, and of what size, a pool has.
struct Pool_Plan {
    LONG Chunk_MB;
    LONG MDL_Chunks;
    LONG PAE_Chunks;
    LONG MDL_View_Nums;
    LONG PAE_View_Nums;
};

Pool_Plan Plan_Pool(ULONG MB)
{
    Pool_Plan Plan;
    LONG PAE_Blocks = InterlockedExchange(&PAE_Nums, 0);
    if (PAE_Blocks < PAE_Blocks_Min)
        PAE_Blocks = 0;
    Plan.Chunk_MB = MB < Large_Pool_MB ? Small_Chunk_MB : Large_Chunk_MB;
    Plan.PAE_Chunks = PAE_Blocks / (Plan.Chunk_MB / PAE_Block_MB);
    LONG Wanted = (static_cast<LONG>(MB) + Plan.Chunk_MB - 1) / Plan.Chunk_MB;
    Plan.MDL_Chunks = Wanted > Plan.PAE_Chunks ? Wanted - Plan.PAE_Chunks : 0;
    Plan.MDL_View_Nums = Smaller(Plan.MDL_Chunks, Views_Max);
    Plan.PAE_View_Nums = Smaller(Plan.PAE_Chunks, Views_Max);
    return Plan;
}

// Where the arrays behind the header begin. The slot map is padded to whole words.
struct Pool_Layout {
    SIZE_T Slot_Map;
    SIZE_T MDL_List;
    SIZE_T MDL_Nodes;
    SIZE_T MDL_Addresses;
    SIZE_T PAE_Nodes;
    SIZE_T PAE_Addresses;
    SIZE_T Bytes;
};

Pool_Layout Lay_Out(const Pool_Plan& Plan)
{
    auto Array = [](LONG Nums, SIZE_T Item_Bytes) { return static_cast<SIZE_T>(Nums) * Item_Bytes; };
    SIZE_T Slot_Map_Bytes = (Array(Plan.MDL_Chunks + Plan.PAE_Chunks, sizeof(USHORT)) + 3) & ~SIZE_T{3};
    Pool_Layout Layout;
    Layout.Slot_Map = sizeof(QRN_MDL);
    Layout.MDL_List = Layout.Slot_Map + Slot_Map_Bytes;
    Layout.MDL_Nodes = Layout.MDL_List + Array(Plan.MDL_Chunks, sizeof(PMDL));
    Layout.MDL_Addresses = Layout.MDL_Nodes + Array(Plan.MDL_View_Nums, sizeof(LRU_Node));
    Layout.PAE_Nodes = Layout.MDL_Addresses + Array(Plan.MDL_View_Nums, sizeof(UCHAR*));
    Layout.PAE_Addresses = Layout.PAE_Nodes + Array(Plan.PAE_View_Nums, sizeof(LRU_Node));
    Layout.Bytes = Layout.PAE_Addresses + Array(Plan.PAE_View_Nums, sizeof(UCHAR*));
    return Layout;
}

ULONG Chunk_Secs_Of(const QRN_MDL* pPool)
{
    return pPool->Chunk_Bytes / formats::sector_bytes;
}

LONG Chunk_Of(const QRN_MDL* pPool, ULONG Sector)
{
    return static_cast<LONG>(Sector / Chunk_Secs_Of(pPool));
}

MDL_Views& Views_Of(QRN_MDL* pPool, LONG Chunk)
{
    return Chunk >= pPool->MDL_Nums ? pPool->PAE : pPool->MDL;
}

void* Map_Chunk(const QRN_MDL* pPool, LONG Chunk)
{
    if (Chunk < pPool->MDL_Nums)
        return MmMapLockedPagesSpecifyCache(pPool->pMDL_List[Chunk], KernelMode, MmCached, nullptr, FALSE,
                                            HighPagePriority);
    PHYSICAL_ADDRESS Address;
    Address.QuadPart = Four_GB + LONGLONG{Chunk - pPool->MDL_Nums} * pPool->Chunk_Bytes;
    return MmMapIoSpace(Address, pPool->Chunk_Bytes, MmCached);
}

void Unmap_View(const QRN_MDL* pPool, const MDL_Views& Views, const LRU_Node* pNode)
{
    UCHAR* pView = Views.pViews[pNode - Views.pNodes];
    if (pNode->ID == LRU_No_ID || !pView)
        return;
    if (static_cast<LONG>(pNode->ID) < pPool->MDL_Nums)
        MmUnmapLockedPages(pView, pPool->pMDL_List[pNode->ID]);
    else
        MmUnmapIoSpace(pView, pPool->Chunk_Bytes);
}

void Unmap_All(const QRN_MDL* pPool, const MDL_Views& Views)
{
    if (!Views.pCur)
        return;
    const LRU_Node* pNode = Views.pCur;
    do {
        Unmap_View(pPool, Views, pNode);
        pNode = pNode->Next;
    } while (pNode != Views.pCur);
}

// Gives the chunk the next free window; null when every window is held. Its address may be null.
LRU_Node* Move_View(QRN_MDL* pPool, MDL_Views& Views, LONG Chunk)
{
    LRU_Node* pNode = LRU_Get(Views.pCur);
    if (!pNode)
        return nullptr;
    Views.pCur = pNode->Next;
    LONG Slot = static_cast<LONG>(pNode - Views.pNodes);
    pPool->pSlot_Map[Chunk] = static_cast<USHORT>(Slot);
    Unmap_View(pPool, Views, pNode);
    pNode->ID = static_cast<ULONG>(Chunk);
    Views.pViews[Slot] = static_cast<UCHAR*>(Map_Chunk(pPool, Chunk));
    return pNode;
}

// The window that maps the chunk, or null.
LRU_Node* Mapped_View(const QRN_MDL* pPool, const MDL_Views& Views, LONG Chunk)
{
    ULONG Slot = pPool->pSlot_Map[Chunk];
    LRU_Node* pNode = Views.pNodes + Slot;
    return pNode->ID == static_cast<ULONG>(Chunk) && Views.pViews[Slot] ? pNode : nullptr;
}

bool Map_Once(QRN_MDL* pPool, LONG Chunk)
{
    ULONG Sector = static_cast<ULONG>(Chunk) * Chunk_Secs_Of(pPool);
    if (!MDL_Map(pPool, Sector))
        return false;
    MDL_Unuse(pPool, Sector);
    return true;
}

// All pages of one chunk, or null. What fails starts higher the next time.
PMDL Alloc_Chunk(ULONG Bytes)
{
    Phys_Span Span = Phys_Span_Get();
    PHYSICAL_ADDRESS Low, High, Skip;
    Low.QuadPart = static_cast<LONGLONG>(Span.Low);
    High.QuadPart = static_cast<LONGLONG>(Span.High);
    Skip.QuadPart = 0;
    PMDL pMDL = MmAllocatePagesForMdl(Low, High, Skip, Bytes);
    if (pMDL && MmGetMdlByteCount(pMDL) >= Bytes)
        return pMDL;
    if (pMDL) {
        MmFreePagesFromMdl(pMDL);
        ExFreePool(pMDL);
    }
    Phys_Low_Raise(Bytes);
    return nullptr;
}

ULONG Ms_Since_First_Pool()
{
    static ULONGLONG Start;
    ULONGLONG Now = KeQueryInterruptTime();
    if (Start == 0)
        Start = Now;
    return static_cast<ULONG>((Now - Start) / Ticks_Per_Ms);
}

bool Fill_MDL_Chunks(QRN_MDL* pPool, ULONG MB, LONG View_Nums)
{
    pPool->MDL.pCur = LRU_Init(pPool->MDL.pNodes, View_Nums);
    Ms_Since_First_Pool();
    for (LONG i = 0; i < pPool->MDL_Nums; ++i) {
        pPool->pMDL_List[i] = Alloc_Chunk(pPool->Chunk_Bytes);
        if (!pPool->pMDL_List[i]) {
            DbgPrint("\nQRN MDL: Alloc %d NULL", i);
            return false;
        }
        if (i < View_Nums && !Map_Once(pPool, i))
            return false;
    }
    DbgPrint("\nQRN MDL: Alloc_MDL = %dMB %dms", MB, Ms_Since_First_Pool());
    return true;
}

bool Map_PAE_Chunks(QRN_MDL* pPool, LONG View_Nums)
{
    pPool->PAE.pCur = LRU_Init(pPool->PAE.pNodes, View_Nums);
    for (LONG i = 0; i < View_Nums; ++i)
        if (!Map_Once(pPool, pPool->MDL_Nums + i))
            return false;
    return true;
}

QRN_MDL* Create_Pool(const Pool_Plan& Plan, ULONG MB)
{
    Pool_Layout Layout = Lay_Out(Plan);
    auto pBlock = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, Layout.Bytes, Tag_Memory));
    DbgPrint("\nQRN MDL: Alloc %p=%dMB(%dMB),%d PAE_Nums=%d, MDL=%d %d", pBlock, MB, Plan.Chunk_MB,
             Plan.MDL_Chunks + Plan.PAE_Chunks, Plan.PAE_Chunks, Plan.MDL_Chunks, Plan.MDL_View_Nums);
    if (!pBlock)
        return nullptr;
    RtlZeroMemory(pBlock, Layout.MDL_Nodes);
    auto pPool = reinterpret_cast<QRN_MDL*>(pBlock);
    Mutex_Init(pPool->Pool_Lock);
    pPool->Chunk_Bytes = static_cast<ULONG>(Plan.Chunk_MB) << 20;
    pPool->MDL_Nums = Plan.MDL_Chunks;
    pPool->Chunk_Nums = Plan.MDL_Chunks + Plan.PAE_Chunks;
    pPool->pSlot_Map = reinterpret_cast<USHORT*>(pBlock + Layout.Slot_Map);
    pPool->pMDL_List = reinterpret_cast<PMDL*>(pBlock + Layout.MDL_List);
    pPool->MDL.pNodes = reinterpret_cast<LRU_Node*>(pBlock + Layout.MDL_Nodes);
    pPool->MDL.pViews = reinterpret_cast<UCHAR**>(pBlock + Layout.MDL_Addresses);
    pPool->PAE.pNodes = reinterpret_cast<LRU_Node*>(pBlock + Layout.PAE_Nodes);
    pPool->PAE.pViews = reinterpret_cast<UCHAR**>(pBlock + Layout.PAE_Addresses);
    return pPool;
}

}  // namespace

QRN_MDL* MDL_Alloc(ULONG MB)
{
    Pool_Plan Plan = Plan_Pool(MB);
    QRN_MDL* pPool = Create_Pool(Plan, MB);
    if (!pPool)
        return nullptr;
    bool Filled = Plan.MDL_Chunks == 0 || Fill_MDL_Chunks(pPool, MB, Plan.MDL_View_Nums);
    if (Filled && (Plan.PAE_Chunks == 0 || Map_PAE_Chunks(pPool, Plan.PAE_View_Nums)))
        return pPool;
    MDL_Free(pPool);
    return nullptr;
}

LONG MDL_Free(QRN_MDL* pPool)
{
    if (!pPool)
        return 0;
    Unmap_All(pPool, pPool->PAE);
    Unmap_All(pPool, pPool->MDL);
    for (LONG i = 0; i < pPool->MDL_Nums && pPool->pMDL_List[i]; ++i) {
        MmFreePagesFromMdl(pPool->pMDL_List[i]);
        ExFreePool(pPool->pMDL_List[i]);
    }
    DbgPrint("\nQRN MDL: Free pQRN_MDL:%p", pPool);
    ExFreePoolWithTag(pPool, Tag_Memory);
    return 0;
}

UCHAR* MDL_Map(QRN_MDL* pPool, ULONG Sector)
{
    LONG Chunk = Chunk_Of(pPool, Sector);
    MDL_Views& Views = Views_Of(pPool, Chunk);
    Mutex_Take(pPool->Pool_Lock);
    LRU_Node* pNode;
    while (!(pNode = Mapped_View(pPool, Views, Chunk)) && !(pNode = Move_View(pPool, Views, Chunk))) {
        // Whoever holds a window needs the lock to give it back.
        Mutex_Give(pPool->Pool_Lock);
        Sleep_Ms(LRU_Wait_Ms);
        Mutex_Take(pPool->Pool_Lock);
    }
    UCHAR* pView = Views.pViews[pNode - Views.pNodes];
    if (pView) {
        ++pNode->InUse_Nums;
        pView += Sector % Chunk_Secs_Of(pPool) * formats::sector_bytes;
    } else {
        DbgPrint("\nQRN MDL: %d(%d) Map NULL", Chunk, Chunk - pPool->MDL_Nums);
    }
    Mutex_Give(pPool->Pool_Lock);
    return pView;
}

void MDL_Unuse(QRN_MDL* pPool, ULONG Sector)
{
    LONG Chunk = Chunk_Of(pPool, Sector);
    MDL_Views& Views = Views_Of(pPool, Chunk);
    Mutex_Guard Guard(pPool->Pool_Lock);
    ULONG Slot = pPool->pSlot_Map[Chunk];
    LRU_Node* pNode = Views.pNodes + Slot;
    if (pNode->ID != static_cast<ULONG>(Chunk))
        DbgPrint("\nQRN MDL: Unuse LRU %d %d Error", Chunk, Slot);
    --pNode->InUse_Nums;
}
