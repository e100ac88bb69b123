// SPDX-License-Identifier: MIT
#include "machine/executive/ports.h"

namespace machine {
namespace {

constexpr std::uint16_t keyboard_controller = 0x64, clock_index_port = 0x70, clock_data_port = 0x71,
                        sequencer_index_port = 0x3C4, sequencer_data_port = 0x3C5;
constexpr std::uint8_t pulse_reset_line = 0xFE;
constexpr std::uint8_t clock_index_mask = 0x7F;  // bit 7 disables the non-maskable interrupt
constexpr std::uint8_t empty_bus = 0xFF;

}  // namespace

Ports::Ports(bool reset_works) : reset_works_(reset_works) {}

void Ports::write(std::uint16_t port, std::uint8_t value)
{
    std::lock_guard guard(lock_);
    accesses_.push_back({true, port, value});
    switch (port) {
    case clock_index_port:
        clock_index_ = value & clock_index_mask;
        break;
    case clock_data_port:
        clock_[clock_index_] = value;
        break;
    case sequencer_index_port:
        sequencer_index_ = value;
        break;
    case sequencer_data_port:
        sequencer_[sequencer_index_] = value;
        break;
    case keyboard_controller:
        if (value == pulse_reset_line && reset_works_)
            reset_requested_ = true;
        break;
    default:
        break;
    }
}

std::uint8_t Ports::read(std::uint16_t port)
{
    std::lock_guard guard(lock_);
    std::uint8_t value = empty_bus;
    if (port == clock_data_port)
        value = clock_[clock_index_];
    else if (port == sequencer_data_port)
        value = sequencer_[sequencer_index_];
    accesses_.push_back({false, port, value});
    return value;
}

std::vector<Ports::Access> Ports::accesses() const
{
    std::lock_guard guard(lock_);
    return accesses_;
}

std::uint8_t Ports::clock_register(unsigned index) const
{
    std::lock_guard guard(lock_);
    return clock_.at(index);
}

void Ports::set_clock_register(unsigned index, std::uint8_t value)
{
    std::lock_guard guard(lock_);
    clock_.at(index) = value;
}

bool Ports::reset_requested() const
{
    std::lock_guard guard(lock_);
    return reset_requested_;
}

}  // namespace machine
