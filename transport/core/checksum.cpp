// SPDX-License-Identifier: MIT
#include "transport/core/checksum.h"

namespace transport {
namespace {

constexpr unsigned Words_At_Once = 0x4000;  // their sum fits 32 bits

std::uint32_t Fold(std::uint32_t Sum)
{
    Sum = (Sum & 0xFFFF) + (Sum >> 16);
    return (Sum & 0xFFFF) + (Sum >> 16);
}

void Put(std::uint8_t (&Field)[2], std::uint32_t Value)
{
    Field[0] = static_cast<std::uint8_t>(Value >> 8);
    Field[1] = static_cast<std::uint8_t>(Value);
}

}  // namespace

// Pairs are added as this processor reads them, low byte first: that sum's bytes are those of the other
// order, exchanged, and are put right once at the end.
void Checksum::Add(const void* Bytes, unsigned Size)
{
    const auto* At = static_cast<const std::uint8_t*>(Bytes);
    if (Size != 0 && Odd_) {
        Sum_ = Fold(Sum_ + *At++);
        --Size;
        Odd_ = false;
    }
    while (Size >= 2) {
        const unsigned Words = Size / 2 < Words_At_Once ? Size / 2 : Words_At_Once;
        std::uint32_t Exchanged = 0;
        for (unsigned i = 0; i < Words; ++i, At += 2) {
            std::uint16_t Word;
            __builtin_memcpy(&Word, At, sizeof Word);
            Exchanged += Word;
        }
        Exchanged = Fold(Exchanged);
        Sum_ = Fold(Sum_ + ((Exchanged & 0xFF) << 8) + (Exchanged >> 8));
        Size -= 2 * Words;
    }
    if (Size != 0) {
        Sum_ = Fold(Sum_ + (std::uint32_t{*At} << 8));
        Odd_ = true;
    }
}

std::uint16_t Checksum::Sum() const
{
    return static_cast<std::uint16_t>(Fold(Sum_));
}

void Checksum::Store(std::uint8_t (&Field)[2]) const
{
    Put(Field, ~std::uint32_t{Sum()});
}

void Checksum::Store_For_Udp(std::uint8_t (&Field)[2]) const
{
    const std::uint32_t Value = ~std::uint32_t{Sum()} & 0xFFFF;
    Put(Field, Value == 0 ? 0xFFFF : Value);
}

void Checksum::Store_Sum(std::uint8_t (&Field)[2]) const
{
    Put(Field, Sum());
}

}  // namespace transport
