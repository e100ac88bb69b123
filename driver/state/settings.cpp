// SPDX-License-Identifier: MIT
#include "driver/state/settings.h"

#include "driver/kernel/registry.h"
#include "driver/state/boot_param.h"

ULONG TRANS_SIZE = 64 * 1024;
ULONG RW_THREADS = 6;
LONG HOT_RETRYS = 21;
ULONG PAE_SIZE = 3327;

constexpr ULONG Trans_KB_Max = 64;

void Settings_Read(PUNICODE_STRING pService_Key)
{
    HANDLE Key = Reg_Open(pService_Key, nullptr);
    if (!Key)
        return;
    ULONG Value;
    if (Reg_Dword(Key, L"TRANS_SIZE", &Value) == 0 && Value >= 1 && Value <= Trans_KB_Max)
        TRANS_SIZE = Value * 1024;
    if (Reg_Dword(Key, L"RW_THREADS", &Value) == 0 && Value >= 1 && Value <= RW_Threads_Max)
        RW_THREADS = Value;
    if (Reg_Dword(Key, L"HOT_RETRYS", &Value) == 0)
        HOT_RETRYS = static_cast<LONG>(Value);
    Reg_Dword(Key, L"PAE_SIZE", &PAE_SIZE);
    if (Reg_Dword(Key, L"RW_RACK", &Value) == 0)
        Boot_Param.Rack_Level.set(static_cast<USHORT>(Value));
    ZwClose(Key);
}
