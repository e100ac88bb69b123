// SPDX-License-Identifier: MIT
// The server address records of the disks. Several workers send while another moves the disk to its
// slave server: a record is copied and changed under Server_Lock, and every send works on a copy.
#pragma once

#include <nt.h>

#include "driver/state/boot_param.h"

// Copy of a record as it stands now. Up to DISPATCH_LEVEL.
formats::ServerRecord Server_Copy(const formats::ServerRecord* pRecord);

// True for a Slave_Server record of Boot_Param, false for a Main_Server record.
bool Is_Slave(const formats::ServerRecord* pRecord);

// The disk's slave server becomes its main server, for good. False when no slave server is left.
bool Promote_Slave(ULONG Lun);
// The disk goes on without a slave server.
void Drop_Slave(ULONG Lun);
// True once the disk's slave server has become its main server.
bool Slave_Promoted(ULONG Lun);

// Hands one packet to the transport: Header_Bytes of pHeader, then Data_Bytes of pData.
void Send_To(const formats::ServerRecord& Server, const void* pHeader, ULONG Header_Bytes, const void* pData,
             ULONG Data_Bytes);
