// SPDX-License-Identifier: MIT
// Buffers of one connection's requests, within a fixed amount of memory: a client that wants more in
// flight is simply not read from until something is done. Sizes are powers of two, so that a
// connection in its stride takes every buffer from a free list. Used by the connection's thread alone.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace station {

// Memory that many pools share beyond what each may have in any case. From any thread.
class BufferBudget {
public:
    explicit BufferBudget(std::size_t bytes) : left_bytes_(bytes) {}

    bool take(std::size_t bytes)
    {
        std::size_t left = left_bytes_;
        while (left >= bytes)
            if (left_bytes_.compare_exchange_weak(left, left - bytes))
                return true;
        return false;
    }
    void give_back(std::size_t bytes) { left_bytes_ += bytes; }

private:
    std::atomic<std::size_t> left_bytes_;
};

class BufferPool {
public:
    // Of each pool in any case, so that those who hold much keep nobody from small requests.
    static constexpr std::size_t own_bytes = 1 << 20;

    struct Free {
        void operator()(std::uint8_t* memory) const { std::free(memory); }
    };
    struct Buffer {
        std::unique_ptr<std::uint8_t[], Free> memory;
        unsigned size_class = 0;
        explicit operator bool() const { return memory != nullptr; }
    };

    // The budget, if any, must outlive the pool.
    explicit BufferPool(std::size_t limit_bytes, BufferBudget* budget = nullptr)
        : limit_bytes_(limit_bytes), budget_(budget)
    {
    }
    ~BufferPool() { allocated(0); }
    BufferPool(const BufferPool&) = delete;
    BufferPool& operator=(const BufferPool&) = delete;

    // An aligned buffer of at least that many bytes; empty when the limit does not allow it now.
    // Throws std::bad_alloc when the process has no memory, or the limit can never allow it.
    Buffer take(std::size_t bytes);
    void give_back(Buffer buffer);
    // Why take() was last empty: what it lacks is with other pools.
    bool waits_for_others() const { return waits_for_others_; }
    // Lets go of idle buffers when they are more than the pool's own.
    void trim();

private:
    static constexpr unsigned class_bits_min = 12;
    static constexpr unsigned classes = 14;  // 4 KB to 32 MB

    static constexpr std::size_t bytes_of(unsigned size_class)
    {
        return std::size_t{1} << (class_bits_min + size_class);
    }
    void release_idle();
    bool allocated(std::size_t bytes);

    std::size_t limit_bytes_;
    BufferBudget* budget_;
    bool waits_for_others_ = false;
    std::size_t allocated_bytes_ = 0;  // handed out and idle
    std::array<std::vector<Buffer>, classes> idle_;
};

}  // namespace station
