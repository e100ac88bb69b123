// SPDX-License-Identifier: MIT
// The boot record that a network boot loader leaves in conventional memory.
#pragma once

#include "driver/state/boot_param.h"

// Searches low memory; on success fills Boot_Param and returns its address, else null. Loading thread.
formats::Boot_Param* QRN_Find_Dos();
