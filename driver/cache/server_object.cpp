// SPDX-License-Identifier: MIT
#include "driver/cache/server_object.h"

#include "driver/net/exchange.h"
#include "driver/net/packet.h"
#include "driver/request/holds.h"
#include "driver/request/worker_block.h"

namespace {

// Points a worker at another run, and back at its own at the end of the scope.
class Run_Switch {
public:
    Run_Switch(RW_Entry* pEntry, ULONGLONG Sector, PVOID pBuffer)
        : pEntry_(pEntry), pData_(pEntry->pData), Sector_(pEntry->Sector)
    {
        pEntry->Sector = static_cast<ULONG>(Sector);
        pEntry->pData = static_cast<UCHAR*>(pBuffer);
    }
    ~Run_Switch()
    {
        pEntry_->Sector = Sector_;
        pEntry_->pData = pData_;
    }
    Run_Switch(const Run_Switch&) = delete;
    Run_Switch& operator=(const Run_Switch&) = delete;

private:
    RW_Entry* pEntry_;
    UCHAR* pData_;
    ULONG Sector_;
};

constexpr ULONG Direction_Write = 1;

}  // namespace

LONG SR_RW::Write(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    auto pEntry = reinterpret_cast<RW_Entry*>(Ctx);
    Run_Switch Switch(pEntry, Sector, pBuffer);
    ULONG Own_Lun = pEntry->Lun;
    Hold_Kind Own_Hold = pEntry->Hold;
    LONG Own_Spent = pEntry->Spent;
    LONG Done;
    {
        Disk_Turn Turn(Own_Lun, Lun);
        Pkt_Init(pEntry, Lun, Direction_Write);
        Pkt_Tag(pEntry, Write_Slot_Index(pEntry), Bytes);
        Done = Net_Send_Wait(pEntry, Bytes);
    }
    Pkt_Init(pEntry, Own_Lun, Direction_Write);
    pEntry->Server_Failed = Lun == Own_Lun && Done <= 0;
    // A write-back for another disk that was given up is none of this chunk's business.
    if (Lun != Own_Lun) {
        pEntry->Hold = Own_Hold;
        pEntry->Spent = Own_Spent;
    }
    return Done > 0 ? Done : -Bytes;
}

LONG SR_RW::Read(ULONG_PTR Ctx, ULONGLONG Sector, PVOID pBuffer, LONG Bytes)
{
    auto pEntry = reinterpret_cast<RW_Entry*>(Ctx);
    Run_Switch Switch(pEntry, Sector, pBuffer);
    LONG Done = Net_Send_Wait(pEntry, Bytes);
    return Done > 0 ? Done : -Bytes;
}
