// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cerrno>

#include "server/block_store.h"

namespace server {

bool MemoryStore::read(std::uint64_t offset, std::span<std::uint8_t> out)
{
    if (reads_fail_) {
        errno = EIO;
        return false;
    }
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), out.size(), out.begin());
    return true;
}

bool MemoryStore::write(std::uint64_t offset, std::span<const std::uint8_t> data)
{
    if (writes_fail_) {
        errno = ENOSPC;
        return false;
    }
    std::ranges::copy(data, bytes_.begin() + static_cast<std::ptrdiff_t>(offset));
    return true;
}

}  // namespace server
