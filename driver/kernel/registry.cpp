// SPDX-License-Identifier: MIT
#include "driver/kernel/registry.h"

#include "driver/kernel/pool.h"

static HANDLE Open_Key(PUNICODE_STRING pName, HANDLE Root)
{
    OBJECT_ATTRIBUTES Attributes;
    InitializeObjectAttributes(&Attributes, pName, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, Root, nullptr);
    HANDLE Key;
    return NT_SUCCESS(ZwOpenKey(&Key, KEY_ALL_ACCESS, &Attributes)) ? Key : nullptr;
}

HANDLE Reg_Open(PUNICODE_STRING pPath, PCWSTR Sub_Key)
{
    HANDLE Key = Open_Key(pPath, nullptr);
    if (!Key || !Sub_Key)
        return Key;
    UNICODE_STRING Name;
    RtlInitUnicodeString(&Name, Sub_Key);
    HANDLE Sub = Open_Key(&Name, Key);
    ZwClose(Key);
    return Sub;
}

PKEY_VALUE_FULL_INFORMATION Reg_Query(HANDLE Key, PCWSTR Name)
{
    UNICODE_STRING Value_Name;
    RtlInitUnicodeString(&Value_Name, Name);
    ULONG Bytes = 0;
    NTSTATUS Status = ZwQueryValueKey(Key, &Value_Name, KeyValueFullInformation, nullptr, 0, &Bytes);
    if (Status == STATUS_OBJECT_NAME_NOT_FOUND || Bytes == 0)
        return nullptr;
    auto pInfo =
        static_cast<PKEY_VALUE_FULL_INFORMATION>(ExAllocatePoolWithTag(NonPagedPool, Bytes, Tag_Registry));
    if (!pInfo)
        return nullptr;
    Status = ZwQueryValueKey(Key, &Value_Name, KeyValueFullInformation, pInfo, Bytes, &Bytes);
    if (NT_SUCCESS(Status))
        return pInfo;
    ExFreePool(pInfo);
    return nullptr;
}

LONG Reg_Dword(HANDLE Key, PCWSTR Name, ULONG* pOut)
{
    PKEY_VALUE_FULL_INFORMATION pInfo = Reg_Query(Key, Name);
    if (!pInfo)
        return -1;
    LONG Result = -2;
    if (pInfo->Type == REG_DWORD && pInfo->DataLength == sizeof(ULONG)) {
        if (pOut)
            RtlCopyMemory(pOut, reinterpret_cast<UCHAR*>(pInfo) + pInfo->DataOffset, sizeof(ULONG));
        Result = 0;
    }
    ExFreePool(pInfo);
    return Result;
}
