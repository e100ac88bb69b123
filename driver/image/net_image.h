// SPDX-License-Identifier: MIT
// The server's copy of the system image: an image area that is read through the workers and never written.
// Used by the synchronisation thread alone, PASSIVE_LEVEL, holding no lock that a worker takes.
#pragma once

#include "driver/image/image_header.h"
#include "driver/request/request.h"

// Whether disk 0 has a server at all.
bool System_Disk_Has_Server();

class QRNH_NET_IMG : public QRNH_OBJ_IMG {
public:
    QRNH_NET_IMG();
    // Opens the server's area, in about 10 s at most whatever the disk's patience. False: there is none, or
    // nobody says so.
    bool Open();
    // Queues a read and waits for it. After the first failure of the network every read fails.
    LONG Read(ULONG Sector, PVOID pBuffer, LONG Bytes) override;

private:
    RW_Req Record;
    KEVENT Done;
};
