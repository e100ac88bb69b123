// SPDX-License-Identifier: MIT
// The transport driver's entry, PASSIVE_LEVEL, once. Fails where no boot program left its records: then there
// is no device, and the disk driver goes its way without a network.
#pragma once

#include <nt.h>

extern "C" NTSTATUS NTAPI QRNNET_Entry(PDRIVER_OBJECT pDriver, PUNICODE_STRING pRegistry_Path);
