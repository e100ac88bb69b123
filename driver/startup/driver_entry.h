// SPDX-License-Identifier: MIT
// The driver object, kept from DriverEntry on.
#pragma once

#include <nt.h>

extern PDRIVER_OBJECT pDriver_Obj;

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
