// SPDX-License-Identifier: MIT
// Buffers of one connection's requests, within a fixed amount of memory: a client that wants more in
// flight is simply not read from until something is done. Sizes are powers of two, so that a
// connection in its stride takes every buffer from a free list. Used by the connection's thread alone.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace station {

class BufferPool {
public:
    struct Free {
        void operator()(std::uint8_t* memory) const { std::free(memory); }
    };
    struct Buffer {
        std::unique_ptr<std::uint8_t[], Free> memory;
        unsigned size_class = 0;
        explicit operator bool() const { return memory != nullptr; }
    };

    explicit BufferPool(std::size_t limit_bytes) : limit_bytes_(limit_bytes) {}

    // An aligned buffer of at least that many bytes; empty when the limit does not allow it now.
    // Throws std::bad_alloc when the process has no memory, or the limit can never allow it.
    Buffer take(std::size_t bytes);
    void give_back(Buffer buffer);

private:
    static constexpr unsigned class_bits_min = 12;
    static constexpr unsigned classes = 14;  // 4 KB to 32 MB

    static constexpr std::size_t bytes_of(unsigned size_class)
    {
        return std::size_t{1} << (class_bits_min + size_class);
    }
    void release_idle();

    std::size_t limit_bytes_;
    std::size_t allocated_bytes_ = 0;  // handed out and idle
    std::array<std::vector<Buffer>, classes> idle_;
};

}  // namespace station
