// SPDX-License-Identifier: MIT
#include "station/buffer_pool.h"

#include <new>

namespace station {

BufferPool::Buffer BufferPool::take(std::size_t bytes)
{
    unsigned size_class = 0;
    while (size_class < classes && bytes_of(size_class) < bytes)
        ++size_class;
    if (size_class == classes || bytes_of(size_class) > limit_bytes_)
        throw std::bad_alloc();

    auto& idle = idle_[size_class];
    if (!idle.empty()) {
        Buffer buffer = std::move(idle.back());
        idle.pop_back();
        return buffer;
    }
    if (allocated_bytes_ + bytes_of(size_class) > limit_bytes_)
        release_idle();
    if (allocated_bytes_ + bytes_of(size_class) > limit_bytes_)
        return {};
    auto* memory = static_cast<std::uint8_t*>(std::aligned_alloc(bytes_of(0), bytes_of(size_class)));
    if (!memory)
        throw std::bad_alloc();
    allocated_bytes_ += bytes_of(size_class);
    return {std::unique_ptr<std::uint8_t[], Free>(memory), size_class};
}

void BufferPool::give_back(Buffer buffer)
{
    if (buffer)
        idle_[buffer.size_class].push_back(std::move(buffer));
}

void BufferPool::release_idle()
{
    for (unsigned i = 0; i < classes; ++i) {
        allocated_bytes_ -= idle_[i].size() * bytes_of(i);
        idle_[i].clear();
    }
}

}  // namespace station
