// SPDX-License-Identifier: MIT
// Apart from the tests, since an object of the driver's own kind has no run-time type.
#include "tests/image/memory_area.h"

namespace image_test {

LONG MemoryArea::Read(ULONG Sector, PVOID pBuffer, LONG Bytes)
{
    take_time();
    if (!inside(Sector, Bytes) || fails())
        return -Bytes;
    std::memcpy(pBuffer, &now[Sector * 512], static_cast<std::size_t>(Bytes));
    return Bytes;
}

LONG MemoryArea::Write(ULONG Sector, PVOID pBuffer, LONG Bytes)
{
    take_time();
    if (!inside(Sector, Bytes))
        return -Bytes;
    const bool fail = fails();
    const auto* from = static_cast<const UCHAR*>(pBuffer);
    const ULONG count = static_cast<ULONG>(Bytes) / 512;
    const ULONG done = fail ? random_.below(count + 1) : count;
    for (ULONG i = 0; i < done; ++i) {
        cached_.insert(Sector + i);
        std::memcpy(&now[(Sector + i) * 512], from + i * 512, 512);
    }
    writes.push_back(Sector);
    if (after_write)
        after_write();
    return fail ? -Bytes : Bytes;
}

bool MemoryArea::Flush()
{
    if (fails())
        return false;
    for (ULONG sector : cached_)
        std::memcpy(&disk_[sector * 512], &now[sector * 512], 512);
    cached_.clear();
    return true;
}

}  // namespace image_test
