// SPDX-License-Identifier: MIT
// The receive thread: takes every packet that the transport delivers and routes answers to the worker
// that waits for them.
#pragma once

#include <nt.h>

// Answers a server's status poll in the buffer that it came in.
using Poll_Handler = void (*)(UCHAR* pBuffer);

// Context is a Poll_Handler.
VOID NTAPI QRN_Recv_Thread(PVOID Context);
