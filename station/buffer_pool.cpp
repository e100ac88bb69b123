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
    waits_for_others_ = false;
    if (allocated_bytes_ + bytes_of(size_class) > limit_bytes_)
        return {};
    if (!allocated(allocated_bytes_ + bytes_of(size_class))) {
        release_idle();
        waits_for_others_ = !allocated(allocated_bytes_ + bytes_of(size_class));
        if (waits_for_others_)
            return {};
    }
    auto* memory = static_cast<std::uint8_t*>(std::aligned_alloc(bytes_of(0), bytes_of(size_class)));
    if (!memory) {
        allocated(allocated_bytes_ - bytes_of(size_class));
        throw std::bad_alloc();
    }
    return {std::unique_ptr<std::uint8_t[], Free>(memory), size_class};
}

void BufferPool::give_back(Buffer buffer)
{
    if (buffer)
        idle_[buffer.size_class].push_back(std::move(buffer));
}

void BufferPool::release_idle()
{
    std::size_t left_bytes = allocated_bytes_;
    for (unsigned i = 0; i < classes; ++i) {
        left_bytes -= idle_[i].size() * bytes_of(i);
        idle_[i].clear();
    }
    allocated(left_bytes);
}

void BufferPool::trim()
{
    if (allocated_bytes_ > own_bytes)
        release_idle();
}

// So much is allocated from here on. False, and nothing has changed: the budget has not enough left.
bool BufferPool::allocated(std::size_t bytes)
{
    const auto shared = [](std::size_t total) { return total > own_bytes ? total - own_bytes : 0; };
    const std::size_t before = shared(allocated_bytes_), after = shared(bytes);
    if (budget_ && after > before && !budget_->take(after - before))
        return false;
    if (budget_ && after < before)
        budget_->give_back(before - after);
    allocated_bytes_ = bytes;
    return true;
}

}  // namespace station
