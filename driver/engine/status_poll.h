// SPDX-License-Identifier: MIT
// The answer to a server's status poll: a snapshot of the driver's state. Receive thread; takes no lock
// but for the send, so the snapshot is not atomic.
#pragma once

#include <nt.h>

// Builds the reply in the received buffer, which holds at least poll_buffer_bytes, and sends it to the
// address record that the poll carries.
void Answer_Poll(UCHAR* pBuffer);
