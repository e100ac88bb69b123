// SPDX-License-Identifier: MIT
#include "driver/net/servers.h"

#include "driver/kernel/locks.h"

static KSPIN_LOCK Server_Lock;
static bool Promoted[formats::disk_count_max];  // Server_Lock

static void Empty_Record(formats::ServerRecord& Record)
{
    RtlZeroMemory(Record.Ip, sizeof Record.Ip);
}

formats::ServerRecord Server_Copy(const formats::ServerRecord* pRecord)
{
    Spin_Guard Guard(Server_Lock);
    return *pRecord;
}

bool Is_Slave(const formats::ServerRecord* pRecord)
{
    return pRecord >= &Boot_Param.Slave_Server[0];
}
static_assert(offsetof(formats::Boot_Param, Slave_Server) > offsetof(formats::Boot_Param, Main_Server));

bool Promote_Slave(ULONG Lun)
{
    Spin_Guard Guard(Server_Lock);
    formats::ServerRecord& Slave = Boot_Param.Slave_Server[Lun];
    if (!Slave.names_a_server())
        return false;
    Boot_Param.Main_Server[Lun] = Slave;
    Empty_Record(Slave);
    Promoted[Lun] = true;
    return true;
}

void Drop_Slave(ULONG Lun)
{
    Spin_Guard Guard(Server_Lock);
    Empty_Record(Boot_Param.Slave_Server[Lun]);
}

bool Slave_Promoted(ULONG Lun)
{
    Spin_Guard Guard(Server_Lock);
    return Promoted[Lun];
}

void Send_To(const formats::ServerRecord& Server, const void* pHeader, ULONG Header_Bytes, const void* pData,
             ULONG Data_Bytes)
{
    formats::ServerRecord Record = Server;
    Ndis_Handover.QRN_Send(&Record, const_cast<void*>(pHeader), Header_Bytes, const_cast<void*>(pData),
                           Data_Bytes);
}
