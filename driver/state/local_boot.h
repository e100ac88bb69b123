// SPDX-License-Identifier: MIT
// What a start from the local disk has left: the search of conventional memory fills it, before any worker
// runs.
#pragma once

#include <nt.h>

// The partition sector that the descriptor points to (pool, tag "QRNM"), or null when none was found.
extern UCHAR* pSaved_MBR;
// Synchronization event used as a mutex around what boot mode 7 sets up lazily; signalled: free.
extern KEVENT Img_Lock;

// Local images stand before the other backends.
bool Images_Take_Part();
