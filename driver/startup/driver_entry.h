// SPDX-License-Identifier: MIT
// The driver's entry point.
#pragma once

#include <nt.h>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
