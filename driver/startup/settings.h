// SPDX-License-Identifier: MIT
// Tuning values from the driver's service key, and the registry helpers. Loading thread,
// PASSIVE_LEVEL; Reg_* by any thread at PASSIVE_LEVEL.
#pragma once

#include <nt.h>

// Settings: defaults at load, changed only by Settings_Read and (RW_THREADS) by Lun_Init.
extern ULONG TRANS_SIZE;  // bytes: largest transfer that the port driver may send
extern ULONG RW_THREADS;  // worker threads, 1 to 8
extern LONG HOT_RETRYS;   // time-outs of one packet after which a mirrored disk leaves its main server
extern ULONG PAE_SIZE;    // MB: least physical memory for the probe above 4 GB

constexpr ULONG RW_Threads_Max = 8;

// Reads the settings; RW_RACK replaces Boot_Param's Rack_Level. Whatever is missing, of another type
// or out of range leaves its setting as it was.
void Settings_Read(PUNICODE_STRING pService_Key);

// Opens Path, or Sub_Key below it; null when that fails. Close with ZwClose.
HANDLE Reg_Open(PUNICODE_STRING pPath, PCWSTR Sub_Key);
// The value with its data in pool memory (tag "QRNR"), or null.
PKEY_VALUE_FULL_INFORMATION Reg_Query(HANDLE Key, PCWSTR Name);
// 0: stored in *pOut (which may be null); -1: missing or unreadable; -2: no REG_DWORD of 4 bytes.
LONG Reg_Dword(HANDLE Key, PCWSTR Name, ULONG* pOut);
