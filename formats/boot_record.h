// SPDX-License-Identifier: MIT
// The record in which a boot loader hands a boot parameter block over. For those in the place of a boot
// loader; the driver only reads such records.
#pragma once

#include <algorithm>

#include "formats/boot_block.h"

namespace formats {

inline BootRecord boot_record(const Boot_Param& block)
{
    BootRecord record{};
    std::copy_n(boot_record_signature, sizeof record.Signature, record.Signature);
    record.Bound.set(boot_record_bound_max);
    record.Kind.set(boot_record_kind);
    record.Rack_Level.set(block.Rack_Level.get());
    record.Param = block;
    return record;
}

}  // namespace formats
