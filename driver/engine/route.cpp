// SPDX-License-Identifier: MIT
#include "driver/engine/route.h"

#include "driver/engine/image_route.h"
#include "driver/engine/slots.h"
#include "driver/net/exchange.h"
#include "driver/net/packet.h"
#include "driver/request/request.h"
#include "driver/state/boot_param.h"
#include "driver/state/local_boot.h"

static LONG Route_Cache(RW_Entry* pEntry, const RW_Req* pReq, LONG Bytes)
{
    QRNH_OBJ_RW* pCache = pEntry->Setup.pMC_Write;
    auto Ctx = reinterpret_cast<ULONG_PTR>(pEntry);
    return pReq->Write ? pCache->Write(Ctx, pEntry->Sector, pEntry->pData, Bytes)
                       : pCache->Read(Ctx, pEntry->Sector, pEntry->pData, Bytes);
}

// A write that the pick has not tagged, and each further run of one that it has, is tagged here: the packets
// of two runs must not pass for each other. What the pick has counted is not counted again.
static void Tag_Write(RW_Entry* pEntry, LONG Left)
{
    bool Tagged = !pEntry->Setup.pMC_Write;
    if (Tagged && pEntry->Sec_In_Chunk() == 0)
        return;
    if (Tagged)
        InterlockedExchangeAdd(&pEntry->Setup.pCounters->Secs, -(Left >> 9));
    Pkt_Tag(pEntry, Write_Slot_Index(pEntry), Left);
}

static bool Let_Go(const RW_Entry* pEntry)
{
    return pEntry->Hold == Hold_Kind::Let_Go;
}

// What the cache could not bring to the server has had its time.
static LONG Route_Network(RW_Entry* pEntry, const RW_Req* pReq, LONG Bytes, LONG Left)
{
    if (pEntry->Server_Failed)
        return -Bytes;
    if (pReq->Write)
        Tag_Write(pEntry, Left);
    return Net_Send_Wait(pEntry, Bytes) > 0 ? Bytes : -Bytes;
}

// Each backend returns the bytes that it has done, or -m: the first m bytes go to the next one. A server that
// was not waited for, since the image might serve in its stead, has its time after all when the image lacks
// the data.
LONG Route_Piece(RW_Entry* pEntry, RW_Req* pReq, LONG Left)
{
    bool Images = Images_Take_Part();
    pEntry->Server_Failed = false;
    pEntry->Cut_Short = false;
    LONG Done = Images ? Img_Route(pEntry, pReq, Left) : -Left;
    if (Done > 0)
        return Done;
    if (Images && !Slot_Past_Images(pEntry, pReq))
        return Left;
    if (pEntry->Setup.pMC_Write)
        Done = Route_Cache(pEntry, pReq, -Done);
    if (Done < 0)
        Done = Route_Network(pEntry, pReq, -Done, Left);
    if (Done < 0 && Images && !Let_Go(pEntry))
        Done = Img_Server_Lost(pEntry, pReq, -Done);
    if (Done < 0 && pEntry->Cut_Short) {
        pEntry->Server_Failed = false;
        Done = Route_Network(pEntry, pReq, -Done, Left);
    }
    if (Let_Go(pEntry))
        return Done > 0 ? Done : Left;
    if (Done < 0) {
        pReq->Status = Req_Failed;
        return Left;
    }
    if (Images && pReq->Write && pReq->Status != Req_Failed)
        Img_Written_Past(pEntry, pReq, Done);
    return Done;
}
