// SPDX-License-Identifier: MIT
// The checksum of IPv4 and UDP: the complement of the sum of all 16-bit words, carries added in again. Over
// bytes that lie in several pieces, of any length. Any IRQL.
#pragma once

#include <cstdint>

namespace transport {

class Checksum {
public:
    void Add(const void* Bytes, unsigned Size);

    // The sum so far; 0xFFFF over bytes that hold their own right checksum.
    std::uint16_t Sum() const;
    // Into the two bytes of a header's field, which were zero when they were added.
    void Store(std::uint8_t (&Field)[2]) const;
    // The same for UDP, where a field of zero says that there is no checksum.
    void Store_For_Udp(std::uint8_t (&Field)[2]) const;
    // The sum itself: what a card that completes checksums starts from.
    void Store_Sum(std::uint8_t (&Field)[2]) const;

private:
    std::uint32_t Sum_ = 0;  // less than 0x20000
    bool Odd_ = false;       // the next byte is the low half of a word
};

}  // namespace transport
