// SPDX-License-Identifier: MIT
// Port I/O: the real-time clock, the ports that reset a PC, the screen's sequencer. Every access is
// recorded in order.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <vector>

namespace machine {

class Ports {
public:
    struct Access {
        bool write;
        std::uint16_t port;
        std::uint8_t value;  // written, or what the read returned
        bool operator==(const Access&) const = default;
    };

    explicit Ports(bool reset_works);

    void write(std::uint16_t port, std::uint8_t value);
    std::uint8_t read(std::uint16_t port);

    std::vector<Access> accesses() const;
    // Real-time clock register, 0 to 127: index through port 0x70, data through port 0x71.
    std::uint8_t clock_register(unsigned index) const;
    void set_clock_register(unsigned index, std::uint8_t value);
    // True from the first write that resets a PC (0xFE to port 0x64) on, when reset works.
    bool reset_requested() const;

private:
    mutable std::mutex lock_;
    bool reset_works_;
    bool reset_requested_ = false;
    std::uint8_t clock_index_ = 0;
    std::array<std::uint8_t, 128> clock_{};
    std::uint8_t sequencer_index_ = 0;
    std::array<std::uint8_t, 256> sequencer_{};
    std::vector<Access> accesses_;
};

}  // namespace machine
