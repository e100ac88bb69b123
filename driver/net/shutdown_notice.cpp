// SPDX-License-Identifier: MIT
#include "driver/net/shutdown_notice.h"

#include "driver/kernel/bytes.h"
#include "driver/net/servers.h"
#include "formats/wire.h"

using Notice = UCHAR[formats::request_bytes];

static void Build_Notice(ULONG Lun, Notice& Bytes)
{
    const formats::Disk_Info& Disk = Boot_Param.Disks[Lun];
    formats::WireHeader Header;
    RtlZeroMemory(&Header, sizeof Header);
    RtlCopyMemory(Header.Disk_Id, Disk.Disk_Id, sizeof Header.Disk_Id);
    RtlCopyMemory(Header.Disk_Parm, Disk.Disk_Parm, sizeof Header.Disk_Parm);
    Header.Sub_Code = formats::sub_request;
    Header.Kind = formats::kind_shutdown;
    Header.Length.set(2);
    RtlCopyMemory(Bytes, &Header, sizeof Bytes);
}

static void Send_Notice(const formats::ServerRecord& Server, const Notice& Bytes)
{
    if (Ndis_Handover.QRN_Send)
        Send_To(Server, Bytes, sizeof Bytes, nullptr, 0);
}

// The boot server listens for notices on the main server's port; afterwards its record names Boot_Port.
static void Notify_Boot_Server(const Notice& Bytes)
{
    formats::ServerRecord Main = Server_Copy(&Boot_Param.Main_Server[0]);
    formats::ServerRecord& Boot = Boot_Param.Boot_Server;
    if (Bytes_Equal(Boot.Ip, Main.Ip, sizeof Boot.Ip))
        return;
    Boot.Port = Main.Port;
    RtlCopyMemory(Boot.Zero, Main.Zero, sizeof Boot.Zero);
    Send_Notice(Boot, Bytes);
    Boot.Port.set(Boot_Param.Boot_Port.get());
    RtlZeroMemory(Boot.Zero, sizeof Boot.Zero);
}

void Send_Shutdown_Notices(ULONG Lun)
{
    Notice Bytes;
    Build_Notice(Lun, Bytes);
    Send_Notice(Server_Copy(&Boot_Param.Main_Server[Lun]), Bytes);
    formats::ServerRecord Slave = Server_Copy(&Boot_Param.Slave_Server[Lun]);
    if ((Boot_Param.Disks[Lun].Disk_Id[2] & formats::disk_id_mirror) && Slave.names_a_server())
        Send_Notice(Slave, Bytes);
    if (Lun == 0)
        Notify_Boot_Server(Bytes);
}
